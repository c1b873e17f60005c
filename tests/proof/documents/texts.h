// The texts of the documents as the store writes them: members in byte order, three blanks a level,
// short arrays on one line.

#ifndef TARNFW_TESTS_PROOF_TEXTS_H
#define TARNFW_TESTS_PROOF_TEXTS_H

#include <map>
#include <string>
#include <vector>

namespace texts {

using Policies = std::map<std::string, int>;

// A rule for services from any address.
struct ServiceRule {
  std::string name;
  std::vector<std::string> services;
  int policy = 0;    // 0 allow, 1 deny
  int family = 0;    // 0 IPv4, 2 both
  int ports = 0;     // 0 services, 2 reserved services
  int protocol = 1;  // 1 tcp, 3 tcp and udp
};

// A profile document; all its rules are of one adapter.
std::string profile(const std::string& name, const Policies& policies,
                    const std::string& adapter = "", const std::vector<ServiceRule>& rules = {});

// The settings document with the member "site", which the library does not know.
std::string settings(const std::string& profile, bool status);

// The same document with one more such member.
std::string withNote(const std::string& settings);

}  // namespace texts

#endif
