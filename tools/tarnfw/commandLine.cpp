#include "commandLine.h"

#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include <CLI/CLI.hpp>

namespace tarnfw {
namespace {

constexpr char kSeeHelp[] = "; 'tarnfw --help' lists the verbs";

// One argument or option of a verb's row.
struct Argument {
  std::string name;   // "PROFILE", "core|nat", "--exempt"
  std::string value;  // an option's value ("ADDRESS"); empty for flags and positional arguments
  bool required = true;
  bool alternative = false;  // a flag of a choice: one of them must be given, and only one

  bool positional() const { return name.front() != '-'; }
};

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream stream(text);
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

// "core|nat" is a choice among words, "PORT" is not.
std::vector<std::string> choicesOf(const std::string& text) {
  return text.find('|') == std::string::npos ? std::vector<std::string>() : split(text, '|');
}

// Reads the argument column of a row.
std::vector<Argument> argumentsOf(const Verb& verb) {
  std::vector<Argument> arguments;
  std::istringstream words(verb.arguments);
  for (std::string word; words >> word;) {
    if (word.compare(0, 2, "--") == 0 && word.find('|') != std::string::npos) {
      for (const std::string& flag : split(word, '|')) {
        arguments.push_back({flag, "", /*required=*/false, /*alternative=*/true});
      }
      continue;
    }
    Argument argument;
    argument.required = word.front() != '[';
    argument.name = argument.required ? word : word.substr(1);
    const bool closed = argument.name.back() == ']' && !argument.required;
    if (closed) argument.name.pop_back();
    if (!argument.positional() && !closed) {
      words >> argument.value;
      if (!argument.required) argument.value.pop_back();
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

// The texts of a request while it is being read: CLI11 keeps references to them.
struct Reading {
  const Verb* verb = nullptr;
  CLI::App* app = nullptr;
  std::vector<Argument> arguments;
  std::vector<std::unique_ptr<std::string>> values;  // one for each argument
  std::vector<CLI::Option*> options;                 // likewise
};

void addArguments(Reading& reading) {
  for (const Argument& argument : reading.arguments) {
    reading.values.push_back(std::make_unique<std::string>());
    CLI::Option* option = nullptr;
    if (argument.positional() || !argument.value.empty()) {
      option = reading.app->add_option(argument.name, *reading.values.back());
      option->required(argument.required);
      const std::vector<std::string> choices =
          choicesOf(argument.positional() ? argument.name : argument.value);
      if (!choices.empty()) option->check(CLI::IsMember(choices));
    } else {
      option = reading.app->add_flag(argument.name);
    }
    reading.options.push_back(option);
  }
}

std::string usageOf(const Verb& verb) {
  std::string usage = std::string("tarnfw ") + verb.name;
  if (verb.arguments[0] != '\0') usage += std::string(" ") + verb.arguments;
  return usage + (verb.effect == Effect::kChanges ? " [--dry-run]" : "");
}

std::string helpOn(const Verb& verb) {
  return "Usage: " + usageOf(verb) + " [--json] [--quiet]\n" + verb.help + ".\n";
}

// The help on every verb whose name starts with `prefix`.
std::string helpOnAll(const std::string& prefix) {
  std::string text = "Usage: tarnfw VERB [ARGUMENT...] [--json] [--quiet] [--verbose]\n\n";
  for (const Verb& verb : verbs()) {
    if (std::string(verb.name).compare(0, prefix.size(), prefix) != 0) continue;
    text += "  " + usageOf(verb) + "\n      " + verb.help + "\n";
  }
  return text +
         "\n  --json     print one JSON document, whatever happens\n"
         "  --quiet    no remarks on standard error, errors only\n"
         "  --verbose  the library's debug messages too\n"
         "  --dry-run  print what would be done and do nothing\n"
         "  --version  print the version\n\n"
         "Exit status: 0 done (query: allowed), 1 failed (query: blocked), 2 misused, 3 status: off,\n"
         "4 could not read, 5 live rules differ from the profile, 8 busy, 10 query: partly blocked,\n"
         "77 needs root. See tarnfw(1).\n";
}

// The program's options and verbs, as CLI11 reads them.
class Parser {
 public:
  Parser() : app_("", "tarnfw") {
    app_.set_version_flag("--version", "tarnfw " TARNFW_VERSION);
    app_.add_flag("--json", line_.json);
    app_.add_flag("-q,--quiet", line_.quiet);
    app_.add_flag("-v,--verbose", line_.verbose);
    app_.require_subcommand(0, 1);
    for (const Verb& verb : verbs()) addVerb(verb);
  }

  CommandLine read(int argc, const char* const argv[]) {
    try {
      app_.parse(argc, argv);
      take();
    } catch (const CLI::CallForHelp&) {
      line_.text = help();
    } catch (const CLI::CallForVersion& version) {
      line_.text = std::string(version.what()) + "\n";
    } catch (const CLI::ExtrasError& error) {
      line_.error = readingOf(named()) == nullptr ? unknownVerb() : words(error);
    } catch (const CLI::ParseError& error) {
      line_.error = words(error);
    }
    return line_;
  }

 private:
  void addVerb(const Verb& verb) {
    CLI::App* parent = &app_;
    std::string word = verb.name;
    const std::size_t blank = word.find(' ');
    if (blank != std::string::npos) {
      const std::string group = word.substr(0, blank);
      CLI::App*& known = groups_[group];
      if (known == nullptr) known = app_.add_subcommand(group)->fallthrough();
      parent = known;
      word = word.substr(blank + 1);
    }
    readings_.push_back(std::make_unique<Reading>());
    Reading& reading = *readings_.back();
    reading.verb = &verb;
    reading.app = parent->add_subcommand(word)->fallthrough();
    reading.arguments = argumentsOf(verb);
    addArguments(reading);
    if (verb.effect == Effect::kChanges) {
      reading.app->add_flag("-n,--dry-run", line_.request.dryRun);
    }
  }

  // The deepest verb or group of verbs that the command line names; null when it names none.
  const CLI::App* named() const {
    const CLI::App* app = &app_;
    while (!app->get_subcommands().empty()) app = app->get_subcommands().front();
    return app == &app_ ? nullptr : app;
  }

  const Reading* readingOf(const CLI::App* app) const {
    for (const auto& reading : readings_) {
      if (reading->app == app) return reading.get();
    }
    return nullptr;
  }

  std::string help() const {
    const CLI::App* app = named();
    const Reading* reading = readingOf(app);
    if (reading != nullptr) return helpOn(*reading->verb);
    return helpOnAll(app == nullptr ? "" : app->get_name() + " ");
  }

  std::string words(const CLI::ParseError& error) const {
    const CLI::App* app = named();
    const Reading* reading = readingOf(app);
    if (reading != nullptr) {
      return std::string(reading->verb->name) + ": " + error.what() + " (" +
             usageOf(*reading->verb) + ")";
    }
    return (app == nullptr ? "" : app->get_name() + ": ") + error.what() + kSeeHelp;
  }

  // "list, show, create"
  static std::string secondWords(const CLI::App* group) {
    std::string all;
    for (const CLI::App* verb : group->get_subcommands({})) {
      all += (all.empty() ? "" : ", ") + verb->get_name();
    }
    return all;
  }

  std::string unknownVerb() const {
    const CLI::App* app = named();
    const std::vector<std::string> rest = app_.remaining(/*recurse=*/true);
    return "there is no verb '" + (app == nullptr ? "" : app->get_name() + " ") +
           (rest.empty() ? "" : rest.front()) + "'" + kSeeHelp;
  }

  // Is one of the flags that exclude each other given, and only one? A verb has at most one choice.
  static bool choiceMade(const Reading& reading) {
    std::size_t offered = 0;
    std::size_t given = 0;
    for (std::size_t index = 0; index < reading.arguments.size(); ++index) {
      if (!reading.arguments[index].alternative) continue;
      ++offered;
      if (reading.options[index]->count() != 0) ++given;
    }
    return offered == 0 || given == 1;
  }

  void take() {
    const CLI::App* app = named();
    const Reading* reading = readingOf(app);
    if (reading == nullptr) {
      line_.error =
          (app == nullptr ? std::string("a verb is missing")
                          : app->get_name() + ": the second word of the verb is missing") +
          kSeeHelp;
      return;
    }
    if (!choiceMade(*reading)) {
      line_.error = std::string(reading->verb->name) +
                    ": one of its alternatives must be given, and only one (" +
                    usageOf(*reading->verb) + ")";
      return;
    }
    line_.verb = reading->verb;
    for (std::size_t index = 0; index < reading->arguments.size(); ++index) {
      if (reading->options[index]->count() == 0) continue;
      line_.request.values[reading->arguments[index].name] = *reading->values[index];
    }
  }

  CLI::App app_;
  CommandLine line_;
  std::map<std::string, CLI::App*> groups_;  // first word of the verbs that have two
  std::vector<std::unique_ptr<Reading>> readings_;
};

bool asksForJson(int argc, const char* const argv[]) {
  for (int index = 1; index < argc && std::strcmp(argv[index], "--") != 0; ++index) {
    if (std::strcmp(argv[index], "--json") == 0) return true;
  }
  return false;
}

}  // namespace

CommandLine readCommandLine(int argc, const char* const argv[]) {
  CommandLine line = Parser().read(argc, argv);
  line.json = line.json || asksForJson(argc, argv);
  line.request.json = line.json;
  return line;
}

}  // namespace tarnfw
