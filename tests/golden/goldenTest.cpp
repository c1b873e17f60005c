// Compiles the profile of every *.case file of this directory and compares what comes of it with
// the end of the file. README.md describes the files.

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commandLines.h"
#include "fakePlatform.h"
#include "jsonText.h"
#include "tarnfirewall.h"
#include "testFiles.h"
#include "trace.h"

namespace {

namespace fs = std::filesystem;

constexpr char kCountryDirectory[] = "/usr/share/xt_geoip/";
constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";

const std::map<std::string, int> kProtocols = {
    {"tcp", 1}, {"udp", 2}, {"both", 3}, {"icmp", 4}, {"igmp", 32}};

// --- reading a case ---

// Cuts `text` at the line "== NAME": answers what stands before it and leaves what follows.
std::string before(const std::string& name, std::string& text) {
  const std::string head = "\n== " + name + "\n";
  const std::size_t place = text.find(head);
  if (place == std::string::npos) throw std::runtime_error("there is no line == " + name);
  const std::string part = text.substr(0, place);
  text.erase(0, place + head.size());
  return part;
}

// The lines "KEY: VALUE" of a part; "KEY:" has an empty value.
std::vector<std::pair<std::string, std::string>> keysAndValues(const std::string& part) {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::istringstream lines(part);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) throw std::runtime_error("no colon in " + line);
    const std::size_t value = std::min(line.size(), line.find_first_not_of(' ', colon + 1));
    pairs.emplace_back(line.substr(0, colon), line.substr(value));
  }
  return pairs;
}

std::vector<std::string> wordsOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

// "dhcp source udp 68 destination udp 67", "telnet unavailable destination tcp 23"
fake::Service serviceOf(const std::string& text) {
  const std::vector<std::string> words = wordsOf(text);
  fake::Service service;
  service.name = words.at(0);
  fake::Ports* side = nullptr;
  for (std::size_t index = 1; index < words.size(); ++index) {
    const std::string& word = words[index];
    if (word == "unavailable") {
      service.available = false;
    } else if (word == "source" || word == "destination") {
      side = word == "source" ? &service.source : &service.destination;
      side->protocol = kProtocols.at(words.at(++index));
      side->ports.emplace();
    } else if (side != nullptr) {
      side->ports->push_back(word);
    } else {
      throw std::runtime_error("a port without a side: " + text);
    }
  }
  return service;
}

void makeMachine(const std::string& part) {
  fake::Machine& machine = fake::machine();
  for (const auto& [key, value] : keysAndValues(part)) {
    if (key == "interfaces") {
      machine.interfaces = wordsOf(value);
    } else if (key == "pppoe") {
      machine.pppoe = value;
    } else if (key == "capability") {
      machine.capabilities.push_back(value);
    } else if (key == "model") {
      const std::size_t equals = value.find('=');
      machine.files[kModelFile][value.substr(0, equals)] = value.substr(equals + 1);
    } else if (key == "service") {
      machine.services.push_back(serviceOf(value));
    } else if (key == "country") {
      const std::vector<std::string> words = wordsOf(value);
      files::write(kCountryDirectory + words.at(0), std::string(std::stoul(words.at(1)), '\1'));
    } else if (key == "answer") {
      const std::size_t equals = value.rfind(" = ");
      machine.answers.insert({value.substr(0, equals), std::stoi(value.substr(equals + 3))});
    } else {
      throw std::runtime_error("the machine has no " + key);
    }
  }
}

// What to ask of the compiler.
struct Request {
  std::string profile;
  std::optional<bool> withState;
  std::optional<std::string> exempt;
};

Request requestOf(const std::string& part, const std::string& profile) {
  Request request;
  request.profile = profile;
  for (const auto& [key, value] : keysAndValues(part)) {
    if (key == "name") {
      request.profile = value;
    } else if (key == "state" && (value == "yes" || value == "no")) {
      request.withState = value == "yes";
    } else if (key == "exempt") {
      request.exempt = value;
    } else {
      throw std::runtime_error("there is nothing to compile with " + key + ": " + value);
    }
  }
  return request;
}

// --- the result in the form of a case ---

// The messages among the lines of the trace; the others are requests to the platform.
std::string messagesOf(const std::string& trace) {
  std::string messages;
  std::istringstream lines(trace);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("err ", 0) == 0 || line.rfind("debug ", 0) == 0) messages += line + "\n";
  }
  return messages;
}

std::string resultText(bool compiled, const Json::Value& commands) {
  return std::string(compiled ? "compiled\n" : "failed\n") + "\n== log\n" +
         messagesOf(trace::take()) + "\n== lines\n" + commandLines(commands);
}

// --- the cases ---

std::vector<std::string> caseNames() {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(TARN_GOLDEN_CASES)) {
    if (entry.path().extension() == ".case") names.push_back(entry.path().stem());
  }
  std::sort(names.begin(), names.end());
  return names;
}

class Golden : public fake::MachineTest, public testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    fake::MachineTest::SetUp();
    fs::remove_all(kCountryDirectory);
    fs::create_directory(kCountryDirectory);
  }
};

TEST_P(Golden, Case) {
  std::string text = files::read(std::string(TARN_GOLDEN_CASES "/") + GetParam() + ".case");
  const std::string sentence = before("machine", text);
  const std::string machine = before("compile", text);
  const std::string compile = before("profile", text);
  const std::string profile = before("result", text);

  makeMachine(machine);
  const Request request = requestOf(compile, toJson(profile)["name"].asString());
  files::write(std::string(files::kProfileDirectory) + "1690000000.json", profile);

  Json::Value commands;
  const bool compiled =
      request.exempt
          ? FW::TARNFW().fwIptablesRulesEnum(request.profile, commands, *request.exempt)
          : FW::TARNFW().fwIptablesRulesEnum(request.profile, commands, request.withState.value());
  EXPECT_EQ(text, resultText(compiled, commands)) << sentence;
}

INSTANTIATE_TEST_SUITE_P(Cases, Golden, testing::ValuesIn(caseNames()),
                         [](const auto& name) { return name.param; });

}  // namespace
