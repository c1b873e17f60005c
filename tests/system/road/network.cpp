#include "network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace road {
namespace {

using Clock = std::chrono::steady_clock;

// A packet that was dropped shows by the lack of an answer: between namespaces of one machine that
// takes microseconds. The kernel repeats a connection attempt after a second only.
constexpr std::chrono::milliseconds kNoAnswer(250);
constexpr std::chrono::milliseconds kDead(1000);  // the kernel repeats on a connection after 200 ms
constexpr std::chrono::seconds kPatience(5);

constexpr std::uint16_t kSsh = 22;
constexpr std::uint16_t kHttp = 80;
constexpr std::uint16_t kHttps = 443;
constexpr std::uint16_t kDns = 53;
constexpr std::uint16_t kNtp = 123;

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void require(bool done, const std::string& what) {
  if (!done) fail(what);
}

// An address with a port, as the kernel takes it.
struct Address {
  sockaddr_storage storage = {};
  socklen_t length = 0;

  Address(const std::string& text, std::uint16_t port) {
    auto* const v4 = reinterpret_cast<sockaddr_in*>(&storage);
    auto* const v6 = reinterpret_cast<sockaddr_in6*>(&storage);
    if (inet_pton(AF_INET, text.c_str(), &v4->sin_addr) == 1) {
      storage.ss_family = AF_INET;
      v4->sin_port = htons(port);
      length = sizeof *v4;
    } else if (inet_pton(AF_INET6, text.c_str(), &v6->sin6_addr) == 1) {
      storage.ss_family = AF_INET6;
      v6->sin6_port = htons(port);
      length = sizeof *v6;
    } else {
      throw std::invalid_argument(text);
    }
  }

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
  int family() const { return storage.ss_family; }
};

// No two connections of a test share their ports: a connection that is still tracked would let the
// next one pass as established.
std::uint16_t nextSourcePort() {
  constexpr std::uint16_t kFirst = 10000;
  constexpr std::uint16_t kLast = 32000;  // below those that the kernel gives out
  static std::uint16_t last = kFirst;
  if (++last > kLast) throw std::length_error("source ports are used up");
  return last;
}

void bindToNextPort(int fd, int family) {
  const Address any(family == AF_INET ? "0.0.0.0" : "::", nextSourcePort());
  require(bind(fd, any.get(), any.length) == 0, "bind");
}

// --- one attempt ---

enum class Kind { kTcp, kUdp, kPing };

std::uint16_t checksum(const std::uint8_t* data, std::size_t size) {
  std::uint32_t sum = 0;
  for (std::size_t index = 0; index + 1 < size; index += 2) {
    sum += static_cast<std::uint32_t>(data[index] << 8 | data[index + 1]);
  }
  while (sum > 0xffff) sum = (sum & 0xffff) + (sum >> 16);
  return htons(static_cast<std::uint16_t>(~sum));
}

class Attempt {
 public:
  Attempt(const std::string& space, const std::string& address, Kind kind, std::uint16_t port)
      : kind_(kind), address_(address, port), id_(nextSourcePort()) {
    const int family = address_.family();
    switch (kind_) {
      case Kind::kTcp:
        name_ = "tcp" + std::to_string(port);
        fd_ = socketIn(space, family, SOCK_STREAM, 0);
        break;
      case Kind::kUdp:
        name_ = "udp" + std::to_string(port);
        fd_ = socketIn(space, family, SOCK_DGRAM, 0);
        break;
      case Kind::kPing:
        name_ = "ping";
        fd_ = family == AF_INET ? socketIn(space, family, SOCK_RAW, IPPROTO_ICMP)
                                : socketIn(space, family, SOCK_RAW, IPPROTO_ICMPV6);
        break;
    }
    require(fcntl(fd_, F_SETFL, O_NONBLOCK) == 0, "O_NONBLOCK");
    if (kind_ != Kind::kPing) bindToNextPort(fd_, family);
  }
  ~Attempt() { close(fd_); }
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;

  // Sends the first packet.
  void start() {
    if (kind_ == Kind::kPing) address_.storage = withoutPort();
    const int connected = connect(fd_, address_.get(), address_.length);
    if (connected != 0 && errno != EINPROGRESS) return settle(errno);
    if (kind_ == Kind::kUdp && send(fd_, "?", 1, 0) != 1) return settle(errno);
    if (kind_ == Kind::kPing) sendEcho();
  }

