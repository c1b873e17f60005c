// The services that rules can name.

#ifndef TARNFW_OPS_SERVICETABLE_H
#define TARNFW_OPS_SERVICETABLE_H

#include <string>
#include <vector>

namespace ops {

// One end of a service's connections: "tcp", "udp", "both", "icmp" or "igmp" with its ports, or ""
// for none.
struct ServiceEnd {
  std::string protocol;
  std::vector<std::string> ports;
};

// A service as the platform's database has it; `title` is for people and may be empty.
struct Service {
  std::string name;
  std::string title;
  bool available = false;
  ServiceEnd source;
  ServiceEnd destination;
};

// Fills `services` in name order. False with the reason when the database cannot be read.
bool listServices(std::vector<Service>& services, std::string& reason);

// Is there a service `name` that can be used?
bool offers(const std::vector<Service>& services, const std::string& name);

}  // namespace ops

#endif
