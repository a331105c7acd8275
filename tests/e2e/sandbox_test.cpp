// SPDX-License-Identifier: ISC
// The sandbox leaves nothing on the host, writes nothing to the host's /var,
// /dev or /proc, and is all that a command joining it sees; and the
// installed daemon as a process in it: how it starts, or refuses to, and how
// it ends.
#include <net/if.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

// What the host has at the paths the daemon uses: size and modification
// time, so that any write shows.
std::string host_snapshot() {
  return shell("stat -c \"%n %s %.9Y\" /var/wan /var/wan/rmnet0 /var/wan/rmnet_tarvek0 /var/log/wds.log "
               "/var/log/dhcp_result /var/log/ipv6cap /var/log/ppp_state /dev/qmitty0 /proc/proc_user_datacardchip "
               "/etc/wds-sandbox-probe");
}

TEST(Sandbox, KillingTheSandboxWithALiveCallLeavesNothingOnTheHost) {
  // Claim: the sandbox runs in pid, net and mount namespaces of its own with
  // a read-only root; killed hard with a call up, files written where the
  // daemon writes and a stray process inside, it leaves no process (its
  // PID 1 is reaped), no interface, no mount and no file on the host.
  ASSERT_EQ(if_nametoindex("rmnet0"), 0u) << "the host itself has an rmnet0";
  const std::string before = host_snapshot(), mounts_before = slurp("/proc/self/mountinfo").value_or("");
  {
    Sandbox sb({.dial = 3});
    sb.start();
    ASSERT_TRUE(sb.wait_state("status", "3\n", 60s)) << sb.log();
    for (std::string ns : {"pid", "net", "mnt"})
      EXPECT_NE(shell("readlink /proc/" + std::to_string(sb.init_pid()) + "/ns/" + ns), shell("readlink /proc/self/ns/" + ns));
    EXPECT_EQ(sb.run("echo x > /var/log/dhcp_result; echo x > /var/log/ipv6cap; mkdir -p /var/log/ppp_state; "
                     "sleep 600 > /dev/null 2>&1 & { echo x > /etc/wds-sandbox-probe; } 2>/dev/null || echo read-only"),
              "read-only\n");
    // The device's mount is seen inside only.
    std::string sandbox_mounts = slurp("/proc/" + std::to_string(sb.init_pid()) + "/mountinfo").value_or("");
    EXPECT_TRUE(contains(sandbox_mounts, "/dev/qmitty0 ") && contains(sandbox_mounts, "wds-sim")) << sandbox_mounts;
    EXPECT_FALSE(contains(slurp("/proc/self/mountinfo").value_or(""), "wds-sim"));
    ASSERT_TRUE(sb.kill_hard());
  }
  EXPECT_EQ(if_nametoindex("rmnet0"), 0u);
  EXPECT_EQ(host_snapshot(), before);
  EXPECT_EQ(slurp("/proc/self/mountinfo").value_or(""), mounts_before);
}

// ROOT KIND COMMAND...: lays out ROOT, in the private mount namespace it
// runs in, with the host's programs and libraries, the sandbox's and the
// daemon's folders (all read-only) and the exchange directory, then runs the
// sandbox's command line chrooted into ROOT. KIND "mount" makes ROOT a mount
// point first, "plain" leaves it a directory.
constexpr char kEnterChroot[] = R"sh(set -eu
root=$1
[ "$2" = plain ] || mount --bind "$root" "$root"
shift 2
dir= daemon= prev=
for a; do
  case $prev in --dir) dir=$a ;; --daemon) daemon=$a ;; esac
  prev=$a
done
for d in bin sbin lib lib32 lib64 libx32; do
  if [ -L /$d ]; then ln -s "$(readlink /$d)" "$root/$d"
  elif [ -d /$d ]; then mkdir "$root/$d"; mount -o bind,ro /$d "$root/$d"; fi
done
for d in /usr /etc "$(dirname "$1")" "$(dirname "$daemon")"; do
  mkdir -p "$root$d"
  mount -o bind,ro "$d" "$root$d"
done
mkdir -p "$root$dir" "$root/proc" "$root/dev" "$root/sys" "$root/run" "$root/var" "$root/tmp"
mount --bind "$dir" "$root$dir"
mount -t proc proc "$root/proc"
exec chroot "$root" "$@"
)sh";

