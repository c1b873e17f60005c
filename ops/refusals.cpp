#include "refusals.h"

#include <algorithm>
#include <vector>

#include "linux/execReport.h"

// Weak: a platform without the report leaves them null.
#pragma weak TARNExecReportCount
#pragma weak TARNExecReportGet
#pragma weak TARNExecReportClear

namespace ops {
namespace {

constexpr int kTextLength = 4096;  // bytes, NUL included

bool kept() {
  return TARNExecReportCount != nullptr && TARNExecReportGet != nullptr &&
         TARNExecReportClear != nullptr;
}

}  // namespace

void clearRefusals() {
  if (kept()) TARNExecReportClear();
}

Refusals refusals() {
  Refusals all;
  if (!kept()) return all;
  all.count = TARNExecReportCount();
  std::vector<char> command(kTextLength);
  std::vector<char> words(kTextLength);
  for (int index = 0; index < all.count; ++index) {
    Refusal one;
    if (TARNExecReportGet(index, &one.status, command.data(), kTextLength, words.data(),
                          kTextLength) < 0) {
      break;  // beyond what the platform keeps
    }
    one.command = command.data();
    one.words = words.data();
    all.first.push_back(one);
  }
  return all;
}

Json::Value toJson(const Refusals& refusals) {
  Json::Value value(Json::objectValue);
  value["count"] = refusals.count;
  value["first"] = Json::Value(Json::arrayValue);
  for (const Refusal& one : refusals.first) {
    Json::Value entry(Json::objectValue);
    entry["command"] = one.command;
    entry["status"] = one.status;
    entry["words"] = one.words;
    value["first"].append(entry);
  }
  return value;
}

Refusals refusalsFromJson(const Json::Value& value) {
  Refusals all;
  all.count = value["count"].asInt();
  for (const Json::Value& entry : value["first"]) {
    all.first.push_back(
        {entry["command"].asString(), entry["status"].asInt(), entry["words"].asString()});
  }
  return all;
}

}  // namespace ops