  // Looks for the answer, which poll() has announced.
  void look() {
    if (settled_) return;
    if (kind_ == Kind::kTcp) {
      int error = 0;
      socklen_t size = sizeof error;
      require(getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &size) == 0, "SO_ERROR");
      return settle(error);
    }
    std::array<std::uint8_t, 2048> packet;
    const ssize_t length = recv(fd_, packet.data(), packet.size(), 0);
    if (length < 0 && errno != EAGAIN) return settle(errno);
    if (length > 0 && (kind_ == Kind::kUdp || isMyEcho(packet.data()))) settle(0);
  }

  int descriptor() const { return fd_; }
  bool settled() const { return settled_; }
  short events() const { return kind_ == Kind::kTcp ? POLLOUT : POLLIN; }

  // "tcp22", "tcp22(refused)", or "" when nothing came.
  std::string outcome() const { return settled_ ? name_ + trouble_ : ""; }

 private:
  void settle(int error) {
    settled_ = true;
    if (error == 0) return;
    trouble_ = error == ECONNREFUSED ? "(refused)" : std::string("(") + std::strerror(error) + ")";
  }

  // The port of a raw socket's address means something else.
  sockaddr_storage withoutPort() const {
    sockaddr_storage storage = address_.storage;
    if (storage.ss_family == AF_INET6) reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port = 0;
    return storage;
  }

  void sendEcho() {
    std::array<std::uint8_t, sizeof(icmphdr)> packet = {};
    packet[0] = address_.family() == AF_INET ? ICMP_ECHO : ICMP6_ECHO_REQUEST;
    packet[4] = static_cast<std::uint8_t>(id_ >> 8);
    packet[5] = static_cast<std::uint8_t>(id_ & 0xff);
    if (address_.family() == AF_INET) {
      const std::uint16_t sum = checksum(packet.data(), packet.size());
      std::memcpy(&packet[2], &sum, sizeof sum);
    }
    if (send(fd_, packet.data(), packet.size(), 0) < 0) settle(errno);
  }

  // Raw sockets get every packet of their protocol, IPv4 ones with the header.
  bool isMyEcho(const std::uint8_t* packet) const {
    const bool v4 = address_.family() == AF_INET;
    const std::size_t header = v4 ? (packet[0] & 0x0fU) * 4 : 0;
    const std::uint8_t* const icmp = packet + header;
    const int id = icmp[4] << 8 | icmp[5];
    return icmp[0] == (v4 ? ICMP_ECHOREPLY : ICMP6_ECHO_REPLY) && id == id_;
  }

  Kind kind_;
  Address address_;
  std::uint16_t id_;
  int fd_ = -1;
  std::string name_;
  bool settled_ = false;
  std::string trouble_;
};

// --- all paths ---

struct Path {
  const char* name;
  const char* from;
  const char* v4;
  const char* v6;  // null: the path has none
};

constexpr std::array<Path, 8> kPaths = {{
    {"client > host  ", "client", "10.77.0.1", "fd77::1"},
    {"lan    > host  ", "lan", "10.78.0.1", "fd78::1"},
    {"road   > host  ", "road", "10.79.0.1", nullptr},
    {"client > lan   ", "client", "10.78.0.2", "fd78::2"},
    {"lan    > client", "lan", "10.77.0.2", "fd77::2"},
    {"road   > lan   ", "road", "10.78.0.2", nullptr},
    {"host   > client", "host", "10.77.0.2", "fd77::2"},
    {"host   > host  ", "host", "127.0.0.1", "::1"},
}};

using Attempts = std::vector<std::unique_ptr<Attempt>>;

struct PathAttempts {
  const Path* path;
  Attempts v4;
  Attempts v6;
};

Attempts attempts(const std::string& from, const std::string& address) {
  Attempts list;
  list.push_back(std::make_unique<Attempt>(from, address, Kind::kTcp, kSsh));
  list.push_back(std::make_unique<Attempt>(from, address, Kind::kTcp, kHttp));
  list.push_back(std::make_unique<Attempt>(from, address, Kind::kUdp, kDns));
  list.push_back(std::make_unique<Attempt>(from, address, Kind::kPing, 0));
  return list;
}

