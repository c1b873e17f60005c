// Interfaces, the PPPoE link, addresses.

#include "network.h"

#include <net/if.h>
#include <net/if_arp.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "error.h"
#include "linux/interfaceRank.h"
#include "platformTest.h"

namespace {

namespace fs = std::filesystem;
using tarnplatform::InterfaceRank;

constexpr int kFirewall = 8;
constexpr int kCapacity = 32;

// Each test starts with a network of nothing but lo.
class Network : public PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    for (const std::string& name : files::list("/sys/class/net")) {
      if (name != "lo" && fs::exists("/sys/class/net/" + name)) run("ip link delete " + name);
    }
  }
};

// The names of the interfaces, joined by blanks; a failure as its number.
std::string interfaces(int capacity = kCapacity) {
  std::vector<TLIBNETIF> table(static_cast<size_t>(capacity) + 1);
  const int count = TLIBNetGetInterfaceInfo(table.data(), capacity, kFirewall);
  if (count < 0) return std::to_string(count);
  std::string names;
  for (int i = 0; i < count; ++i) {
    const TLIBNETIF& record = table[static_cast<size_t>(i)];
    EXPECT_EQ(if_nametoindex(record.name), record.index) << record.name;
    names += (i == 0 ? "" : " ") + std::string(record.name);
  }
  EXPECT_STREQ("", table[static_cast<size_t>(count)].name) << "written past the end";
  return names;
}

// --- interfaces ---

struct InterfaceRow {
  const char* name;
  const char* prepare;  // shell command
  std::string names;
};

void PrintTo(const InterfaceRow& row, std::ostream* out) { *out << row.name; }

// clang-format off
const std::vector<InterfaceRow> kInterfaceRows = {
    {"NoneButLoopback", "true", ""},
    {"OneThatIsDown", "ip link add br0 type bridge", "br0"},
    {"OneThatIsUp", "ip link add br0 type bridge; ip link set br0 up", "br0"},
    {"IndexOrder", "ip link add zz type bridge; ip link add aa type bridge; ip link add mm type bridge", "zz aa mm"},
    {"BridgeBeforeVeth", "ip link add va type veth peer name vb; ip link add br0 type bridge", "br0 vb va"},
    {"BridgeBeforeTunAndTap", "ip tuntap add tun0 mode tun; ip tuntap add tap0 mode tap; ip link add br0 type bridge", "br0 tun0 tap0"},
    {"OtherKindsLast", "ip link add vx type vxlan id 7 dstport 4789; ip tuntap add tun0 mode tun; ip link add br0 type bridge", "br0 tun0 vx"},
    {"RenamedKeepsItsPlace", "ip link add aa type bridge; ip link add bb type bridge; ip link set aa name zz", "zz bb"},
    {"MadeAgainGoesToTheEnd", "ip link add aa type bridge; ip link add bb type bridge; ip link delete aa; ip link add aa type bridge", "bb aa"},
    {"AliasesAndOtherNamesAreNone", "ip link add br0 type bridge; ip address add 10.9.9.1/24 dev br0 label br0:1; ip link property add dev br0 altname another", "br0"},
    {"NameOf15Bytes", "ip link add abcdefghijklmno type bridge", "abcdefghijklmno"},
    {"PortsOfABridge", "ip link add br0 type bridge; ip link add va type veth peer name vb; ip link set va master br0", "br0 vb va"},
    {"ReservedNames", "for n in global pppoe vpn br0; do ip link add $n type bridge; done", "br0"},
    {"NameThatIptablesTakesForAPattern", "ip link add br+ type bridge; ip link add br+0 type bridge", "br+0"},
    {"StrangeNames", "ip link add '!x' type bridge; ip link add name -s type bridge", "!x -s"},
};
// clang-format on

class Interfaces : public Network, public testing::WithParamInterface<InterfaceRow> {};

TEST_P(Interfaces, AreListed) {
  run(GetParam().prepare);
  EXPECT_EQ(GetParam().names, interfaces());
}

INSTANTIATE_TEST_SUITE_P(Network, Interfaces, testing::ValuesIn(kInterfaceRows),
                         [](const auto& row) { return std::string(row.param.name); });

