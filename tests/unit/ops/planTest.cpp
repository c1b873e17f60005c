#include "ops/plan.h"

#include <string>

#include <gtest/gtest.h>

#include "machine.h"
#include "ops/jsonText.h"
#include "tarnfirewall.h"

namespace {

Json::Value document(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(ops::parseJson(text, value)) << text;
  return value;
}

TEST(Plan, EachKindOfStep) {
  ops::Plan plan;
  plan.run("/sbin/iptables -F INPUT_FIREWALL");
  plan.run({{ops::Family::kV6, {"-N", "A"}}});
  plan.set("/settings", "status", true);
  plan.load("firewall", {"a.ko", "b.ko"});
  plan.unload("ntp", {"b.ko"});
  plan.hook("net/firewall_enable", "before");
  plan.change({"/new", Json::Value(), document(R"({"name": "new"})")});
  plan.change({"/old", document(R"({"a": 1, "b": 2})"), document(R"({"a": 1, "b": 3})")});
  plan.change({"/gone", document("[]"), Json::Value()});
  EXPECT_EQ(plan.text(),
            "run /sbin/iptables -F INPUT_FIREWALL\n"
            "run /sbin/ip6tables -N A\n"
            "set status true in /settings\n"
            "load a.ko b.ko for firewall\n"
            "unload b.ko for ntp\n"
            "hook net/firewall_enable before\n"
            "write /new\n"
            "    +{\n"
            "    +   \"name\" : \"new\"\n"
            "    +}\n"
            "write /old\n"
            "    -   \"b\" : 2\n"
            "    +   \"b\" : 3\n"
            "remove /gone\n"
            "    -[]\n");
  EXPECT_EQ(ops::compactJson(plan.steps()),
            R"([{"command":"/sbin/iptables -F INPUT_FIREWALL","do":"run"},)"
            R"({"command":"/sbin/ip6tables -N A","do":"run"},)"
            R"({"do":"set","file":"/settings","key":"status","value":true},)"
            R"({"do":"load","modules":["a.ko","b.ko"],"service":"firewall"},)"
            R"({"do":"unload","modules":["b.ko"],"service":"ntp"},)"
            R"({"do":"hook","name":"net/firewall_enable","when":"before"},)"
            R"({"after":{"name":"new"},"before":null,"do":"write","file":"/new"},)"
            R"({"after":{"a":1,"b":3},"before":{"a":1,"b":2},"do":"write","file":"/old"},)"
            R"({"after":null,"before":[],"do":"remove","file":"/gone"}])");
}

TEST(Plan, ControlCharactersAreEscaped) {
  ops::Plan plan;
  plan.run("/sbin/iptables -A A --comment \033[2J");
  plan.set("/settings", "profile", "a\nb");
  plan.load("x\033", {"a\x7f.ko"});
  plan.change({"/\033", Json::Value(), Json::Value("\x7f")});
  EXPECT_EQ(plan.text(),
            "run /sbin/iptables -A A --comment \\x1b[2J\n"
            "set profile a\\x0ab in /settings\n"
            "load a\\x7f.ko for x\\x1b\n"
            "write /\\x1b\n"
            "    +\"\\x7f\"\n");
}

// "global" first in each family, IPv4 first; a family without lines has a null.
TEST(Plan, CompiledLinesInTheLibrarysOrder) {
  machine::reset();
  const std::string text =
      ops::planReload(document(R"({"v4": {"eth0": ["-A 3"], "dev": ["-A 2"], "global": ["-A 1"]},
                                   "v6": null})"))
          .text();
  const std::size_t first = text.find("-A 1");
  const std::size_t second = text.find("-A 2");
  const std::size_t third = text.find("-A 3");
  EXPECT_LT(text.find("run /sbin/iptables -F FORWARD_FIREWALL"), first);
  EXPECT_LT(first, second);
  EXPECT_LT(second, third);
  EXPECT_LT(third, text.find("--policy INPUT ACCEPT"));
}

TEST(Plan, LoadedModulesAreNotLoadedAgain) {
  machine::reset();
  EXPECT_NE(ops::planEnable(Json::Value()).text().find("load compat_xtables.ko"),
            std::string::npos);
  EXPECT_EQ(ops::planDisable().text().find("load"), std::string::npos);
  machine::write("/tmp/iptables_serv_mod_list", "firewall=\"yes\"\n");
  EXPECT_EQ(ops::planEnable(Json::Value()).text().find("load"), std::string::npos);
  EXPECT_NE(ops::planDisable().text().find("unload xt_mac.ko xt_geoip.ko compat_xtables.ko for "
                                           "firewall\n"
                                           "unload tarn_v6.ko tarn_common.ko tarn_core_b.ko "
                                           "tarn_core_a.ko for firewall\n"),
            std::string::npos);
}

}  // namespace
