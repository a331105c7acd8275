// SPDX-License-Identifier: ISC
// The platform stand-ins the daemon leans on to never hang: the command
// runner's bounded wait and the reaping of every child, and the bus when
// its peer is absent or not reading.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <chrono>

#include "platform/platform.h"
#include "tests/unit/support/unit.h"

namespace {

using Clock = std::chrono::steady_clock;

// As a subreaper this process inherits what is orphaned below it, so the
// processes a command runs in show up here only if nobody reaped them. The
// runner reaps the intermediate, the shell's own parent reaps the shell, and
// that parent, orphaned once the intermediate is gone, is init's (here: ours).
TEST(CommandRunner, ReapsTheIntermediateAndTheShell) {
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  EXPECT_EQ(ZUN_UTIL_ExecCmdNoHang("echo $$ $PPID > /var/log/pids"), 0);
  pid_t shell = 0, parent = 0;
  ASSERT_EQ(sscanf(read_file("/var/log/pids").c_str(), "%d %d", &shell, &parent), 2);
  const auto limit = Clock::now() + std::chrono::seconds(10);
  pid_t reaped = 0;
  while (reaped == 0 && Clock::now() < limit) reaped = waitpid(-1, nullptr, WNOHANG);
  EXPECT_EQ(reaped, parent);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child left at all: not the shell, not the intermediate
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

// A command that outlives the wait does not hold the caller past it (5 s);
// it goes on running, and the intermediate is reaped all the same.
TEST(CommandRunner, ACommandThatOutlivesTheWaitDoesNotHoldTheCaller) {
  const auto start = Clock::now();
  EXPECT_EQ(ZUN_UTIL_ExecCmdNoHang("echo $$ > /var/log/pid; exec sleep 60"), 0);
  const auto took = Clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(4900));
  EXPECT_LT(took, std::chrono::seconds(20));
  const pid_t shell = std::stoi(read_file("/var/log/pid"));
  EXPECT_EQ(kill(shell, 0), 0) << "still running";
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  kill(shell, SIGKILL);
  EXPECT_EQ(ZUN_UTIL_ExecCmdNoHang(nullptr), -1);
}

// A send to a peer that is not there fails at once; to one that does not
// read, it fails once the peer's queue is full: it never blocks.
TEST(MessageBus, ASendNeverWaitsForItsPeer) {
  EXPECT_EQ(ZUN_MSG_SendMsgData("cms", 0x11601, nullptr, 0), -1);  // not registered yet
  ASSERT_EQ(ZUN_MSG_Init("qmi"), 0);
  EXPECT_EQ(ZUN_MSG_SendMsgData("cms", 0x11601, nullptr, 0), -1);
  const int cms = bus_peer("cms");
  const char payload[64] = "rmnet0";
  EXPECT_EQ(ZUN_MSG_SendMsgData("cms", 0x3d02, payload, kZunMsgMaxPayload + 1), -1);
  EXPECT_EQ(ZUN_MSG_SendMsgData("cms", 0x3d02, nullptr, 64), -1);
  int sent = 0;
  while (sent < 100000 && ZUN_MSG_SendMsgData("cms", 0x3d02, payload, sizeof payload) == 0) ++sent;
  EXPECT_GT(sent, 0);
  EXPECT_LT(sent, 100000) << "the queue never filled";
  close(cms);
}

}  // namespace