struct NumberRow {
  int bridges;
  int listed;
  std::string log;
};

TEST_F(Network, AsManyAsThereIsRoomFor) {
  const NumberRow rows[] = {
      {1, 1, ""},
      {31, 31, ""},
      {32, 32, ""},
      {33, 32, "err tarnPlatform 33 interfaces, 32 are handled, without: b33"},
      {35, 32, "err tarnPlatform 35 interfaces, 32 are handled, without: b33 b34 b35"},
  };
  int made = 0;
  for (const NumberRow& row : rows) {
    SCOPED_TRACE(row.bridges);
    std::string expected;
    for (; made < row.bridges; ++made) {
      run("ip link add b" + std::to_string(made + 1) + " type bridge");
    }
    for (int i = 1; i <= row.listed; ++i) {
      expected += (i == 1 ? "b" : " b") + std::to_string(i);
    }
    EXPECT_EQ(expected, interfaces());
    EXPECT_EQ(row.log, trace::take());
  }
}

TEST_F(Network, VirtualLinksAreCutFirst) {
  run("for n in 1 2 3; do ip link add v$n type veth peer name w$n; done; ip link add br0 type bridge");
  EXPECT_EQ("br0 w1", interfaces(2));
  EXPECT_EQ("err tarnPlatform 7 interfaces, 2 are handled, without: v1 w2 v2 w3 v3", trace::take());
  EXPECT_EQ("", interfaces(0));
  (void)trace::take();
}

TEST_F(Network, MoreThanOneMessageOfTheKernel) {
  run("seq 1 100 | sed 's/.*/link add veth-left& type veth peer name veth-right&/' | ip -batch -");
  std::vector<TLIBNETIF> table(1000);
  EXPECT_EQ(200, TLIBNetGetInterfaceInfo(table.data(), 1000, kFirewall));
}

TEST_F(Network, UnusableArgumentsSetTheError) {
  TLIBNETIF record = {};
  EXPECT_EQ(-1, TLIBNetGetInterfaceInfo(nullptr, 1, kFirewall));
  EXPECT_EQ(-1, TLIBNetGetInterfaceInfo(&record, -1, kFirewall));
  TLIBCErrSetEx(0, "", 0);
  EXPECT_EQ(-1, TLIBNetGetInterfaceInfo(&record, 1, 7));
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(0x0D00, TLIBCErrGet());
}

TEST_F(Network, NoDescriptorLeftIsAnError) {
  processes::Child child([] {
    const rlimit limit = {3, 3};
    (void)setrlimit(RLIMIT_NOFILE, &limit);
    while (dup(0) >= 0) {
    }
    const std::string result = interfaces();
    return result + " " + std::to_string(TLIBCErrGet()) + " " + trace::take();
  });
  EXPECT_EQ("-1 1280 err tarnPlatform The interfaces cannot be listed: Too many open files",
            child.answer());
}

struct RankRow {
  const char* kind;
  unsigned short hardware;
  InterfaceRank rank;
};

TEST(InterfaceRank, MachineThenTunnelsThenTheRest) {
  const RankRow rows[] = {
      {nullptr, ARPHRD_ETHER, InterfaceRank::kMachine},
      {nullptr, ARPHRD_INFINIBAND, InterfaceRank::kMachine},
      {nullptr, ARPHRD_PPP, InterfaceRank::kTunnel},
      {nullptr, ARPHRD_NONE, InterfaceRank::kTunnel},
      {"bond", ARPHRD_ETHER, InterfaceRank::kMachine},
      {"team", ARPHRD_ETHER, InterfaceRank::kMachine},
      {"bridge", ARPHRD_ETHER, InterfaceRank::kMachine},
      {"vlan", ARPHRD_ETHER, InterfaceRank::kMachine},
      {"wlan", ARPHRD_ETHER, InterfaceRank::kMachine},
      {"veth", ARPHRD_ETHER, InterfaceRank::kTunnel},
      {"tun", ARPHRD_NONE, InterfaceRank::kTunnel},
      {"tun", ARPHRD_ETHER, InterfaceRank::kTunnel},
      {"ppp", ARPHRD_PPP, InterfaceRank::kTunnel},
      {"dummy", ARPHRD_ETHER, InterfaceRank::kOther},
      {"ifb", ARPHRD_ETHER, InterfaceRank::kOther},
      {"wireguard", ARPHRD_NONE, InterfaceRank::kOther},
      {"vxlan", ARPHRD_ETHER, InterfaceRank::kOther},
      {"sit", ARPHRD_SIT, InterfaceRank::kOther},
      {"", ARPHRD_ETHER, InterfaceRank::kOther},
  };
  for (const RankRow& row : rows) {
    EXPECT_EQ(row.rank, tarnplatform::interfaceRank(row.kind, row.hardware))
        << (row.kind == nullptr ? "(hardware)" : row.kind) << " " << row.hardware;
  }
}

