// Rules with a host name in place of an address. The tools look the name up when the rule is added,
// and give a rule for every address that it has then: so what such a line has made is known by its
// form, not by its address.

#ifndef TARNFW_OPS_HOSTNAMES_H
#define TARNFW_OPS_HOSTNAMES_H

#include <cstddef>
#include <string>
#include <vector>

#include <json/value.h>

namespace ops {

// Puts an address that no host has in the place of every host name in the lines of a command
// document. Answers how many lines had one.
std::size_t replaceHostNames(Json::Value& commands);

// Takes the rules with that address out of `expected`, and out of `live` what is of the form of one
// of them and not in `expected` for itself.
void leaveOutHostNames(std::vector<std::string>& expected, std::vector<std::string>& live);

}  // namespace ops

#endif
