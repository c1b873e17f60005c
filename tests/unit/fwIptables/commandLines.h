// A command document as text, so that a failing comparison prints a diff.

#ifndef TARNFW_TESTS_UNIT_FWIPTABLES_COMMANDLINES_H
#define TARNFW_TESTS_UNIT_FWIPTABLES_COMMANDLINES_H

#include <algorithm>
#include <string>
#include <vector>

#include <json/value.h>

#include "jsonText.h"

// Appends the argument lines of one adapter, or the value that stands in place of a list of them.
inline void appendLines(const std::string& head, const Json::Value& lines, std::string& text) {
  if (!lines.isArray() || lines.empty()) {
    text.append(head).append(" ").append(toText(lines)).append("\n");
    return;
  }
  for (const Json::Value& line : lines) {
    text.append(head).append(": ").append(line.asString()).append("\n");
  }
}

// The argument lines in the order in which they run, a line each: "v4 eth0: -t filter -A ...". "v4"
// comes before "v6", in each "global" first and then the other adapters in name order. What is no
// list of lines is shown as the value that it is: "v6 null", "v4 eth0 []".
inline std::string commandLines(const Json::Value& commands) {
  if (!commands.isObject()) return toText(commands) + "\n";
  std::string text;
  for (const std::string& family : commands.getMemberNames()) {
    const Json::Value& adapters = commands[family];
    if (!adapters.isObject()) {
      appendLines(family, adapters, text);
      continue;
    }
    std::vector<std::string> names = adapters.getMemberNames();
    std::stable_partition(names.begin(), names.end(),
                          [](const std::string& name) { return name == "global"; });
    for (const std::string& adapter : names) {
      std::string head = family;
      head.append(" ").append(adapter);
      appendLines(head, adapters[adapter], text);
    }
  }
  return text;
}

#endif
