// The service database: one file that the system ships, and drop-in files that packages add.
//
//   {
//     "ssh": {
//       "title": "Secure Shell",
//       "available": true,
//       "destination": {"protocol": "tcp", "ports": ["22", "6881-6889"]}
//     }
//   }
//
// Members: "title" (optional), "available" (default true), "source" and "destination" (both
// optional); protocols: "tcp", "udp", "both", "icmp", "igmp", the last two without ports. A
// database with an error in it is refused as a whole: profiles are pruned by it, and half a
// database would take rules out of them.

#include "services.h"

#include <errno.h>
#include <json/json.h>
#include <string.h>

#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cancellation.h"
#include "directoryNames.h"
#include "log.h"
#include "textFile.h"

using tarnplatform::errorText;
using tarnplatform::here;
using tarnplatform::readDirectoryNames;
using tarnplatform::readTextFile;

namespace {

constexpr char kDatabase[] = "/usr/tarn/etc.defaults/firewall_services.json";
constexpr char kDropInDirectory[] = "/usr/tarn/etc/firewall_services.d";
constexpr size_t kFileLimit = size_t{16} * 1024 * 1024;  // bytes
constexpr int kHighestPort = 65535;

struct FreeList {
  void operator()(TLIBCSZLIST* list) const { TLIBCSzListFree(list); }
};
using OwnedList = std::unique_ptr<TLIBCSZLIST, FreeList>;

struct Protocol {
  const char* name;
  int number;
  bool hasPorts;
};

constexpr Protocol kProtocols[] = {
    {"tcp", 1, true}, {"udp", 2, true}, {"both", 3, true}, {"icmp", 4, false}, {"igmp", 32, false},
};

struct Service {
  OwnedList srcPorts;
  OwnedList dstPorts;
  TARNFW_SERVICE record = {};
};

using Services = std::map<std::string, Service, std::less<>>;

// Where an error is said to be: file, service, member (empty: the service itself). Made into text
// when there is an error only: the table is read for every compilation that names a service.
struct Context {
  const std::string& file;
  const std::string& service;
  std::string member;

  bool fail(const std::string& why, int line = __builtin_LINE()) const {
    const std::string place = member.empty() ? "" : ", member \"" + member + "\"";
    here(line).error("%s: service \"%s\"%s: %s", file.c_str(), service.c_str(), place.c_str(),
                     why.c_str());
    return false;
  }
};

std::string quoted(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, value);
}

const Protocol* protocolOf(const Json::Value& value) {
  const std::string text = value.isString() ? value.asString() : "";
  for (const Protocol& protocol : kProtocols) {
    if (text == protocol.name) {
      return &protocol;
    }
  }
  return nullptr;
}

// A decimal number as iptables reads it: a leading zero would make it octal.
bool isPort(const std::string& text, int* port) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos ||
      (text[0] == '0' && text.size() > 1)) {
    return false;
  }
  *port = std::stoi(text);
  return *port <= kHighestPort;
}

bool isPortOrRange(const std::string& text) {
  const size_t dash = text.find('-');
  int first = 0;
  int last = 0;
  if (dash == std::string::npos) {
    return isPort(text, &first);
  }
  return isPort(text.substr(0, dash), &first) && isPort(text.substr(dash + 1), &last) &&
         first <= last;
}

void push(OwnedList* list, const std::string& text) {
  TLIBCSZLIST* grown = list->release();
  const int result = TLIBCSzListPush(&grown, text.c_str());
  list->reset(grown);
  if (result < 0) {
    throw std::bad_alloc();
  }
}

bool readPorts(const Json::Value& ports, const Context& context, OwnedList* list) {
  if (!ports.isArray() || ports.empty()) {
    return context.fail("\"ports\" must be a list of ports, not " + quoted(ports));
  }
  for (const Json::Value& port : ports) {
    const std::string text = port.isString() ? port.asString() : "";
    if (!isPortOrRange(text)) {
      return context.fail("a port is \"22\" or \"6881-6889\", 0 to 65535, not " + quoted(port));
    }
    push(list, text);
  }
  return true;
}

// The member "source" or "destination".
bool readEndpoint(const Json::Value& endpoint, const Context& context, int* protocolNumber,
                  OwnedList* list) {
  if (!endpoint.isObject()) {
    return context.fail("must be an object, not " + quoted(endpoint));
  }
  for (auto entry = endpoint.begin(); entry != endpoint.end(); ++entry) {
    const std::string member = entry.name();
    if (member != "protocol" && member != "ports") {
      return context.fail("unknown member \"" + member + "\"");
    }
  }
  const Protocol* const protocol = protocolOf(endpoint["protocol"]);
  if (protocol == nullptr) {
    return context.fail("\"protocol\" is tcp, udp, both, icmp or igmp, not " +
                        quoted(endpoint["protocol"]));
  }
  *protocolNumber = protocol->number;
  list->reset(TLIBCSzListAlloc(static_cast<int>(endpoint["ports"].size())));
  if (!*list) {
    throw std::bad_alloc();
  }
  if (protocol->hasPorts) {
    return readPorts(endpoint["ports"], context, list);
  }
  if (endpoint.isMember("ports") && !(endpoint["ports"].isArray() && endpoint["ports"].empty())) {
    return context.fail("a service of this protocol has no ports, not " +
                        quoted(endpoint["ports"]));
  }
  push(list, "0");  // the compiler drops empty lists; it ignores the ports of these protocols
  return true;
}

