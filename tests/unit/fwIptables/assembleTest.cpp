#include <ostream>
#include <string>

#include "commandLines.h"
#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"

namespace {

using FW::FWRULE;
using FW::TARNFW_IPTABLES_RULES;

struct AssemblyRow {
  const char* name;
  const char* adapter;
  int ipType;
  bool log;
  const char* arguments;
  const char* before;  // the command document
  const char* lines;   // the command document afterwards, a line each
};

void PrintTo(const AssemblyRow& row, std::ostream* out) {
  *out << row.adapter << ", type " << row.ipType << (row.log ? ", log, " : ", ") << row.arguments;
}

constexpr int kV4 = 0;
constexpr int kV6 = 1;
constexpr int kBoth = 2;

constexpr char kSshFromSubnet[] =
    R"({"adapter":["-i eth0"],"chain":["-A INPUT_FIREWALL"],"ip":{"v4":["-s 192.168.1.0/24"],"v6":[]},"policy":["-j RETURN"],"port":["-p tcp --dport 22"],"table":["-t filter"]})";
constexpr char kDropEverything[] =
    R"({"adapter":[""],"chain":["-A INPUT_FIREWALL"],"ip":{"v4":[""],"v6":[""]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})";
constexpr char kPing[] =
    R"({"adapter":["-i eth0"],"chain":["-A INPUT_FIREWALL"],"ip":{"v4":[""],"v6":[""]},"policy":["-j RETURN"],"port":["-p icmp ","-p icmpv6 "],"table":["-t filter"]})";
constexpr char kTwoOfEach[] =
    R"({"adapter":["a1","a2"],"chain":["c1","c2"],"ip":{"v4":["i1","i2"],"v6":["j1"]},"policy":["-j DROP","-j RETURN"],"port":["p1","p2"],"table":["t1","t2"]})";

// clang-format off
const AssemblyRow kAssemblyRows[] = {
    {"OneOfEachMakesOneLine", "eth0", kV4, false, kSshFromSubnet, "null",
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN\n"},
    {"LogLineComesFirst", "eth0", kV4, true, kSshFromSubnet, "null",
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j LOG\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s 192.168.1.0/24 -p tcp --dport 22 -j RETURN\n"},
    {"EmptyPartsLeaveNoBlanks", "global", kV4, false, kDropEverything, "null",
     "v4 global: -t filter -A INPUT_FIREWALL -j DROP\n"},
    {"BothFamilies", "global", kBoth, false, kDropEverything, "null",
     "v4 global: -t filter -A INPUT_FIREWALL -j DROP\n"
     "v6 global: -t filter -A INPUT_FIREWALL -j DROP\n"},
    {"BothFamiliesWithLog", "global", kBoth, true, kDropEverything, "null",
     "v4 global: -t filter -A INPUT_FIREWALL -j LOG\n"
     "v4 global: -t filter -A INPUT_FIREWALL -j DROP\n"
     "v6 global: -t filter -A INPUT_FIREWALL -j LOG\n"
     "v6 global: -t filter -A INPUT_FIREWALL -j DROP\n"},
    {"V6IgnoresAddressesOfV4", "eth0", kV6, false,
     R"({"adapter":["-i eth0"],"chain":["-A INPUT_FIREWALL"],"ip":{"v4":["-s 10.0.0.1"],"v6":["-s fd00::1"]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})", "null",
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -s fd00::1 -j DROP\n"},
    {"V4IgnoresAddressesOfV6", "eth0", kV4, false,
     R"({"adapter":["-i eth0"],"chain":["-A INPUT_FIREWALL"],"ip":{"v4":[],"v6":["-s fd00::1"]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})", "null",
     "null\n"},
    {"UnknownFamilyMakesNoLine", "global", 3, false, kDropEverything, "null", "null\n"},

    {"IcmpOfV4", "eth0", kV4, false, kPing, "null",
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmp  -j RETURN\n"},
    {"IcmpOfV6", "eth0", kV6, false, kPing, "null",
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j RETURN\n"},
    {"IcmpOfBothFamiliesWithLog", "eth0", kBoth, true, kPing, "null",
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmp  -j LOG\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmp  -j RETURN\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j LOG\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -i eth0 -p icmpv6  -j RETURN\n"},
    {"OnlyTheExactFragmentBelongsToOneFamily", "eth0", kBoth, false,
     R"({"adapter":[""],"chain":["-A X"],"ip":{"v4":[""],"v6":[""]},"policy":["-j DROP"],"port":["-p icmp","-p icmpv6","-p igmp ","-p 47 "],"table":["-t filter"]})", "null",
     "v4 eth0: -t filter -A X -p icmp -j DROP\n"
     "v4 eth0: -t filter -A X -p icmpv6 -j DROP\n"
     "v4 eth0: -t filter -A X -p igmp  -j DROP\n"
     "v4 eth0: -t filter -A X -p 47  -j DROP\n"
     "v6 eth0: -t filter -A X -p icmp -j DROP\n"
     "v6 eth0: -t filter -A X -p icmpv6 -j DROP\n"
     "v6 eth0: -t filter -A X -p igmp  -j DROP\n"
     "v6 eth0: -t filter -A X -p 47  -j DROP\n"},

    {"TableAndChainStandEvenWhenEmpty", "eth0", kV4, false,
     R"({"adapter":[""],"chain":[""],"ip":{"v4":[""],"v6":[]},"policy":["-j DROP"],"port":[""],"table":[""]})", "null",
     "v4 eth0:   -j DROP\n"},
    {"VerdictOfNoPolicyIsABlank", "eth0", kV4, false,
     R"({"adapter":["-i eth0"],"chain":["-A X"],"ip":{"v4":[""],"v6":[]},"policy":[],"port":[""],"table":["-t filter"]})", "null",
     "v4 eth0: -t filter -A X -i eth0 \n"},
    {"OnlyTheFirstPolicyCounts", "eth0", kV4, false,
     R"({"adapter":[""],"chain":["-A X"],"ip":{"v4":[""],"v6":[]},"policy":["-j DROP","-j RETURN"],"port":[""],"table":["-t filter"]})", "null",
     "v4 eth0: -t filter -A X -j DROP\n"},

    {"NoTableMakesNoLine", "eth0", kBoth, true,
     R"({"adapter":[""],"chain":["-A X"],"ip":{"v4":[""],"v6":[""]},"policy":["-j DROP"],"port":[""],"table":[]})", "null", "null\n"},
    {"NoChainMakesNoLine", "eth0", kBoth, true,
     R"({"adapter":[""],"chain":[],"ip":{"v4":[""],"v6":[""]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})", "null", "null\n"},
    {"NoAdapterMakesNoLine", "eth0", kBoth, true,
     R"({"adapter":[],"chain":["-A X"],"ip":{"v4":[""],"v6":[""]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})", "null", "null\n"},
    {"NoPortMakesNoLine", "eth0", kBoth, true,
     R"({"adapter":[""],"chain":["-A X"],"ip":{"v4":[""],"v6":[""]},"policy":["-j DROP"],"port":[],"table":["-t filter"]})", "null", "null\n"},
    {"NoAddressMakesNoLineOfThatFamily", "eth0", kBoth, false,
     R"({"adapter":[""],"chain":["-A X"],"ip":{"v4":[],"v6":["-s fd00::1"]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})", "null",
     "v6 eth0: -t filter -A X -s fd00::1 -j DROP\n"},
    {"LeftOutLinesMakeNoList", "eth0", kV4, false,
     R"({"adapter":[""],"chain":["-A X"],"ip":{"v4":[""],"v6":[]},"policy":["-j DROP"],"port":["-p icmpv6 "],"table":["-t filter"]})", "null", "null\n"},

    {"ListIsNamedAfterTheRulesAdapter", "vpn", kV4, false,
     R"({"adapter":["-i ppp1","-i tun0"],"chain":["-A X"],"ip":{"v4":[""],"v6":[]},"policy":["-j DROP"],"port":[""],"table":["-t filter"]})", "null",
     "v4 vpn: -t filter -A X -i ppp1 -j DROP\n"
     "v4 vpn: -t filter -A X -i tun0 -j DROP\n"},
    {"LinesAreAppended", "eth0", kBoth, false, kDropEverything,
     R"({"v4":{"eth0":["-A OLD"],"global":["-A G"]},"v6":null})",
     "v4 global: -A G\n"
     "v4 eth0: -A OLD\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -j DROP\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -j DROP\n"},
    {"NoLineLeavesTheDocumentAlone", "eth0", kV6, false, kSshFromSubnet,
     R"({"v4":{"global":["-A G"]},"v6":null})",
     "v4 global: -A G\n"
     "v6 null\n"},

    {"LoopsRunTableChainAdapterAddressPort", "eth0", kV4, false, kTwoOfEach, "null",
     "v4 eth0: t1 c1 a1 i1 p1 -j DROP\n"
     "v4 eth0: t1 c1 a1 i1 p2 -j DROP\n"
     "v4 eth0: t1 c1 a1 i2 p1 -j DROP\n"
     "v4 eth0: t1 c1 a1 i2 p2 -j DROP\n"
     "v4 eth0: t1 c1 a2 i1 p1 -j DROP\n"
     "v4 eth0: t1 c1 a2 i1 p2 -j DROP\n"
     "v4 eth0: t1 c1 a2 i2 p1 -j DROP\n"
     "v4 eth0: t1 c1 a2 i2 p2 -j DROP\n"
     "v4 eth0: t1 c2 a1 i1 p1 -j DROP\n"
     "v4 eth0: t1 c2 a1 i1 p2 -j DROP\n"
     "v4 eth0: t1 c2 a1 i2 p1 -j DROP\n"
     "v4 eth0: t1 c2 a1 i2 p2 -j DROP\n"
     "v4 eth0: t1 c2 a2 i1 p1 -j DROP\n"
     "v4 eth0: t1 c2 a2 i1 p2 -j DROP\n"
     "v4 eth0: t1 c2 a2 i2 p1 -j DROP\n"
     "v4 eth0: t1 c2 a2 i2 p2 -j DROP\n"
     "v4 eth0: t2 c1 a1 i1 p1 -j DROP\n"
     "v4 eth0: t2 c1 a1 i1 p2 -j DROP\n"
     "v4 eth0: t2 c1 a1 i2 p1 -j DROP\n"
     "v4 eth0: t2 c1 a1 i2 p2 -j DROP\n"
     "v4 eth0: t2 c1 a2 i1 p1 -j DROP\n"
     "v4 eth0: t2 c1 a2 i1 p2 -j DROP\n"
     "v4 eth0: t2 c1 a2 i2 p1 -j DROP\n"
     "v4 eth0: t2 c1 a2 i2 p2 -j DROP\n"
     "v4 eth0: t2 c2 a1 i1 p1 -j DROP\n"
     "v4 eth0: t2 c2 a1 i1 p2 -j DROP\n"
     "v4 eth0: t2 c2 a1 i2 p1 -j DROP\n"
     "v4 eth0: t2 c2 a1 i2 p2 -j DROP\n"
     "v4 eth0: t2 c2 a2 i1 p1 -j DROP\n"
     "v4 eth0: t2 c2 a2 i1 p2 -j DROP\n"
     "v4 eth0: t2 c2 a2 i2 p1 -j DROP\n"
     "v4 eth0: t2 c2 a2 i2 p2 -j DROP\n"},
    {"AllLinesOfAChainComeBeforeTheNextInEachFamily", "eth0", kBoth, true,
     R"({"adapter":["-o eth0"],"chain":["-A FORWARD_FIREWALL","-A INPUT_FIREWALL"],"ip":{"v4":["-d 10.0.0.1"],"v6":["-d fd00::1"]},"policy":["-j DROP"],"port":["-p tcp --dport 1","-p udp --dport 1"],"table":["-t filter"]})", "null",
     "v4 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d 10.0.0.1 -p tcp --dport 1 -j LOG\n"
     "v4 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d 10.0.0.1 -p tcp --dport 1 -j DROP\n"
     "v4 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d 10.0.0.1 -p udp --dport 1 -j LOG\n"
     "v4 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d 10.0.0.1 -p udp --dport 1 -j DROP\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d 10.0.0.1 -p tcp --dport 1 -j LOG\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d 10.0.0.1 -p tcp --dport 1 -j DROP\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d 10.0.0.1 -p udp --dport 1 -j LOG\n"
     "v4 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d 10.0.0.1 -p udp --dport 1 -j DROP\n"
     "v6 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d fd00::1 -p tcp --dport 1 -j LOG\n"
     "v6 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d fd00::1 -p tcp --dport 1 -j DROP\n"
     "v6 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d fd00::1 -p udp --dport 1 -j LOG\n"
     "v6 eth0: -t filter -A FORWARD_FIREWALL -o eth0 -d fd00::1 -p udp --dport 1 -j DROP\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d fd00::1 -p tcp --dport 1 -j LOG\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d fd00::1 -p tcp --dport 1 -j DROP\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d fd00::1 -p udp --dport 1 -j LOG\n"
     "v6 eth0: -t filter -A INPUT_FIREWALL -o eth0 -d fd00::1 -p udp --dport 1 -j DROP\n"},
};
// clang-format on

class Assembly : public fake::MachineTest, public testing::WithParamInterface<AssemblyRow> {};

TEST_P(Assembly, MakesLines) {
  FWRULE rule;
  rule.ipType = GetParam().ipType;
  rule.blLog = GetParam().log;
  const Json::Value args = toJson(GetParam().arguments);
  Json::Value cmds = toJson(GetParam().before);
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().iptablesArgToCmd(GetParam().adapter, rule, args, cmds));
  EXPECT_EQ(GetParam().lines, commandLines(cmds));
  EXPECT_EQ(GetParam().arguments, toText(args));
}

INSTANTIATE_TEST_SUITE_P(Rows, Assembly, testing::ValuesIn(kAssemblyRows),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
