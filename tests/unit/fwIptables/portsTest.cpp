#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "fakePlatform.h"
#include "fwIptables/module.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "trace.h"

namespace {

using FW::FW_PORT_PROTOCOL;
using FW::FW_PROTO_ICMP;
using FW::FW_PROTO_IGMP;
using FW::FW_PROTO_TCP;
using FW::FW_PROTO_TCP_UDP;
using FW::FW_PROTO_UDP;
using FW::ServPort;
using FW::TARNFW_IPTABLES_RULES;

using Texts = std::vector<std::string>;
using PortsByProtocol = std::map<FW_PORT_PROTOCOL, Texts>;

template <class Row>
std::string nameOf(const testing::TestParamInfo<Row>& info) {
  return info.param.name;
}

constexpr int kDestination = 0;
constexpr int kSource = 1;

// --- lists of ports ---

struct FragmentRow {
  const char* name;
  int protocol;
  std::int32_t direction;
  Texts ports;
  Texts fragments;
};

void PrintTo(const FragmentRow& row, std::ostream* out) {
  *out << "protocol " << row.protocol << ", direction " << row.direction << ", "
       << testing::PrintToString(row.ports);
}

// clang-format off
const FragmentRow kFragmentRows[] = {
    {"OnePortTcpDestination", 1, kDestination, {"22"}, {"-p tcp --dport 22"}},
    {"OnePortTcpSource", 1, kSource, {"22"}, {"-p tcp --sport 22"}},
    {"OnePortUdpDestination", 2, kDestination, {"53"}, {"-p udp --dport 53"}},
    {"OnePortUdpSource", 2, kSource, {"53"}, {"-p udp --sport 53"}},
    {"OnePortOfBothIsTcpThenUdp", 3, kSource, {"53"}, {"-p tcp --sport 53", "-p udp --sport 53"}},
    {"AnyDirectionButZeroIsTheSource", 1, 2, {"22"}, {"-p tcp --sport 22"}},
    {"NegativeDirectionIsTheSource", 1, -1, {"1", "2"}, {"-p tcp -m multiport --sports 1,2"}},

    {"TwoPortsMakeAMultiport", 1, kDestination, {"80", "443"}, {"-p tcp -m multiport --dports 80,443"}},
    {"TwoPortsUdpSource", 2, kSource, {"67", "68"}, {"-p udp -m multiport --sports 67,68"}},
    {"TwoPortsOfBothAreTcpThenUdp", 3, kDestination, {"80", "443"}, {"-p tcp -m multiport --dports 80,443", "-p udp -m multiport --dports 80,443"}},

    {"OneRangeMakesAMultiport", 2, kSource, {"6881-6889"}, {"-p udp -m multiport --sports 6881:6889"}},
    {"RangeOfOnePortIsThatPort", 1, kDestination, {"5000-5000"}, {"-p tcp -m multiport --dports 5000"}},
    {"RangeAmongPorts", 1, kDestination, {"22", "80-90", "443"}, {"-p tcp -m multiport --dports 22,80:90,443"}},
    {"RangeOfOnePortAmongPorts", 1, kDestination, {"22", "80-80"}, {"-p tcp -m multiport --dports 22,80"}},
    {"SameNumberInOtherDigitsIsARange", 1, kDestination, {"080-80"}, {"-p tcp -m multiport --dports 080:80"}},
    {"OpenRangesStayOpen", 1, kDestination, {"1024-", "-1023"}, {"-p tcp -m multiport --dports 1024:,:1023"}},
    {"EveryDashBecomesAColon", 1, kDestination, {"1-2-3"}, {"-p tcp -m multiport --dports 1:2:3"}},
    {"RangeOfNothingIsEmpty", 1, kDestination, {"-"}, {"-p tcp -m multiport --dports "}},
    {"BlanksStayAndDashesOfOptionsBecomeColonsToo", 1, kDestination, {"6881:6889 -j ACCEPT"}, {"-p tcp -m multiport --dports 6881:6889 :j ACCEPT"}},
    {"EmptyPortLeavesTheOptionAndItsBlank", 1, kDestination, {""}, {"-p tcp --dport "}},
    {"EmptyPortAmongPorts", 1, kDestination, {"", "22", ""}, {"-p tcp -m multiport --dports ,22,"}},
    {"RepeatedPortsStay", 1, kDestination, {"22", "22"}, {"-p tcp -m multiport --dports 22,22"}},

    {"SevenPortsMakeOneGroup", 1, kDestination, {"1", "2", "3", "4", "5", "6", "7"}, {"-p tcp -m multiport --dports 1,2,3,4,5,6,7"}},
    {"EightPortsMakeTwoGroups", 1, kDestination, {"1", "2", "3", "4", "5", "6", "7", "8"}, {"-p tcp -m multiport --dports 1,2,3,4,5,6,7", "-p tcp -m multiport --dports 8"}},
    {"NinePortsMakeTwoGroups", 1, kDestination, {"1", "2", "3", "4", "5", "6", "7", "8", "9"}, {"-p tcp -m multiport --dports 1,2,3,4,5,6,7", "-p tcp -m multiport --dports 8,9"}},
    {"FourteenPortsMakeTwoGroups", 2, kSource, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14"}, {"-p udp -m multiport --sports 1,2,3,4,5,6,7", "-p udp -m multiport --sports 8,9,10,11,12,13,14"}},
    {"FifteenPortsMakeThreeGroups", 1, kDestination, {"1", "2", "3", "4", "5", "6", "7", "8", "9", "10", "11", "12", "13", "14", "15"}, {"-p tcp -m multiport --dports 1,2,3,4,5,6,7", "-p tcp -m multiport --dports 8,9,10,11,12,13,14", "-p tcp -m multiport --dports 15"}},
    {"SevenRangesMakeOneGroup", 1, kDestination, {"1-2", "3-4", "5-6", "7-8", "9-10", "11-12", "13-14"}, {"-p tcp -m multiport --dports 1:2,3:4,5:6,7:8,9:10,11:12,13:14"}},
    {"NinePortsOfBothAreAllOfTcpThenAllOfUdp", 3, kDestination, {"1", "2", "3", "4", "5", "6", "7", "8", "9"}, {"-p tcp -m multiport --dports 1,2,3,4,5,6,7", "-p tcp -m multiport --dports 8,9", "-p udp -m multiport --dports 1,2,3,4,5,6,7", "-p udp -m multiport --dports 8,9"}},

    {"IcmpHasAFragmentForEachFamily", 4, kDestination, {}, {"-p icmp ", "-p icmpv6 "}},
    {"IcmpIgnoresPorts", 4, kSource, {"8", "0-255"}, {"-p icmp ", "-p icmpv6 "}},
    {"Igmp", 32, kDestination, {}, {"-p igmp "}},
    {"IgmpIgnoresPorts", 32, kSource, {"8", "9"}, {"-p igmp "}},

    {"NoPortGivesNoFragment", 1, kDestination, {}, {}},
    {"NoPortOfBothGivesNoFragment", 3, kSource, {}, {}},
    {"ProtocolZeroIsUnknown", 0, kDestination, {"22"}, {}},
    {"FiveIsUnknown", 5, kDestination, {"22"}, {}},
    {"SctpIsUnknown", 132, kDestination, {"22"}, {}},
    {"NegativeProtocolIsUnknown", -1, kDestination, {"22"}, {}},
};
// clang-format on

class PortFragments : public fake::MachineTest, public testing::WithParamInterface<FragmentRow> {};

TEST_P(PortFragments, AreAppended) {
  Json::Value args = toJson(R"({"port":["-p 47 "]})");
  FW::protoPortsToIptablesArg(static_cast<FW_PORT_PROTOCOL>(GetParam().protocol),
                              GetParam().direction, GetParam().ports, args);
  Texts fragments;
  for (const Json::Value& fragment : args["port"]) fragments.push_back(fragment.asString());
  Texts expected = GetParam().fragments;
  expected.insert(expected.begin(), "-p 47 ");
  EXPECT_EQ(expected, fragments);
}

INSTANTIATE_TEST_SUITE_P(Rows, PortFragments, testing::ValuesIn(kFragmentRows),
                         nameOf<FragmentRow>);

// --- services ---

// The service database of the rows below.
//
// clang-format off
const std::vector<fake::Service> kServices = {
    {"ssh", true, {}, {1, Texts{"22"}}},
    {"web", true, {}, {1, Texts{"80", "443"}}},
    {"dns", true, {}, {3, Texts{"53"}}},
    {"dhcp", true, {2, Texts{"68"}}, {2, Texts{"67"}}},
    {"ntp_client", true, {2, Texts{"123"}}, {}},
    {"torrent", true, {}, {3, Texts{"6881-6889", "16881"}}},
    {"ping", true, {}, {4, Texts{"0"}}},
    {"multicast", true, {}, {32, Texts{"0"}}},
    {"retired", false, {1, Texts{"7"}}, {1, Texts{"9"}}},
    {"no_lists", true, {1, {}}, {1, {}}},
    {"empty_lists", true, {1, Texts{}}, {1, Texts{}}},
    {"odd_protocol", true, {}, {7, Texts{"1"}}},
    {"vpn_server_pptp", true, {}, {1, Texts{"1723"}}},
    {"vpn_server_ipsec", true, {}, {2, Texts{"500", "4500"}}},
};
// clang-format on

struct ServiceRow {
  const char* name;
  Texts services;
  PortsByProtocol source;
  PortsByProtocol destination;
  Texts fragments;
};

void PrintTo(const ServiceRow& row, std::ostream* out) {
  *out << testing::PrintToString(row.services);
}

constexpr auto kOddProtocol = static_cast<FW_PORT_PROTOCOL>(7);

// clang-format off
const ServiceRow kServiceRows[] = {
    {"OneService", {"ssh"}, {}, {{FW_PROTO_TCP, {"22"}}}, {"-p tcp --dport 22"}},
    {"PortsOfOneProtocolAreJoinedInTheOrderOfNames", {"web", "ssh"}, {}, {{FW_PROTO_TCP, {"80", "443", "22"}}}, {"-p tcp -m multiport --dports 80,443,22"}},
    {"RepeatedServiceGivesItsPortsTwice", {"ssh", "ssh"}, {}, {{FW_PROTO_TCP, {"22", "22"}}}, {"-p tcp -m multiport --dports 22,22"}},
    {"BothProtocolsAreAnEntryOfTheirOwn", {"dns", "ssh"}, {}, {{FW_PROTO_TCP, {"22"}}, {FW_PROTO_TCP_UDP, {"53"}}}, {"-p tcp --dport 22", "-p tcp --dport 53", "-p udp --dport 53"}},
    {"SourcesComeBeforeDestinations", {"dhcp"}, {{FW_PROTO_UDP, {"68"}}}, {{FW_PROTO_UDP, {"67"}}}, {"-p udp --sport 68", "-p udp --dport 67"}},
    {"SourcesOfAllServicesComeFirst", {"ssh", "dhcp", "ntp_client"}, {{FW_PROTO_UDP, {"68", "123"}}}, {{FW_PROTO_TCP, {"22"}}, {FW_PROTO_UDP, {"67"}}}, {"-p udp -m multiport --sports 68,123", "-p tcp --dport 22", "-p udp --dport 67"}},
    {"ProtocolsAreInAscendingOrder", {"multicast", "ping", "torrent", "dhcp", "ssh"}, {{FW_PROTO_UDP, {"68"}}}, {{FW_PROTO_TCP, {"22"}}, {FW_PROTO_UDP, {"67"}}, {FW_PROTO_TCP_UDP, {"6881-6889", "16881"}}, {FW_PROTO_ICMP, {"0"}}, {FW_PROTO_IGMP, {"0"}}},
     {"-p udp --sport 68", "-p tcp --dport 22", "-p udp --dport 67", "-p tcp -m multiport --dports 6881:6889,16881", "-p udp -m multiport --dports 6881:6889,16881", "-p icmp ", "-p icmpv6 ", "-p igmp "}},
    {"UnknownNameAddsNothing", {"nosuch", "ssh", ""}, {}, {{FW_PROTO_TCP, {"22"}}}, {"-p tcp --dport 22"}},
    {"NameIsTakenLetterByLetter", {"SSH", " ssh", "ssh "}, {}, {}, {}},
    {"UnavailableServiceAddsNothing", {"retired"}, {}, {}, {}},
    {"ServiceWithoutListsAddsNothing", {"no_lists"}, {}, {}, {}},
    {"ServiceWithEmptyListsAddsNothing", {"empty_lists"}, {}, {}, {}},
    {"OddProtocolIsKeptButGivesNoFragment", {"odd_protocol"}, {}, {{kOddProtocol, {"1"}}}, {}},
    {"NoName", {}, {}, {}, {}},
    {"PptpAddsGre", {"vpn_server_pptp"}, {}, {{FW_PROTO_TCP, {"1723"}}}, {"-p tcp --dport 1723", "-p 47 "}},
    {"IpsecAddsEspAndAh", {"vpn_server_ipsec"}, {}, {{FW_PROTO_UDP, {"500", "4500"}}}, {"-p udp -m multiport --dports 500,4500", "-p 50 ", "-p 51 "}},
    {"VpnProtocolsComeLastInTheOrderOfNames", {"vpn_server_ipsec", "vpn_server_pptp", "ssh"}, {}, {{FW_PROTO_TCP, {"1723", "22"}}, {FW_PROTO_UDP, {"500", "4500"}}},
     {"-p tcp -m multiport --dports 1723,22", "-p udp -m multiport --dports 500,4500", "-p 50 ", "-p 51 ", "-p 47 "}},
    {"RepeatedVpnServiceAddsItsProtocolsTwice", {"vpn_server_pptp", "vpn_server_pptp"}, {}, {{FW_PROTO_TCP, {"1723", "1723"}}}, {"-p tcp -m multiport --dports 1723,1723", "-p 47 ", "-p 47 "}},
};
// clang-format on

class Services : public fake::MachineTest, public testing::WithParamInterface<ServiceRow> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fake::machine().services = kServices;
  }
};