// --- PPPoE ---

struct PppoeRow {
  const char* name;
  const char* links;     // bridges of these names stand for links
  const char* prepare;   // shell command; $PID is a running process
  const char* sessions;  // /proc/net/pppoe
  std::string result;
};

void PrintTo(const PppoeRow& row, std::ostream* out) { *out << row.name; }

constexpr char kNoSession[] = "Id       Address              Device\n";
constexpr char kSession[] =
    "Id       Address              Device\n00000001 00:11:22:33:44:55 eth0\n";

// clang-format off
const std::vector<PppoeRow> kPppoeRows = {
    {"Nothing", "", "true", kNoSession, "-1 untouched"},
    {"NoKernelSupport", "", "true", "", "-1 untouched"},
    {"Recorded", "ppp0 ppp1", "echo ppp1 >/run/tarn/pppoe_interface", kNoSession, "0 ppp1"},
    {"RecordedWithoutLineFeed", "ppp1", "printf ppp1 >/run/tarn/pppoe_interface", kNoSession, "0 ppp1"},
    {"RecordedUnderAnyName", "wan", "echo wan >/run/tarn/pppoe_interface", kNoSession, "0 wan"},
    {"RecordedLinkIsGone", "ppp0", "echo ppp1 >/run/tarn/pppoe_interface", kNoSession, "-1 untouched"},
    {"RecordIsEmpty", "ppp0", ">/run/tarn/pppoe_interface", kNoSession, "-1 untouched"},
    {"RecordIsTooLong", "ppp0", "echo 0123456789abcdef >/run/tarn/pppoe_interface", kNoSession, "-1 untouched"},
    {"RecordIsAFifo", "ppp0", "mkfifo /run/tarn/pppoe_interface", kNoSession, "-1 untouched"},
    {"NamedLink", "ppp0 ppp3", "printf '%s\\nppp3\\n' $PID >/run/ppp-dsl.pid", kNoSession, "0 ppp3"},
    {"NamedLinkOfAnEndedProcess", "ppp3", "printf '4194300\\nppp3\\n' >/run/ppp-dsl.pid", kNoSession, "-1 untouched"},
    {"NamedLinkThatIsGone", "ppp0", "printf '%s\\nppp3\\n' $PID >/run/ppp-dsl.pid", kNoSession, "-1 untouched"},
    {"NamedLinkWithoutInterface", "ppp0", "echo $PID >/run/ppp-dsl.pid", kNoSession, "-1 untouched"},
    {"NamedLinkOfNoNumber", "ppp3", "printf '%s\\nppp3\\n' -1 >/run/ppp-dsl.pid", kNoSession, "-1 untouched"},
    {"TwoNamedLinks", "ppp0 ppp1", "printf '%s\\nppp0\\n' $PID >/run/ppp-dsl.pid; printf '%s\\nppp1\\n' $PID >/run/ppp-office.pid", kNoSession, "-1 untouched"},
    {"OfTwoNamedLinksOneIsGone", "ppp1", "printf '%s\\nppp0\\n' $PID >/run/ppp-dsl.pid; printf '%s\\nppp1\\n' $PID >/run/ppp-office.pid", kNoSession, "0 ppp1"},
    {"UnnamedLinkIsNoSign", "ppp0", "echo $PID >/run/ppp0.pid", kNoSession, "-1 untouched"},
    {"SessionAndOnePppLink", "ppp0 br0", "true", kSession, "0 ppp0"},
    {"SessionAndTwoPppLinks", "ppp0 ppp1", "true", kSession, "-1 untouched"},
    {"SessionAndNoPppLink", "br0", "true", kSession, "-1 untouched"},
    {"RecordBeforeSession", "ppp0 ppp1", "echo ppp1 >/run/tarn/pppoe_interface", kSession, "0 ppp1"},
};
// clang-format on