bool readService(const Json::Value& value, Context context, Service* service) {
  if (!value.isObject()) {
    return context.fail("must be an object, not " + quoted(value));
  }
  bool available = true;
  for (auto entry = value.begin(); entry != value.end(); ++entry) {
    const std::string member = entry.name();
    const Json::Value& content = *entry;
    context.member = member;
    if (member == "source") {
      if (!readEndpoint(content, context, &service->record.srcProtocol, &service->srcPorts)) {
        return false;
      }
    } else if (member == "destination") {
      if (!readEndpoint(content, context, &service->record.dstProtocol, &service->dstPorts)) {
        return false;
      }
    } else if (member == "available") {
      if (!content.isBool()) {
        return context.fail("must be true or false, not " + quoted(content));
      }
      available = content.asBool();
    } else if (member != "title") {
      return context.fail("is not known");
    } else if (!content.isString()) {
      return context.fail("must be a text, not " + quoted(content));
    }
  }
  TARNFW_SERVICE& record = service->record;
  record.available = available ? 1 : 0;
  record.protocol = record.dstProtocol != 0 ? record.dstProtocol : record.srcProtocol;
  record.srcPorts = service->srcPorts.get();
  record.dstPorts = service->dstPorts.get();
  return true;
}

// Service names stand in lists that are separated by commas.
bool isServiceName(const std::string& name) {
  for (const char character : name) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte < ' ' || byte == 0x7f || byte == ',') {
      return false;
    }
  }
  return !name.empty();
}

bool parse(const std::string& file, const std::string& text, Json::Value* document) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = true;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  std::string why;
  if (!reader->parse(text.data(), text.data() + text.size(), document, &why)) {
    for (char& character : why) {
      character = character == '\n' ? ' ' : character;
    }
    here().error("%s is not valid JSON: %s", file.c_str(), why.c_str());
    return false;
  }
  if (!document->isObject()) {
    here().error("%s must hold an object of services", file.c_str());
    return false;
  }
  return true;
}

bool addServices(const std::string& file, Services* services) {
  std::string text;
  Json::Value document;
  if (!readTextFile(file.c_str(), kFileLimit, &text)) {
    here().error("%s cannot be read: %s", file.c_str(), errorText(errno));
    return false;
  }
  if (!parse(file, text, &document)) {
    return false;
  }
  for (auto entry = document.begin(); entry != document.end(); ++entry) {
    const std::string name = entry.name();
    const Context context = {file, name, ""};
    Service service;
    if (!isServiceName(name)) {
      return context.fail("a name has no comma and no control character and is not empty");
    }
    if (!readService(*entry, context, &service)) {
      return false;
    }
    services->insert_or_assign(name, std::move(service));
  }
  return true;
}

bool isDropIn(const std::string& name) {
  constexpr char kSuffix[] = ".json";
  constexpr size_t kLength = sizeof kSuffix - 1;
  return name.size() > kLength && name.compare(name.size() - kLength, kLength, kSuffix) == 0;
}

bool addDropIns(Services* services) {
  std::vector<std::string> names;
  if (!readDirectoryNames(kDropInDirectory, &names)) {
    const int error = errno;
    if (error == ENOENT) {
      return true;
    }
    here().error("%s cannot be read: %s", kDropInDirectory, errorText(error));
    return false;
  }
  for (const std::string& name : names) {
    if (isDropIn(name) && !addServices(std::string(kDropInDirectory) + "/" + name, services)) {
      return false;
    }
  }
  return true;
}

}  // namespace

struct TARNFW_SERVICE_LIST {
  Services services;
};

int TARNFwServiceEnum(TARNFW_SERVICE_LIST** list) {
  if (list == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const tarn::CancellationHold noCancellation;
  try {
    auto loaded = std::make_unique<TARNFW_SERVICE_LIST>();
    if (!addServices(kDatabase, &loaded->services) || !addDropIns(&loaded->services)) {
      return -1;
    }
    if (loaded->services.empty()) {
      here().error("%s names no service", kDatabase);
      return 0;
    }
    for (auto& entry : loaded->services) {
      entry.second.record.name = entry.first.c_str();
    }
    *list = loaded.release();
    return static_cast<int>((*list)->services.size());
  } catch (const std::exception& exception) {
    here().error("The service database cannot be read: %s", exception.what());
    return -1;
  }
}

const TARNFW_SERVICE* TARNFWServiceFind(const TARNFW_SERVICE_LIST* list, const char* name) {
  if (list == nullptr || name == nullptr) {
    return nullptr;
  }
  const auto found = list->services.find(name);
  return found == list->services.end() ? nullptr : &found->second.record;
}

void TARNFwServiceFree(TARNFW_SERVICE_LIST* list) { delete list; }