TEST_P(Services, GivePorts) {
  ServPort ports;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().servToPorts(GetParam().services, ports));
  EXPECT_EQ(GetParam().source, ports.srcPorts);
  EXPECT_EQ(GetParam().destination, ports.dstPorts);
  EXPECT_EQ("services enum\nservices free", trace::take());
}

TEST_P(Services, GiveFragments) {
  Json::Value args = toJson(R"({"port":["-p 2 "]})");
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().servPortToCmd(GetParam().services, args));
  Texts fragments;
  for (const Json::Value& fragment : args["port"]) fragments.push_back(fragment.asString());
  Texts expected = GetParam().fragments;
  expected.insert(expected.begin(), "-p 2 ");
  EXPECT_EQ(expected, fragments);
  EXPECT_EQ("services enum\nservices free", trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, Services, testing::ValuesIn(kServiceRows), nameOf<ServiceRow>);

// --- the service database ---

class ServiceDatabase : public fake::MachineTest {};

TEST_F(ServiceDatabase, VpnServiceWithoutARecordStillAddsItsProtocols) {
  fake::machine().services = {{"ssh", true, {}, {1, Texts{"22"}}}};
  Json::Value args;
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().servPortToCmd({"vpn_server_pptp"}, args));
  EXPECT_EQ(R"({"port":["-p 47 "]})", toText(args));
  EXPECT_EQ("services enum\nservices free", trace::take());
}