class Pppoe : public Network, public testing::WithParamInterface<PppoeRow> {
 protected:
  void TearDown() override {
    run("rm -f /run/ppp*.pid");
    Network::TearDown();
  }
};

TEST_P(Pppoe, InterfaceIsFound) {
  const PppoeRow& row = GetParam();
  run("mkdir /run/tarn; PID=" + std::to_string(getpid()) + "; " + row.prepare);
  run(std::string("for n in ") + row.links + "; do ip link add $n type bridge; done");
  // The kernel's list of sessions, for this process.
  run("mkdir /tmp/platform/net");
  if (*row.sessions != '\0') files::write("/tmp/platform/net/pppoe", row.sessions);
  ASSERT_EQ(0, mount("/tmp/platform/net", "/proc/self/net", nullptr, MS_BIND, nullptr));
  char buffer[256] = "untouched";
  const int result = TARNPPPoeIntfGet(buffer, sizeof buffer);
  EXPECT_EQ(0, umount("/proc/self/net"));
  EXPECT_EQ(row.result, std::to_string(result) + " " + buffer);
}

INSTANTIATE_TEST_SUITE_P(Network, Pppoe, testing::ValuesIn(kPppoeRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Network, PppoeNameMustFitItsBuffer) {
  run("mkdir /run/tarn; echo ppp0 >/run/tarn/pppoe_interface; ip link add ppp0 type bridge");
  char buffer[8] = "xxxxxxx";
  EXPECT_EQ(-1, TARNPPPoeIntfGet(buffer, 4));
  EXPECT_STREQ("xxxxxxx", buffer);
  EXPECT_EQ(0, TARNPPPoeIntfGet(buffer, 5));
  EXPECT_STREQ("ppp0", buffer);
  EXPECT_EQ(-1, TARNPPPoeIntfGet(nullptr, 5));
  EXPECT_EQ(-1, TARNPPPoeIntfGet(buffer, 0));
}

// --- addresses ---

struct AddressRow {
  const char* text;
  bool v4;
  bool v6;
};

TEST(Address, IsTold) {
  const AddressRow rows[] = {
      {"192.168.1.77", true, false},
      {"0.0.0.0", true, false},
      {"255.255.255.255", true, false},
      {"256.1.1.1", false, false},
      {"1.2.3", false, false},
      {"1.2.3.4.5", false, false},
      {"1.2.3.4/24", false, false},
      {" 1.2.3.4", false, false},
      {"1.2.3.4 ", false, false},
      {"01.2.3.4", false, false},
      {"1.2.3.4\n", false, false},
      {"0x1.2.3.4", false, false},
      {"localhost", false, false},
      {"", false, false},
      {"::", false, true},
      {"::1", false, true},
      {"fe80::1", false, true},
      {"FE80::1", false, true},
      {"::ffff:1.2.3.4", false, true},
      {"2001:db8::1", false, true},
      {"fe80::1%eth0", false, false},
      {"2001:db8::/32", false, false},
      {"1::2::3", false, false},
      {"12345::", false, false},
      {"[::1]", false, false},
      {":", false, false},
  };
  for (const AddressRow& row : rows) {
    EXPECT_EQ(row.v4, BlTLIBIsIpAddr(row.text) != 0) << row.text;
    EXPECT_EQ(row.v6, BlTLIBIsv6IpAddrValid(row.text) != 0) << row.text;
  }
  EXPECT_EQ(0, BlTLIBIsIpAddr(nullptr));
  EXPECT_EQ(0, BlTLIBIsv6IpAddrValid(nullptr));
}

}  // namespace
