// A command document as text, so that a failing comparison prints a diff.

#ifndef TARNFW_TESTS_UNIT_FWIPTABLES_COMMANDLINES_H
#define TARNFW_TESTS_UNIT_FWIPTABLES_COMMANDLINES_H

#include <algorithm>
#include <string>
#include <vector>

#include <json/value.h>

#include "jsonText.h"

// The argument lines in the order in which they run, a line each: "v4 eth0: -t filter -A ...". "v4"
// comes before "v6", in each "global" first and then the other adapters in name order. Whatever is
// no argument line is shown as the value that it is: "v6 null", "v4 eth0 []".
inline std::string commandLines(const Json::Value& commands) {
  if (!commands.isObject()) return toText(commands) + "\n";
  std::string text;
  for (const std::string& family : commands.getMemberNames()) {
    const Json::Value& adapters = commands[family];
    if (!adapters.isObject()) {
      text += family + " " + toText(adapters) + "\n";
      continue;
    }
    std::vector<std::string> names = adapters.getMemberNames();
    std::stable_partition(names.begin(), names.end(),
                          [](const std::string& name) { return name == "global"; });
    for (const std::string& adapter : names) {
      const Json::Value& lines = adapters[adapter];
      const std::string head = family + " " + adapter;
      if (!lines.isArray() || lines.empty()) text += head + " " + toText(lines) + "\n";
      if (!lines.isArray()) continue;
      for (const Json::Value& line : lines) {
        text += head;
        text += line.isString() ? ": " + line.asString() : " " + toText(line);
        text += "\n";
      }
    }
  }
  return text;
}

#endif
