// SPDX-License-Identifier: ISC
// The scripts shipped in dist/ for the gateway's platform, run in the sandbox
// as the gateway runs them: the hotplug script through OpenWrt's
// hotplug-call and through the udev rule, in place of the sandbox's own
// handler; the example management script with the example profile.
#include <regex>

#include "tests/e2e/harness.h"

namespace {

using namespace wds::e2e;

std::string shipped(const std::string& path) {
  auto text = slurp(std::string(WDS_SOURCE_DIR) + "/dist/" + path);
  if (!text) throw std::runtime_error("no dist/" + path);
  return *text;
}

// A host file the sandbox reads its handler from; gone with the object.
struct HostFile {
  explicit HostFile(const std::string& text) {
    char tmpl[] = "/tmp/wds-e2e-handler.XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
      throw std::runtime_error("cannot write a handler");
    close(fd);
    path = tmpl;
  }
  ~HostFile() { unlink(path.c_str()); }
  std::string path;
};

// OpenWrt's hotplug-call for a tty event: each script of
// /etc/hotplug.d/tty sourced in a subshell of BusyBox's sh.
const std::string kHotplugCall =
    "#!/bin/sh\n"
    "export DEVICENAME=\"${DEVPATH##*/}\"\n"
    "exec busybox sh -c '( . /run/sandbox/30-wdsd )'\n";

// udev for the shipped rule: its match keys against the event, then its RUN
// program, which the packages install from dist/hotplug/, with DEVNAME the
// device's node as udev gives it.
std::string udev_for_rule(const std::string& rules) {
  std::string out = "#!/bin/sh\n", run;
  const std::map<std::string, std::string> event = {
      {"ACTION", "$ACTION"}, {"SUBSYSTEM", "$SUBSYSTEM"}, {"KERNEL", "${DEVPATH##*/}"}};
  int rule_lines = 0;
  for (const auto& line : sim::split(rules, '\n')) {
    if (line.empty() || line[0] == '#') continue;
    ++rule_lines;
    std::regex key("([A-Z]+)(==|\\+=)\"([^\"]*)\"");
    for (std::sregex_iterator it(line.begin(), line.end(), key), end; it != end; ++it) {
      auto [name, op, value] = std::tuple((*it)[1].str(), (*it)[2].str(), (*it)[3].str());
      if (op == "+=" && name == "RUN") run = value;
      else if (op == "==" && event.count(name)) out += "case \"" + event.at(name) + "\" in " + value + ") ;; *) exit 0 ;; esac\n";
      else throw std::runtime_error("a key this emulation does not know: " + name + op);
    }
  }
  if (rule_lines != 1 || run != "/usr/libexec/wdsd/wdsd-modem-added") throw std::runtime_error("not the rule expected");
  return out + "DEVNAME=/dev/${DEVPATH##*/} exec /run/sandbox/wdsd-modem-added\n";
}

struct Handler {
  const char* name;
  bool udev;
};
void PrintTo(const Handler& h, std::ostream* os) { *os << h.name; }

class ShippedHotplug : public ::testing::TestWithParam<Handler> {};

TEST_P(ShippedHotplug, LeavesTheUnplugAloneAndStartsTheDaemonOverOnTheReplug) {
  // Claim: the shipped hotplug script, run for every tty event the way
  // OpenWrt's hotplug-call and the shipped udev rule run it, does nothing
  // when the modem goes and sends signal 38 to the daemon when its tty
  // comes back: the daemon, which kept the dead descriptor with status 3,
  // tears the link down and comes back with a fresh call. One start-over
  // only, none on the removal.
  const Handler& h = GetParam();
  HostFile handler(h.udev ? udev_for_rule(shipped("systemd/99-wdsd-modem.rules")) : kHotplugCall);
  Sandbox sb({.dial = 3, .hotplug_script = handler.path});
  sb.start();
  sb.write(h.udev ? "/run/sandbox/wdsd-modem-added" : "/run/sandbox/30-wdsd", shipped("hotplug/wdsd-modem-added"));
  if (h.udev) sb.run("chmod 755 /run/sandbox/wdsd-modem-added");
  ASSERT_TRUE(sb.wait_state("status", "3\n", kBringUpLimit + kConnectLimit)) << sb.log();

  auto handled = [&](const std::string& event) {
    return sb.wait_until([&] { return std::ranges::any_of(sb.lines("platform.log"), [&](auto& l) {
                                 return l.ends_with("hotplug " + event + ": handler exit 0"); }); }, 10s);
  };
  sb.sim("remove");
  ASSERT_TRUE(handled("remove")) << slurp(std::string("/proc/") + std::to_string(sb.init_pid()) + "/root/run/sandbox/hotplug.out").value_or("");
  int64_t t = monotonic_us();
  sb.sim("replug");
  ASSERT_TRUE(handled("add"));
  ASSERT_TRUE(sb.wait_state("status", "6\n", 10s)) << sb.log();
  ASSERT_TRUE(sb.wait_until([&] { return count_between(sb.qmi_requests(kRuntimeSettings), t, monotonic_us()) > 0; }, 60s));
  ASSERT_TRUE(sb.wait_state("status", "3\n", 10s)) << sb.log();
  EXPECT_TRUE(link_is(sb, true, {}));
  EXPECT_EQ(sb.count_log("wds state : init..."), 2);
  EXPECT_EQ(events(sb, "open gen=").size(), 2u);
  EXPECT_EQ(sb.read("/run/sandbox/hotplug.out").value_or(""), "");
}

INSTANTIATE_TEST_SUITE_P(Through, ShippedHotplug,
                         ::testing::Values(Handler{"OpenWrtHotplugCall", false}, Handler{"UdevRule", true}));

TEST(ManagementScript, InstallsTheProfileAndRequestAndStartsTheDaemonOverOnlyWhenItMust) {
  // Claim: the example management script with the example profile brings a
  // call up: the profile differs from the one the daemon read, so it sends
  // signal 38, and the start request carries the new profile's values (APN,
  // user, password, CHAP). Given the same profile again it sends nothing:
  // the disconnect it asks for then stops the call with a stop request
  // (a start-over would not). A request turned to 4 starts the daemon
  // over, which sets up the demand placeholder. Both files hold exactly
  // what was asked.
  Sandbox sb({.dial = 0});
  sb.start();
  ASSERT_TRUE(sb.wait_state("status", "0\n", kBringUpLimit)) << sb.log();
  const std::string profile = shipped("examples/profile");
  sb.write("/run/sandbox/profile", profile);
  sb.write("/run/sandbox/wdsd-request", shipped("examples/wdsd-request"));
  auto request = [&](int dial) { return sb.run("sh /run/sandbox/wdsd-request -p /run/sandbox/profile " + std::to_string(dial)); };

  int64_t t = monotonic_us();
  ASSERT_EQ(request(3), "");
  ASSERT_TRUE(sb.wait_until([&] { return count_between(sb.qmi_requests(kReset), t, monotonic_us()) == 1; }, 30s)) << sb.log();
  ASSERT_TRUE(sb.wait_state("status", "3\n", kBringUpLimit + kConnectLimit)) << sb.log();
  EXPECT_EQ(sb.read("config"), profile);
  EXPECT_EQ(sb.read("dial"), "3\n");
  auto starts = sb.qmi_requests(kStartNetwork);
  ASSERT_EQ(starts.size(), 1u);
  EXPECT_EQ(hex_without_tx(starts[0]), "0000200032" "30000101" "16000102" "170007" + to_hex("gateway") + "180006" +
                                           to_hex("secret") + "140014" + to_hex("web.operator.example"));

  ASSERT_EQ(request(3), "");
  ASSERT_EQ(request(1), "");
  ASSERT_TRUE(sb.wait_state("status", "6\n", 30s)) << sb.log();
  EXPECT_EQ(sb.qmi_requests(kStopNetwork).size(), 1u);
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 2u);
  EXPECT_EQ(sb.read("dial"), "1\n");

  ASSERT_EQ(request(4), "");
  ASSERT_TRUE(sb.wait_bus(kDemandLinkReady, 30s)) << sb.log();
  EXPECT_EQ(sb.qmi_requests(kReset).size(), 3u);
  EXPECT_TRUE(sb.wait_until([&] { return contains(addresses(sb), "inet 10.48.48.48/32"); }, 5s)) << addresses(sb);
  EXPECT_EQ(sb.read("dial"), "4\n");
  EXPECT_TRUE(sb.run("ls -A /var/wan/rmnet0").find(".new") == std::string::npos);
}

}  // namespace
