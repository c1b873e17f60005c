#include "ops/serviceTable.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "machine.h"

namespace {

constexpr char kTable[] = "/usr/tarn/etc.defaults/firewall_services.json";

std::string end(const ops::ServiceEnd& end) {
  std::string text = end.protocol;
  for (const std::string& port : end.ports) text += " " + port;
  return "[" + text + "]";
}

std::string listed() {
  std::vector<ops::Service> services;
  std::string reason;
  if (!ops::listServices(services, reason)) return reason;
  std::string text;
  for (const ops::Service& service : services) {
    text += service.name + " '" + service.title + "' " + (service.available ? "yes " : "no ") +
            end(service.source) + " " + end(service.destination) + "\n";
  }
  return text;
}

TEST(ServiceTable, InNameOrderWithBothEnds) {
  machine::reset();
  machine::write(kTable, R"({
    "ssh": {"title": "Secure Shell", "destination": {"protocol": "tcp", "ports": ["22"]}},
    "dhcp": {"source": {"protocol": "udp", "ports": ["68"]},
             "destination": {"protocol": "udp", "ports": ["67", "4011-4012"]}},
    "ping": {"available": false, "destination": {"protocol": "icmp", "ports": []}}})");
  EXPECT_EQ(listed(),
            "dhcp '' yes [udp 68] [udp 67 4011-4012]\n"
            "ping '' no [] [icmp]\n"
            "ssh 'Secure Shell' yes [] [tcp 22]\n");
}

TEST(ServiceTable, LaterDropInReplaces) {
  machine::reset();
  machine::run("mkdir -p /usr/tarn/etc/firewall_services.d");
  machine::write(kTable,
                 R"({"a": {"title": "old", "destination": {"protocol": "tcp", "ports": ["1"]}}})");
  machine::write("/usr/tarn/etc/firewall_services.d/1.json",
                 R"({"a": {"title": "new", "destination": {"protocol": "udp", "ports": ["2"]}}})");
  machine::write("/usr/tarn/etc/firewall_services.d/2.json",
                 R"({"a": {"destination": {"protocol": "both", "ports": ["3"]}}})");
  machine::write("/usr/tarn/etc/firewall_services.d/3.txt", "ignored");
  machine::write("/usr/tarn/etc/firewall_services.d/.4.json", "ignored");
  EXPECT_EQ(listed(), "a '' yes [] [both 3]\n");
  machine::run("rm -r /usr/tarn/etc/firewall_services.d");
}

TEST(ServiceTable, DamagedTableIsAReason) {
  machine::reset();
  machine::write(kTable, "{");
  EXPECT_EQ(listed(), "the service database cannot be read");
}

}  // namespace
