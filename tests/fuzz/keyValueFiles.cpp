// Key/value files: the platform's reader and writer against a model of lines.
//
// Input: a flag, whether the file lies where everybody may write; the number of operations; each
// with its kind (get, check, set), for get the size of the buffer, the key and, but for get, the
// value; then the file's text, or nothing: there is no file.

#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "check.h"
#include "error.h"
#include "files.h"
#include "input.h"
#include "testFiles.h"
#include "trace.h"

namespace {

constexpr char kShared[] = "/tmp/iptables_serv_mod_list";
constexpr char kOwn[] = "/etc.defaults/tarninfo.conf";

// --- the model ---

// The file as lines without their line feeds; a file that ends in a line feed has an empty last
// line.
struct Model {
  bool exists = false;
  std::vector<std::string> lines = {""};

  static Model of(const std::string& text) {
    Model model;
    model.exists = true;
    for (const char byte : text) {
      if (byte == '\n') {
        model.lines.emplace_back();
      } else {
        model.lines.back() += byte;
      }
    }
    return model;
  }

  std::string text() const {
    std::string joined = lines.front();
    for (std::size_t index = 1; index < lines.size(); ++index) joined += "\n" + lines[index];
    return joined;
  }
};

bool isBlank(char byte) { return byte == ' ' || byte == '\t' || byte == '\r'; }

std::string begun(std::string text) {
  while (!text.empty() && isBlank(text.front())) text.erase(text.begin());
  return text;
}

std::string stripped(std::string text) {
  while (!text.empty() && isBlank(text.back())) text.pop_back();
  return begun(text);
}

// The line that counts for the key, -1 without one, and the value it gives: what stands between the
// quotes, or all up to the end of the line.
int lineOf(const Model& model, const std::string& key, std::string& value) {
  for (int index = static_cast<int>(model.lines.size()) - 1; index >= 0; --index) {
    std::string line = model.lines[static_cast<std::size_t>(index)];
    if (!line.empty() && line.back() == '\r') line.pop_back();
    line = begun(line);
    const std::size_t equals = line.find('=');
    if (line.empty() || line.front() == '#' || equals == std::string::npos) continue;
    if (stripped(line.substr(0, equals)) != key) continue;
    value = begun(line.substr(equals + 1));
    if (!value.empty() && value.front() == '"') {
      value.erase(0, 1);
      value = value.substr(0, value.find('"'));
    }
    return index;
  }
  value.clear();
  return -1;
}

bool canStand(const std::string& key, const std::string& value) {
  return stripped(key) == key && (key.empty() || key.front() != '#') &&
         key.find_first_of("=\n\r") == std::string::npos &&
         value.find_first_of("\"\n\r") == std::string::npos;
}

void setInModel(Model& model, const std::string& key, const std::string& value) {
  const std::string entry = key + "=\"" + value + "\"";
  std::string old;
  const int index = lineOf(model, key, old);
  model.exists = true;
  if (index >= 0) {
    std::string& line = model.lines[static_cast<std::size_t>(index)];
    line = entry + (!line.empty() && line.back() == '\r' ? "\r" : "");
    return;
  }
  if (!model.lines.back().empty()) model.lines.emplace_back();
  model.lines.back() = entry;
  model.lines.emplace_back();
}

// --- the operations ---

void get(const char* path, const Model& model, const std::string& key, int size) {
  std::string value;
  (void)lineOf(model, key, value);
  value = value.substr(0, static_cast<std::size_t>(size) - 1);
  std::vector<char> buffer(static_cast<std::size_t>(size), '~');
  const int length = TLIBCFileGetKeyValue(path, key.c_str(), buffer.data(), size, 0);
  if (!model.exists) {
    fuzz::require(length < 0, "an absent file is an error");
  } else {
    fuzz::require(length == static_cast<int>(value.size()), "the length of a value",
                  std::to_string(length) + " instead of " + std::to_string(value.size()));
  }
  if (length > 0) {
    fuzz::requireEqual(value, std::string(buffer.data(), value.size()), "a value");
    fuzz::require(buffer[value.size()] == '\0', "a value ends in NUL");
  } else {
    fuzz::require(buffer[0] == '~', "the buffer is untouched without a value");
  }
}

void check(const char* path, const Model& model, const std::string& key, const std::string& value) {
  std::string found;
  (void)lineOf(model, key, found);
  const bool same = model.exists && found == value;
  fuzz::require((TLIBCFileCheckKeyValue(path, key.c_str(), value.c_str(), 0) != 0) == same,
                "a value is compared");
}

void set(const char* path, Model& model, const std::string& key, const std::string& value) {
  const bool possible = canStand(key, value);
  const int result = TLIBCFileSetKeyValue(path, key.c_str(), value.c_str(), 0);
  fuzz::require((result >= 0) == possible, "what can stand in a file is set", key + "=" + value);
  if (!possible) return;
  setInModel(model, key, value);
  std::string again;
  (void)lineOf(Model::of(files::read(path)), key, again);
  fuzz::requireEqual(value, again, "what was set is read");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const char* const path = input.flag() ? kShared : kOwn;
  struct Operation {
    std::size_t kind;
    int size;
    std::string key;
    std::string value;
  };
  std::vector<Operation> operations(input.below(8));
  for (Operation& operation : operations) {
    operation.kind = input.below(3);
    operation.size = operation.kind == 0 ? static_cast<int>(input.below(80)) + 1 : 0;
    operation.key = input.text().c_str();
    operation.value = operation.kind == 0 ? "" : input.text().c_str();
  }
  (void)unlink(path);
  Model model;
  if (!input.empty()) {
    const std::string text = input.all();
    files::write(path, text);
    model = Model::of(text);
  }
  for (const Operation& operation : operations) {
    if (operation.kind == 0) get(path, model, operation.key, operation.size);
    if (operation.kind == 1) check(path, model, operation.key, operation.value);
    if (operation.kind == 2) set(path, model, operation.key, operation.value);
    fuzz::requireEqual(model.exists ? model.text() : "(absent)", files::read(path),
                       "the file after an operation");
  }
  (void)trace::take();
  return 0;
}
