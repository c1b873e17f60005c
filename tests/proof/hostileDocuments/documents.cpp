#include "documents.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "testFiles.h"

namespace hostile {
namespace {

namespace fs = std::filesystem;

std::string repeated(const std::string& text, int count) {
  std::string all;
  for (int index = 0; index < count; ++index) all += text;
  return all;
}

// A document that would be in order, but for its rules.
std::string withRules(const std::string& rules) {
  return R"({"name": "office", "status": true, "profile": "office", "adapterPolicyMap": null, )"
         R"("rules": )" +
         rules + "}\n";
}

void makeDepth(const std::string& path) {
  constexpr int kDepth = 100000;
  files::write(path, withRules(repeated("[", kDepth) + repeated("]", kDepth)));
}

void makeLongString(const std::string& path) {
  constexpr std::size_t kMebibyte = 1024UL * 1024UL;
  files::write(path, withRules("{\"" + std::string(kMebibyte, 'x') + "\": []}"));
}

void makeManyNumbers(const std::string& path) {
  constexpr int kNumbers = 500;
  files::write(path, withRules("[" + repeated("0,", kNumbers) + "0]"));
}

void makeManyRules(const std::string& path) {
  constexpr int kRules = 200;
  const std::string rules = repeated("{\"ipGroup\": 2},", kRules);
  files::write(path, withRules("{\"global\": [" + rules + "{}]}"));
}

void makeManyAdapters(const std::string& path) {
  constexpr int kAdapters = 200;
  std::string rules;
  for (int number = 0; number < kAdapters; ++number) {
    rules += "\"eth" + std::to_string(number) + "\": [{}],";
  }
  files::write(path, withRules("{" + rules + "\"global\": []}"));
}

void makeSparse(const std::string& path) {
  constexpr std::uintmax_t kBytes = 1024UL * 1024UL;
  files::write(path, "{");
  fs::resize_file(path, kBytes);
}

void makeFifo(const std::string& path) { (void)!mkfifo(path.c_str(), 0600); }
void makeDirectory(const std::string& path) { fs::create_directory(path); }
void makeZeroDevice(const std::string& path) { fs::create_symlink("/dev/zero", path); }
void makeTerminal(const std::string& path) { fs::create_symlink("/dev/ptmx", path); }
void makeDanglingLink(const std::string& path) { fs::create_symlink("/nowhere/at/all", path); }
void makeLinkToItself(const std::string& path) { fs::create_symlink(path, path); }

void makeSocket(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  (void)!bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  (void)close(fd);
}

}  // namespace

const std::vector<Document>& documents() {
  // clang-format off
  static const std::vector<Document> kTable = {
    // encodings and bytes
    {"empty", "no byte at all", nullptr},
    {"onlyBlanks", "blanks and line ends", nullptr},
    {"nulBytes", "512 zero bytes", nullptr},
    {"nulInTheMiddle", "a zero byte inside a string", nullptr},
    {"byteOrderMark", "a good document behind a byte order mark", nullptr},
    {"utf16", "a good document in UTF-16", nullptr},
    {"invalidUtf8", "bytes in the name that are no UTF-8", nullptr},
    {"loneSurrogate", "half a surrogate pair in the name", nullptr},
    {"rawControlBytes", "control bytes and a line end inside a string", nullptr},
    // syntax
    {"cutInHalf", "the first half of a good document", nullptr},
    {"cutInAString", "ends inside a string", nullptr},
    {"textBehind", "a good document and then something else", nullptr},
    {"twoDocuments", "two good documents in one file", nullptr},
    {"trailingCommas", "commas before closing brackets", nullptr},
    {"unclosedComment", "a good document inside a comment without end", nullptr},
    {"manyComments", "a good document with 202 comments", nullptr},
    {"singleQuotes", "single quotes for double ones", nullptr},
    {"aMinusSign", "a minus sign and no number", nullptr},
    // numbers
    {"notANumber", "NaN and Infinity", nullptr},
    {"hugeExponent", "1e400", nullptr},
    {"integersBeyondTheirRange", "2^63, -2^63 and 2^64-1 for small integers", nullptr},
    {"numbersOfNoMeaning", "groups, policies and protocols that do not exist", nullptr},
    {"fractions", "fractions for integers and for truth", nullptr},
    // types
    {"rootNull", "the document is null", nullptr},
    {"rootNumber", "the document is a number", nullptr},
    {"rootString", "the document is a string", nullptr},
    {"rootTrue", "the document is true", nullptr},
    {"rootArray", "the document is an array", nullptr},
    {"membersOfTheWrongType", "a number for the name, an array for the profile, \"yes\" for the status", nullptr},
    {"arraysForObjects", "rules and policies are arrays", nullptr},
    {"stringsForObjects", "rules, policies and a service are strings", nullptr},
    {"rulesThatAreNone", "numbers, strings, null and arrays among the rules", nullptr},
    {"objectsForEveryMember", "every member of a rule and of a service is an object", nullptr},
    {"listsOfTheWrongType", "objects and arrays in the lists of ports, chains, addresses", nullptr},
    // contents
    {"duplicateKeys", "every key twice, with another value", nullptr},
    {"emptyNames", "empty names of profile, adapter and member", nullptr},
    {"portsAndAddressesOfNoUse", "no addresses where two are needed, ports out of range", nullptr},
    {"argumentsInFields", "options of the tool inside the fields", nullptr},
    {"pathsAndFormats", "paths and printf formats for names, countries and services", nullptr},
    {"keyValueNamesOfOtherFiles", "key/value text with paths, commands and an open quote", nullptr},
    {"keyValueWithoutValues", "key/value text without keys, values or quotes", nullptr},
    {"keyValueOfLongLines", "key/value text with values longer than any buffer", nullptr},
    // depth and size
    {"depth1000", "1,000 levels deep", nullptr},
    {"depth1001", "1,002 levels deep, more than the JSON library takes", nullptr},
    {"depth100000", "100,000 levels deep", makeDepth},
    {"longString", "a name of an adapter of 1 MiB", makeLongString},
    {"manyNumbers", "an array of 501 numbers", makeManyNumbers},
    {"manyRules", "201 rules", makeManyRules},
    {"manyAdapters", "201 adapters", makeManyAdapters},
    {"sparse", "1 MiB, all but the first byte a hole", makeSparse},
    // no files
    {"fifo", "a FIFO that nobody writes", makeFifo},
    {"directory", "a directory", makeDirectory},
    {"zeroDevice", "a link to a device that never ends", makeZeroDevice},
    {"terminal", "a link to a device that waits", makeTerminal},
    {"socket", "a socket", makeSocket},
    {"danglingLink", "a link to nothing", makeDanglingLink},
    {"linkToItself", "a link to itself", makeLinkToItself},
  };
  // clang-format on
  return kTable;
}

void put(const Document& document, const std::string& path) {
  fs::create_directories(fs::path(path).parent_path());
  fs::remove_all(path);
  if (document.make != nullptr) {
    document.make(path);
  } else {
    fs::copy_file(std::string(TARN_HOSTILE_DOCUMENTS "/") + document.name, path);
  }
}

}  // namespace hostile