TEST_F(ServiceDatabase, PortsAreAddedToWhatIsThere) {
  fake::machine().services = kServices;
  ServPort ports;
  ports.srcPorts = {{FW_PROTO_UDP, {"1"}}};
  ports.dstPorts = {{FW_PROTO_TCP, {"2"}}};
  EXPECT_TRUE(TARNFW_IPTABLES_RULES().servToPorts({"ssh", "dhcp"}, ports));
  EXPECT_EQ((PortsByProtocol{{FW_PROTO_UDP, {"1", "68"}}}), ports.srcPorts);
  EXPECT_EQ((PortsByProtocol{{FW_PROTO_TCP, {"2", "22"}}, {FW_PROTO_UDP, {"67"}}}), ports.dstPorts);
  EXPECT_EQ("services enum\nservices free", trace::take());
}

TEST_F(ServiceDatabase, IsLoadedOncePerCompilerAndReleasedWithIt) {
  fake::machine().services = kServices;
  {
    TARNFW_IPTABLES_RULES compiler;
    ServPort ports;
    EXPECT_TRUE(compiler.servToPorts({"ssh"}, ports));
    fake::machine().services.clear();
    EXPECT_TRUE(compiler.servToPorts({"web"}, ports));
    EXPECT_EQ((PortsByProtocol{{FW_PROTO_TCP, {"22", "80", "443"}}}), ports.dstPorts);
    EXPECT_EQ("services enum", trace::take());
  }
  EXPECT_EQ("services free", trace::take());
}

