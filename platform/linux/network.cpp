// Interfaces come from one dump of the kernel's link table: it has every interface once, those that
// are down too, and no aliases. Addresses are of no interest, a rule names its interface. Left out
// are loopback, "global", "pppoe", "vpn" and names that end in "+".

#include "network.h"

#include <net/if.h>  // before the kernel's headers, which then leave out what it has declared

#include <arpa/inet.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "cancellation.h"
#include "directoryNames.h"
#include "error.h"
#include "errorCodes.h"
#include "interfaceRank.h"
#include "log.h"
#include "textFile.h"

using tarnplatform::errorText;
using tarnplatform::here;
using tarnplatform::interfaceRank;
using tarnplatform::InterfaceRank;
using tarnplatform::kErrorArgument;
using tarnplatform::kErrorMemory;
using tarnplatform::kErrorSystem;
using tarnplatform::readDirectoryNames;
using tarnplatform::readTextFile;

static_assert(sizeof(TLIBNETIF::name) == IFNAMSIZ, "an interface name fits its record");

namespace {

constexpr int kFirewallInterfaces = 8;
constexpr int kDumpAttempts = 10;
constexpr size_t kSmallFile = size_t{64} * 1024;  // bytes

struct Interface {
  TLIBNETIF record = {};
  InterfaceRank rank = InterfaceRank::kOther;
};

// A name that means something else as the key of rules or as an argument of iptables.
bool isAmbiguous(const std::string& name) {
  return name == "global" || name == "pppoe" || name == "vpn" || name.back() == '+';
}

// What a message on a link says of it.
struct LinkText {
  const char* name = nullptr;
  const char* kind = nullptr;
};

bool isText(const nlattr* attribute, uint16_t type) {
  return mnl_attr_get_type(attribute) == type &&
         mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0;
}

int readLinkKind(const nlattr* attribute, void* data) {
  if (isText(attribute, IFLA_INFO_KIND)) {
    static_cast<LinkText*>(data)->kind = mnl_attr_get_str(attribute);
  }
  return MNL_CB_OK;
}

int readLinkAttribute(const nlattr* attribute, void* data) {
  if (isText(attribute, IFLA_IFNAME)) {
    static_cast<LinkText*>(data)->name = mnl_attr_get_str(attribute);
  }
  if (mnl_attr_get_type(attribute) == IFLA_LINKINFO) {
    return mnl_attr_parse_nested(attribute, readLinkKind, data);
  }
  return MNL_CB_OK;
}

// Adds the link of one message of the dump.
int addLink(const nlmsghdr* message, void* data) {
  const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
  LinkText text;
  if (message->nlmsg_type != RTM_NEWLINK ||
      mnl_attr_parse(message, sizeof(ifinfomsg), readLinkAttribute, &text) < 0 ||
      text.name == nullptr || *text.name == '\0') {
    return MNL_CB_OK;
  }
  Interface link;
  (void)snprintf(link.record.name, sizeof link.record.name, "%s", text.name);
  link.record.index = static_cast<unsigned int>(info->ifi_index);
  link.record.flags = info->ifi_flags;
  link.rank = interfaceRank(text.kind, info->ifi_type);
  static_cast<std::vector<Interface>*>(data)->push_back(link);
  return MNL_CB_OK;
}

struct CloseSocket {
  void operator()(mnl_socket* socket) const { (void)mnl_socket_close(socket); }
};

// One dump. False with errno set; EINTR: the table changed meanwhile.
bool dumpLinks(std::vector<Interface>* links) {
  const std::unique_ptr<mnl_socket, CloseSocket> socket(
      mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (!socket || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
    return false;
  }
  alignas(nlmsghdr) char buffer[32 * 1024];  // the largest message the kernel puts together
  constexpr unsigned int kSequence = 1;
  nlmsghdr* request = mnl_nlmsg_put_header(buffer);
  request->nlmsg_type = RTM_GETLINK;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request->nlmsg_seq = kSequence;
  auto* link = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
  link->ifi_family = AF_UNSPEC;
  mnl_attr_put_u32(request, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
  if (mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) {
    return false;
  }
  const unsigned int port = mnl_socket_get_portid(socket.get());
  for (;;) {
    const ssize_t length = mnl_socket_recvfrom(socket.get(), buffer, sizeof buffer);
    if (length < 0 && errno == EINTR) {
      continue;
    }
    if (length < 0) {
      return false;
    }
    const int state =
        mnl_cb_run(buffer, static_cast<size_t>(length), kSequence, port, addLink, links);
    if (state < MNL_CB_STOP) {
      return false;
    }
    if (state == MNL_CB_STOP) {
      return true;
    }
  }
}

// All links in kernel index order.
bool readLinks(std::vector<Interface>* links) {
  for (int attempt = 1;; ++attempt) {
    links->clear();
    if (dumpLinks(links)) {
      break;
    }
    if (errno != EINTR || attempt == kDumpAttempts) {
      return false;
    }
  }
  std::sort(links->begin(), links->end(), [](const Interface& left, const Interface& right) {
    return left.record.index < right.record.index;
  });
  return true;
}

void sayWhatIsCut(const std::vector<Interface>& links, size_t capacity) {
  std::string names;
  for (size_t i = capacity; i < links.size(); ++i) {
    names += names.empty() ? links[i].record.name : std::string(" ") + links[i].record.name;
  }
  here().error("%zu interfaces, %zu are handled, without: %s", links.size(), capacity,
               names.c_str());
}

int listInterfaces(TLIBNETIF* table, size_t capacity) {
  std::vector<Interface> links;
  if (!readLinks(&links)) {
    const int error = errno;
    here().error("The interfaces cannot be listed: %s", errorText(error));
    TLIBCErrSetEx(kErrorSystem, __FILE__, __LINE__);
    errno = error;
    return -1;
  }
  links.erase(std::remove_if(links.begin(), links.end(),
                             [](const Interface& link) {
                               return (link.record.flags & IFF_LOOPBACK) != 0 ||
                                      isAmbiguous(link.record.name);
                             }),
              links.end());
  std::stable_sort(links.begin(), links.end(), [](const Interface& left, const Interface& right) {
    return left.rank < right.rank;
  });
  if (links.size() > capacity) {
    sayWhatIsCut(links, capacity);
    links.resize(capacity);
  }
  for (size_t i = 0; i < links.size(); ++i) {
    table[i] = links[i].record;
  }
  return static_cast<int>(links.size());
}

bool interfaceExists(const std::string& name) {
  return !name.empty() && name.size() < IFNAMSIZ && if_nametoindex(name.c_str()) != 0;
}

// Line `index` of a small file, without blanks at its ends; empty when there is none.
std::string lineOf(const std::string& path, size_t index) {
  std::string text;
  if (!readTextFile(path.c_str(), kSmallFile, &text)) {
    return "";
  }
  size_t begin = 0;
  for (; index > 0 && begin != std::string::npos; --index) {
    begin = text.find('\n', begin);
    begin = begin == std::string::npos ? begin : begin + 1;
  }
  if (begin == std::string::npos) {
    return "";
  }
  const std::string line = text.substr(begin, text.find('\n', begin) - begin);
  const size_t first = line.find_first_not_of(" \t\r");
  return first == std::string::npos
             ? ""
             : line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

bool isRunning(const std::string& pid) {
  if (pid.empty() || pid.size() > 10 || pid.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  const long long number = std::strtoll(pid.c_str(), nullptr, 10);
  return number > 0 && number <= INT32_MAX &&
         (kill(static_cast<pid_t>(number), 0) == 0 || errno == EPERM);
}

// What our ip-up script has written down: it knows that the link is a PPPoE one.
std::string recordedPppoeInterface() {
  const std::string name = lineOf("/run/tarn/pppoe_interface", 0);
  return interfaceExists(name) ? name : "";
}

bool isNamedLinkFile(const std::string& name) {
  constexpr char kPrefix[] = "ppp-";
  constexpr char kSuffix[] = ".pid";
  constexpr size_t kLength = 4;  // bytes of either
  return name.size() > 2 * kLength && name.compare(0, kLength, kPrefix) == 0 &&
         name.compare(name.size() - kLength, kLength, kSuffix) == 0;
}

// pppd writes ppp-LINKNAME.pid for a link with a name: the process, then the interface. Which of
// several is the PPPoE link cannot be told.
std::string namedPppInterface() {
  std::vector<std::string> names;
  std::vector<std::string> found;
  if (!readDirectoryNames("/run", &names)) {
    return "";
  }
  for (const std::string& name : names) {
    const std::string file = "/run/" + name;
    if (!isNamedLinkFile(name) || !isRunning(lineOf(file, 0))) {
      continue;
    }
    const std::string interface = lineOf(file, 1);
    if (interfaceExists(interface)) {
      found.push_back(interface);
    }
  }
  return found.size() == 1 ? found.front() : "";
}

// The kernel lists PPPoE sessions, but not their interfaces.
std::string onlyPppInterface() {
  std::vector<Interface> links;
  const bool hasSession = !lineOf("/proc/net/pppoe", 1).empty();
  if (!hasSession || !readLinks(&links)) {
    return "";
  }
  std::vector<std::string> found;
  for (const Interface& link : links) {
    if (strncmp(link.record.name, "ppp", 3) == 0) {
      found.emplace_back(link.record.name);
    }
  }
  return found.size() == 1 ? found.front() : "";
}

int writePppoeInterface(char* buffer, size_t size) {
  for (const auto& source : {recordedPppoeInterface, namedPppInterface, onlyPppInterface}) {
    const std::string name = source();
    if (!name.empty() && name.size() < size) {
      memcpy(buffer, name.c_str(), name.size() + 1);
      return 0;
    }
  }
  return -1;
}

}  // namespace

int TLIBNetGetInterfaceInfo(TLIBNETIF* table, int capacity, int kind) {
  if (table == nullptr || capacity < 0 || kind != kFirewallInterfaces) {
    TLIBCErrSetEx(kErrorArgument, __FILE__, __LINE__);
    errno = EINVAL;
    return -1;
  }
  const tarn::CancellationHold noCancellation;
  try {
    return listInterfaces(table, static_cast<size_t>(capacity));
  } catch (const std::exception&) {
    TLIBCErrSetEx(kErrorMemory, __FILE__, __LINE__);
    errno = ENOMEM;
    return -1;
  }
}

int TARNPPPoeIntfGet(char* buffer, int size) {
  if (buffer == nullptr || size <= 0) {
    errno = EINVAL;
    return -1;
  }
  const tarn::CancellationHold noCancellation;
  try {
    return writePppoeInterface(buffer, static_cast<size_t>(size));
  } catch (const std::exception&) {
    errno = ENOMEM;
    return -1;
  }
}

int BlTLIBIsIpAddr(const char* text) {
  in_addr address = {};
  return text != nullptr && inet_pton(AF_INET, text, &address) == 1 ? 1 : 0;
}

int BlTLIBIsv6IpAddrValid(const char* text) {
  in6_addr address = {};
  return text != nullptr && inet_pton(AF_INET6, text, &address) == 1 ? 1 : 0;
}
