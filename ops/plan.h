// What an operation is going to do, step by step, for those who want to know before it does. A step
// is an object:
//
//   {"do": "run", "command": "/sbin/iptables -F INPUT_FIREWALL"}
//   {"do": "set", "file": path, "key": "status", "value": true}
//   {"do": "load" | "unload", "service": "firewall", "modules": ["xt_mac.ko"]}
//   {"do": "hook", "name": "net/firewall_enable", "when": "before" | "after"}
//   {"do": "write" | "remove", "file": path, "before": document or null, "after": document or null}

#ifndef TARNFW_OPS_PLAN_H
#define TARNFW_OPS_PLAN_H

#include <string>
#include <vector>

#include <json/value.h>

#include "packetFilter.h"
#include "profileStore.h"

namespace ops {

// Steps in the order in which they are taken.
class Plan {
 public:
  void run(const std::string& command);
  void run(const std::vector<Command>& commands);
  void set(const std::string& file, const std::string& key, const Json::Value& value);
  void load(const std::string& service, const std::vector<std::string>& modules);
  void unload(const std::string& service, const std::vector<std::string>& modules);
  void hook(const std::string& name, const char* when);
  void change(const DocumentChange& change);

  void add(const Plan& more);
  const Json::Value& steps() const { return steps_; }
  // One step a line; the differences of a document follow their step, indented. Control characters
  // are escaped.
  std::string text() const;

 private:
  Json::Value steps_ = Json::Value(Json::arrayValue);
};

// What the library's operations do on this machine.
//   commands  the compiled active profile
Plan planEnable(const Json::Value& commands);
Plan planReload(const Json::Value& commands);
Plan planDisable();
Plan planClear();

}  // namespace ops

#endif