TEST_F(ServiceDatabase, IsNeitherLoadedNorReleasedWithoutServices) {
  { const TARNFW_IPTABLES_RULES compiler; }
  EXPECT_EQ("", trace::take());
}

struct UnreadableRow {
  const char* name;
  int answer;
};

void PrintTo(const UnreadableRow& row, std::ostream* out) { *out << row.answer; }

const UnreadableRow kUnreadableRows[] = {{"Empty", 0}, {"Error", -1}};

class UnreadableServiceDatabase : public fake::MachineTest,
                                  public testing::WithParamInterface<UnreadableRow> {};

TEST_P(UnreadableServiceDatabase, FailsAndIsAskedForAgain) {
  fake::machine().services = kServices;
  fake::machine().answers.insert({"services enum", GetParam().answer});
  std::optional<TARNFW_IPTABLES_RULES> owner(std::in_place);
  TARNFW_IPTABLES_RULES& compiler = *owner;
  ServPort ports;
  EXPECT_FALSE(compiler.servToPorts({"ssh"}, ports));
  EXPECT_TRUE(ports.srcPorts.empty());
  EXPECT_TRUE(ports.dstPorts.empty());
  EXPECT_EQ("services enum\nerr fwIptables:427 Failed to enum services", trace::take());

  Json::Value args = toJson(R"({"port":["-p 2 "]})");
  EXPECT_FALSE(compiler.servPortToCmd({"vpn_server_pptp"}, args));
  EXPECT_EQ(R"({"port":["-p 2 "]})", toText(args));
  EXPECT_EQ(
      "services enum\n"
      "err fwIptables:427 Failed to enum services\n"
      "err fwIptables:480 Failed to servToPorts()",
      trace::take());

  fake::machine().answers.clear();
  EXPECT_TRUE(compiler.servToPorts({"ssh"}, ports));
  EXPECT_EQ((PortsByProtocol{{FW_PROTO_TCP, {"22"}}}), ports.dstPorts);
  owner.reset();
  EXPECT_EQ("services enum\nservices free", trace::take());
}

INSTANTIATE_TEST_SUITE_P(Rows, UnreadableServiceDatabase, testing::ValuesIn(kUnreadableRows),
                         nameOf<UnreadableRow>);

}  // namespace