std::string outcomes(const Attempts& list) {
  std::string text;
  for (const auto& attempt : list) {
    if (attempt->settled()) text += " " + attempt->outcome();
  }
  return text.empty() ? " -" : text;
}

std::string describe(const std::vector<PathAttempts>& paths) {
  std::string text;
  for (const PathAttempts& path : paths) {
    text += std::string(path.path->name) + "  v4" + outcomes(path.v4);
    if (path.path->v6 != nullptr) text += "  v6" + outcomes(path.v6);
    text += "\n";
  }
  return text;
}

// Waits for the next answer, `patience` at most.
void collect(const std::vector<Attempt*>& all, std::chrono::milliseconds patience) {
  std::vector<pollfd> events;
  std::vector<Attempt*> waiting;
  for (Attempt* attempt : all) {
    if (attempt->settled()) continue;
    events.push_back({attempt->descriptor(), attempt->events(), 0});
    waiting.push_back(attempt);
  }
  require(poll(events.data(), events.size(), static_cast<int>(patience.count())) >= 0, "poll");
  for (std::size_t index = 0; index < events.size(); ++index) {
    if (events[index].revents != 0) waiting[index]->look();
  }
}

}  // namespace

const char kEverybodyReachesEverybody[] =
    "client > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > host    v4 tcp22 tcp80 udp53 ping\n"
    "client > lan     v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "lan    > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "road   > lan     v4 tcp22 tcp80 udp53 ping\n"
    "host   > client  v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n"
    "host   > host    v4 tcp22 tcp80 udp53 ping  v6 tcp22 tcp80 udp53 ping\n";

int socketIn(const std::string& space, int family, int type, int protocol) {
  if (space == "host") return socket(family, type | SOCK_CLOEXEC, protocol);
  int fd = -1;
  // A thread enters the namespace alone, and the socket stays what it was born as.
  std::thread([&] {
    const std::string path = "/run/netns/" + space;
    const int spaceFd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (spaceFd >= 0 && setns(spaceFd, CLONE_NEWNET) == 0) {
      fd = socket(family, type | SOCK_CLOEXEC, protocol);
    }
    if (spaceFd >= 0) close(spaceFd);
  }).join();
  require(fd >= 0, "socket in " + space);
  return fd;
}

std::string whoReachesWhom(const std::string& expected) {
  std::vector<PathAttempts> paths;
  std::vector<Attempt*> all;
  for (const Path& path : kPaths) {
    paths.push_back({&path, attempts(path.from, path.v4), {}});
    if (path.v6 != nullptr) paths.back().v6 = attempts(path.from, path.v6);
    for (const auto& attempt : paths.back().v4) all.push_back(attempt.get());
    for (const auto& attempt : paths.back().v6) all.push_back(attempt.get());
  }
  for (Attempt* attempt : all) attempt->start();

  const Clock::time_point begun = Clock::now();
  for (;;) {
    const auto passed = Clock::now() - begun;
    const bool nothingElseComes =
        passed > kNoAnswer || std::all_of(all.begin(), all.end(), [](const Attempt* attempt) {
          return attempt->settled();
        });
    if (passed > kPatience || (nothingElseComes && describe(paths) == expected)) break;
    collect(all, std::chrono::milliseconds(10));
  }
  return describe(paths);
}

// --- servers ---

Servers::Servers() : poll_(epoll_create1(EPOLL_CLOEXEC)), stop_(eventfd(0, EFD_CLOEXEC)) {
  require(poll_ >= 0 && stop_ >= 0, "epoll");
  epoll_event event = {};
  event.events = EPOLLIN;
  event.data.fd = stop_;
  require(epoll_ctl(poll_, EPOLL_CTL_ADD, stop_, &event) == 0, "epoll_ctl");
  for (const char* space : {"host", "client", "lan"}) listen(space);
  thread_ = std::thread([this] { serve(); });
}

Servers::~Servers() {
  const std::uint64_t one = 1;
  (void)!write(stop_, &one, sizeof one);
  thread_.join();
  for (const int fd : sockets_) close(fd);
  close(stop_);
  close(poll_);
}