TEST(Sandbox, ACommandThatJoinsItSeesOnlyItsFilesAlsoWhenItWasStartedInAChroot) {
  // Claim: started in a chroot, whether its root is a mount point or a plain
  // directory, the sandbox is still the whole world of a command that joins
  // its namespaces (nsenter, as every test does): the command finds the
  // sandbox's files and cannot write a file of the machine around the
  // chroot, here one in the test's own directory.
  for (const char* kind : {"mount", "plain"}) {
    SCOPED_TRACE(kind);
    char tmpl[] = "/tmp/wds-e2e-chroot.XXXXXX";
    ASSERT_TRUE(mkdtemp(tmpl));
    const std::string outside = tmpl, probe = outside + "/probe";
    ASSERT_EQ(mkdir((outside + "/root").c_str(), 0755), 0);
    ASSERT_TRUE(std::ofstream(outside + "/enter-chroot.sh") << kEnterChroot);
    const std::string mounts_before = slurp("/proc/self/mountinfo").value_or("");
    {
      Sandbox sb({.launcher = "unshare -m --propagation private sh " + outside + "/enter-chroot.sh " + outside + "/root " +
                              kind + " "});
      sb.start();
      ASSERT_TRUE(sb.wait_state("status", "0\n", kBringUpLimit)) << sb.log();
      EXPECT_EQ(sb.run("cat /run/sandbox/ready /var/wan/rmnet0/status; { echo x > " + probe + "; } 2>/dev/null || echo refused"),
                "ok\n0\nrefused\n");
      EXPECT_FALSE(std::filesystem::exists(probe));
    }
    EXPECT_EQ(slurp("/proc/self/mountinfo").value_or(""), mounts_before);
    shell("rm -rf --one-file-system " + outside);
  }
}

TEST(DaemonProcess, LogThatCannotBeOpenedEnds255AndSigtermEndsZeroAfterTheCallIsStopped) {
  // Claim: a log path that cannot be opened (a directory; a symlink, which
  // the daemon refuses to follow) ends the daemon with status 255 before
  // anything else: no pid file, no status, the tty never opened, nothing on
  // the bus, nothing in /var/log, the link's target untouched. Started with
  // a log it logs "init...", sends the WDS reset, publishes status 0 and
  // its pid; SIGTERM stops a call with its handle and tears it down (no stop
  // when none is up), removes the pid file and exits 0.
  const struct {
    const char* log_path;  // what is put at the log's path first
    const char* var_log;   // /var/log, and the link's target, after the refused start
    int dial;              // 3: SIGTERM while connected; 0: while no call is up
  } runs[] = {
      {"mkdir /var/log/wds.log", "wds.log\n", 0},
      {"echo kept > /var/log/kept; ln -s kept /var/log/wds.log", "kept\nwds.log\nkept\n", 3},
  };
  for (const auto& r : runs) {
    SCOPED_TRACE(r.log_path);
    Sandbox sb({.dial = r.dial, .sim = {"set handle=0x5EED1234"}, .start_daemon = false});
    sb.start();
    ASSERT_EQ(sb.run(r.log_path), "");
    sb.start_daemon();
    EXPECT_EQ(sb.wait_daemon_exit(20s), "exit 255");
    EXPECT_EQ(sb.run("ls /var/wan/rmnet0; ls -A /var/log; cat /var/log/kept 2>/dev/null"), "config\ndial\n" + std::string(r.var_log));
    EXPECT_TRUE(events(sb, "open").empty());
    EXPECT_TRUE(sb.bus().empty());

    ASSERT_EQ(sb.run("rm -r /var/log/wds.log"), "");
    sb.start_daemon();
    ASSERT_TRUE(sb.wait_log("wds state : init...", kBringUpLimit)) << sb.daemon_output();
    ASSERT_TRUE(sb.wait_log("wds state : ready", kBringUpLimit)) << sb.log();
    ASSERT_TRUE(sb.wait_state("status", r.dial ? "3\n" : "0\n", kConnectLimit)) << sb.log();
    EXPECT_EQ(sb.read("pid"), std::to_string(sb.daemon_pid().value_or(0)));
    auto resets = sb.qmi_requests(kReset);
    EXPECT_TRUE(resets.size() == 1 && hex_without_tx(resets[0]) == "0000000000" && resets[0].tx != 0) << resets.size();

    sb.signal(SIGTERM);
    ASSERT_EQ(sb.wait_daemon_exit(40s), "exit 0") << sb.log();
    EXPECT_FALSE(sb.read("pid").has_value());
    auto stops = sb.qmi_requests(kStopNetwork);
    ASSERT_EQ(stops.size(), r.dial ? 1u : 0u);
    if (r.dial) {
      EXPECT_EQ(hex_without_tx(stops[0]), "00002100070100045eed1234");
      EXPECT_EQ(sb.count_log("wds_disconnect : disconnected successful"), 1) << sb.log();
      EXPECT_EQ(sb.read("status"), "6\n");
      EXPECT_TRUE(link_is(sb, false, {}));
      EXPECT_TRUE(sb.wait_bus(kLinkChanged, 5s, 2));
    }
  }
}

}  // namespace
