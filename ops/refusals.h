// What the packet filter's tools refused. The library takes a tool's non-zero exit for success; the
// stock-Linux platform keeps command and words, which this reads. On a platform that does not,
// nothing is known to have been refused.

#ifndef TARNFW_OPS_REFUSALS_H
#define TARNFW_OPS_REFUSALS_H

#include <string>
#include <vector>

#include <json/value.h>

namespace ops {

// One command that ended with a status other than 0, or did not end by itself (-1).
struct Refusal {
  std::string command;
  int status = 0;
  std::string words;  // the tool's own
};

// The commands of this process that were refused since the last clearRefusals().
//   count  how many; `first` holds the first of them, as many as the platform keeps
struct Refusals {
  int count = 0;
  std::vector<Refusal> first;
};

void clearRefusals();
Refusals refusals();

// {"count": number, "first": [{"command": text, "status": number, "words": text}]}, to pass between
// processes and to print.
Json::Value toJson(const Refusals& refusals);
Refusals refusalsFromJson(const Json::Value& value);

}  // namespace ops

#endif