void Servers::listen(const std::string& space) {
  struct Port {
    int type;
    std::uint16_t number;
  };
  constexpr std::array<Port, 5> kPorts = {{{SOCK_STREAM, kSsh},
                                           {SOCK_STREAM, kHttp},
                                           {SOCK_STREAM, kHttps},
                                           {SOCK_DGRAM, kDns},
                                           {SOCK_DGRAM, kNtp}}};
  for (const Port& port : kPorts) {
    const int fd = socketIn(space, AF_INET6, port.type | SOCK_NONBLOCK, 0);
    const int off = 0;
    const int on = 1;
    require(setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) == 0, "IPV6_V6ONLY");
    require(setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0, "SO_REUSEADDR");
    const Address any("::", port.number);
    require(bind(fd, any.get(), any.length) == 0, "bind in " + space);
    if (port.type == SOCK_STREAM) require(::listen(fd, SOMAXCONN) == 0, "listen");
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    require(epoll_ctl(poll_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
    sockets_.push_back(fd);
  }
}

void Servers::serve() {
  std::array<epoll_event, 64> events;
  std::array<char, 2048> text;
  for (;;) {
    const int count = epoll_wait(poll_, events.data(), static_cast<int>(events.size()), -1);
    for (int index = 0; index < count; ++index) {
      const int fd = events[static_cast<std::size_t>(index)].data.fd;
      if (fd == stop_) return;
      // A listening socket gives connections, everything else what is to be sent back.
      const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (connection >= 0) {
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = connection;
        (void)epoll_ctl(poll_, EPOLL_CTL_ADD, connection, &event);
        sockets_.push_back(connection);
        continue;
      }
      sockaddr_storage peer = {};
      socklen_t length = sizeof peer;
      const ssize_t size =
          recvfrom(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&peer), &length);
      if (size > 0) {
        const auto* const to = length == 0 ? nullptr : reinterpret_cast<const sockaddr*>(&peer);
        (void)sendto(fd, text.data(), static_cast<std::size_t>(size), MSG_NOSIGNAL, to, length);
      } else if (size == 0 || errno != EAGAIN) {
        (void)epoll_ctl(poll_, EPOLL_CTL_DEL, fd, nullptr);
      }
    }
  }
}

// --- conversations ---

namespace {

// Longest wait of the calls that follow on the socket.
void setPatience(int fd, std::chrono::milliseconds patience) {
  timeval time = {};
  time.tv_sec = patience.count() / 1000;
  time.tv_usec = patience.count() % 1000 * 1000;
  require(setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time) == 0, "SO_RCVTIMEO");
  require(setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time) == 0, "SO_SNDTIMEO");
}

}  // namespace

Conversation::Conversation(const std::string& space, const std::string& address, std::uint16_t port)
    : socket_(socketIn(space, Address(address, port).family(), SOCK_STREAM, 0)) {
  const Address to(address, port);
  setPatience(socket_, kPatience);
  bindToNextPort(socket_, to.family());
  require(connect(socket_, to.get(), to.length) == 0, "connect to " + address);
}

Conversation::~Conversation() { close(socket_); }

bool Conversation::answers() {
  setPatience(socket_, kPatience);
  char answer = 0;
  return send(socket_, "?", 1, MSG_NOSIGNAL) == 1 && recv(socket_, &answer, 1, 0) == 1 &&
         answer == '?';
}

bool Conversation::isDead() {
  setPatience(socket_, kDead);
  char answer = 0;
  return send(socket_, "?", 1, MSG_NOSIGNAL) == 1 && recv(socket_, &answer, 1, 0) < 0;
}

bool udpAnswers(const std::string& space, const std::string& address, std::uint16_t port) {
  const Address to(address, port);
  const int fd = socketIn(space, to.family(), SOCK_DGRAM, 0);
  setPatience(fd, kNoAnswer);
  bindToNextPort(fd, to.family());
  char answer = 0;
  const bool answered = connect(fd, to.get(), to.length) == 0 && send(fd, "?", 1, 0) == 1 &&
                        recv(fd, &answer, 1, 0) == 1;
  close(fd);
  return answered;
}

}  // namespace road
