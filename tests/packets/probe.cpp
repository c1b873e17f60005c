// Sends real packets and says what became of them.
//
//   tarn-probe serve NAMESPACE PORT...        echoes TCP and UDP on the ports until it is ended
//   tarn-probe table FILE                     tries every row of the table at once, prints what
//   happened tarn-probe stream NAMESPACE SOURCE DESTINATION PORT MILLISECONDS
//                                             keeps one TCP connection talking, prints how many
//                                             answers came in time and how many did not
//
// A table has one row a line, fields separated by single tabs, "#" begins a comment:
//
//   NAMESPACE  SOURCE  PROTOCOL  DESTINATION  PORT  EXPECTED  REASON
//   client     10.77.0.2  tcp  10.77.0.1  22  open  rule 1: ssh from 10.77.0.0/26
//
// PROTOCOL is tcp, udp or icmp (PORT is then "-"), EXPECTED is open or closed. NAMESPACE is a name
// under /run/netns, or "-" for the one we are in. Exit status: 0 all as expected, 1 not, 2 misuse
// or no answer possible (an address that is not there, a namespace that cannot be entered).

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kPatience{1500};      // how long a dropped packet is waited for
constexpr milliseconds kResend{400};         // datagrams are sent again after this
constexpr milliseconds kStreamAnswer{1000};  // an answer on a living connection comes within this
constexpr milliseconds kStreamPause{20};
constexpr char kPayload[] = "probe";

// What a probe found; the exit status of the process that makes it.
enum Finding { kOpen = 0, kClosed = 1, kBroken = 2 };

struct Row {
  std::string space;
  std::string source;
  std::string protocol;
  std::string destination;
  std::string port;
  std::string expected;
  std::string reason;
};

[[noreturn]] void stop(const std::string& why) {
  std::cerr << "tarn-probe: " << why << ": " << std::strerror(errno) << "\n";
  std::exit(kBroken);
}

void enter(const std::string& space) {
  if (space == "-") return;
  const std::string path = "/run/netns/" + space;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || setns(fd, CLONE_NEWNET) != 0) stop("cannot enter " + path);
  (void)close(fd);
}

struct Address {
  sockaddr_storage storage = {};
  socklen_t length = 0;
  int family() const { return storage.ss_family; }
  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

Address addressOf(const std::string& text, const std::string& port) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(text.c_str(), port.c_str(), &hints, &found) != 0) {
    errno = EINVAL;
    stop("not an address and port: " + text + " " + port);
  }
  Address address;
  std::memcpy(&address.storage, found->ai_addr, found->ai_addrlen);
  address.length = found->ai_addrlen;
  freeaddrinfo(found);
  return address;
}

// Waits for `events` until `deadline`; false when they do not come.
bool await(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    pollfd wanted = {fd, events, 0};
    const int ready = poll(&wanted, 1, static_cast<int>(std::max<long>(0, left.count())));
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) stop("poll");
  }
}

int boundSocket(const Address& source, int type, int protocol) {
  const int fd = socket(source.family(), type | SOCK_NONBLOCK | SOCK_CLOEXEC, protocol);
  if (fd < 0) stop("socket");
  if (bind(fd, source.get(), source.length) != 0) stop("cannot use the source address");
  return fd;
}

int connectTcp(const Row& row, Clock::time_point deadline) {
  const int fd = boundSocket(addressOf(row.source, "0"), SOCK_STREAM, 0);
  const Address to = addressOf(row.destination, row.port);
  if (connect(fd, to.get(), to.length) == 0) return fd;
  if (errno != EINPROGRESS) stop("connect");
  int error = ETIMEDOUT;
  socklen_t size = sizeof error;
  if (await(fd, POLLOUT, deadline) && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
      error == 0) {
    return fd;
  }
  (void)close(fd);
  errno = error;
  return -1;
}

// A refused connection would prove that the packet passed, but also that no server was there to
// pass to.
Finding tryTcp(const Row& row) {
  const int fd = connectTcp(row, Clock::now() + kPatience);
  if (fd >= 0) return kOpen;
  if (errno == ECONNREFUSED) stop("nothing listens on " + row.destination + " " + row.port);
  return kClosed;
}

// Sends `packet` until an answer comes that `isAnswer` accepts.
template <class IsAnswer>
Finding exchange(int fd, const std::vector<unsigned char>& packet, IsAnswer isAnswer) {
  const auto deadline = Clock::now() + kPatience;
  while (Clock::now() < deadline) {
    if (send(fd, packet.data(), packet.size(), 0) < 0) {
      if (errno == ECONNREFUSED) stop("nothing listens");
      stop("send");
    }
    const auto again = std::min(deadline, Clock::now() + kResend);
    while (await(fd, POLLIN, again)) {
      std::array<unsigned char, 2048> answer = {};
      const ssize_t size = recv(fd, answer.data(), answer.size(), 0);
      if (size < 0 && errno == ECONNREFUSED) stop("nothing listens");
      if (size > 0 && isAnswer(answer.data(), static_cast<std::size_t>(size))) return kOpen;
    }
  }
  return kClosed;
}

Finding tryUdp(const Row& row) {
  const int fd = boundSocket(addressOf(row.source, "0"), SOCK_DGRAM, 0);
  const Address to = addressOf(row.destination, row.port);
  if (connect(fd, to.get(), to.length) != 0) stop("connect");
  const std::vector<unsigned char> packet(std::begin(kPayload), std::end(kPayload));
  return exchange(fd, packet, [&packet](const unsigned char* data, std::size_t size) {
    return size == packet.size() && std::equal(packet.begin(), packet.end(), data);
  });
}

std::uint16_t checksum(const std::vector<unsigned char>& packet) {
  std::uint32_t sum = 0;
  for (std::size_t index = 0; index + 1 < packet.size(); index += 2) {
    sum += static_cast<std::uint32_t>(packet[index] << 8U | packet[index + 1]);
  }
  while ((sum >> 16U) != 0) sum = (sum & 0xFFFFU) + (sum >> 16U);
  return htons(static_cast<std::uint16_t>(~sum & 0xFFFFU));
}

// Echo request and reply, RFC 792 and RFC 4443: type, code, checksum, identifier, sequence number.
Finding tryIcmp(const Row& row) {
  const Address source = addressOf(row.source, "0");
  const bool ipv6 = source.family() == AF_INET6;
  const int fd = boundSocket(source, SOCK_RAW, ipv6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP});
  const Address to = addressOf(row.destination, "0");
  if (connect(fd, to.get(), to.length) != 0) stop("connect");
  const auto identifier = static_cast<std::uint16_t>(getpid());
  std::vector<unsigned char> packet(16, 0);
  packet[0] = ipv6 ? ICMP6_ECHO_REQUEST : ICMP_ECHO;
  std::memcpy(&packet[4], &identifier, sizeof identifier);
  if (!ipv6) {  // the kernel fills the checksum of ICMPv6 in
    const std::uint16_t sum = checksum(packet);
    std::memcpy(&packet[2], &sum, sizeof sum);
  }
  return exchange(fd, packet, [=](const unsigned char* data, std::size_t size) {
    const std::size_t header = ipv6 ? 0 : static_cast<std::size_t>(data[0] & 0x0FU) * 4;
    const unsigned char reply = ipv6 ? ICMP6_ECHO_REPLY : ICMP_ECHOREPLY;
    return size >= header + 8 && data[header] == reply &&
           std::memcmp(data + header + 4, &identifier, sizeof identifier) == 0;
  });
}

Finding attempt(const Row& row) {
  enter(row.space);
  if (row.protocol == "tcp") return tryTcp(row);
  if (row.protocol == "udp") return tryUdp(row);
  if (row.protocol == "icmp") return tryIcmp(row);
  errno = EINVAL;
  stop("unknown protocol " + row.protocol);
}

std::vector<Row> readTable(const std::string& file) {
  std::ifstream in(file);
  if (!in) stop("cannot read " + file);
  std::vector<Row> rows;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    Row row;
    for (std::string* field :
         {&row.space, &row.source, &row.protocol, &row.destination, &row.port, &row.expected}) {
      std::getline(fields, *field, '\t');
    }
    std::getline(fields, row.reason);
    if (row.expected != "open" && row.expected != "closed") {
      errno = EINVAL;
      stop("in " + file + ", \"" + line + "\" expects neither open nor closed");
    }
    rows.push_back(row);
  }
  return rows;
}

std::string targetOf(const Row& row) {
  return row.protocol == "icmp" ? row.destination + " echo" : row.destination + " " + row.port;
}

const char* wordFor(int status) {
  if (!WIFEXITED(status)) return "crashed";
  switch (WEXITSTATUS(status)) {
    case kOpen:
      return "open";
    case kClosed:
      return "closed";
    default:
      return "error";
  }
}

int runTable(const std::string& file) {
  const std::vector<Row> rows = readTable(file);
  std::vector<pid_t> children;
  for (const Row& row : rows) {
    const pid_t child = fork();
    if (child < 0) stop("fork");
    if (child == 0) _exit(attempt(row));
    children.push_back(child);
  }
  std::size_t disagreements = 0;
  std::printf("%-8s %-10s %-8s %-15s %-8s %-8s %-4s %s\n", "from", "source", "protocol", "to",
              "profile", "happened", "", "because");
  for (std::size_t index = 0; index < rows.size(); ++index) {
    int status = 0;
    while (waitpid(children[index], &status, 0) < 0 && errno == EINTR) {
    }
    const Row& row = rows[index];
    const std::string happened = wordFor(status);
    const bool agrees = happened == row.expected;
    if (!agrees) ++disagreements;
    std::printf("%-8s %-10s %-8s %-15s %-8s %-8s %-4s %s\n", row.space.c_str(), row.source.c_str(),
                row.protocol.c_str(), targetOf(row).c_str(), row.expected.c_str(), happened.c_str(),
                agrees ? "ok" : "NO", row.reason.c_str());
  }
  std::printf("%zu of %zu packets did what the profile says\n", rows.size() - disagreements,
              rows.size());
  return disagreements == 0 && !rows.empty() ? 0 : 1;
}

int listener(int type, const std::string& port) {
  const Address any = addressOf("::", port);
  const int fd = socket(AF_INET6, type | SOCK_CLOEXEC, 0);
  if (fd < 0) stop("socket");
  const int on = 1;
  const int off = 0;
  (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  (void)setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  if (bind(fd, any.get(), any.length) != 0) stop("cannot listen on " + port);
  if (type == SOCK_STREAM && listen(fd, SOMAXCONN) != 0) stop("listen");
  return fd;
}

void echoDatagram(int fd) {
  std::array<char, 2048> data = {};
  Address from;
  from.length = sizeof from.storage;
  const ssize_t size = recvfrom(fd, data.data(), data.size(), 0,
                                reinterpret_cast<sockaddr*>(&from.storage), &from.length);
  if (size >= 0)
    (void)sendto(fd, data.data(), static_cast<std::size_t>(size), 0, from.get(), from.length);
}

int serve(const std::vector<std::string>& words) {
  enter(words[0]);
  std::vector<pollfd> watched;
  for (std::size_t index = 1; index < words.size(); ++index) {
    watched.push_back({listener(SOCK_STREAM, words[index]), POLLIN, 0});
    watched.push_back({listener(SOCK_DGRAM, words[index]), POLLIN, 0});
  }
  const std::size_t listeners = watched.size();
  std::cout << "ready" << std::endl;
  (void)std::signal(SIGPIPE, SIG_IGN);
  for (;;) {
    if (poll(watched.data(), watched.size(), -1) < 0 && errno != EINTR) stop("poll");
    for (std::size_t index = watched.size(); index-- > 0;) {
      if (watched[index].revents == 0) continue;
      const int fd = watched[index].fd;
      if (index >= listeners) {  // a connection
        std::array<char, 2048> data = {};
        const ssize_t size = recv(fd, data.data(), data.size(), 0);
        if (size > 0 && send(fd, data.data(), static_cast<std::size_t>(size), 0) == size) continue;
        (void)close(fd);
        watched.erase(watched.begin() + static_cast<std::ptrdiff_t>(index));
      } else if (index % 2 == 0) {
        const int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection >= 0) watched.push_back({connection, POLLIN, 0});
      } else {
        echoDatagram(fd);
      }
    }
  }
}

int stream(const std::vector<std::string>& words) {
  Row row;
  row.space = words[0];
  row.source = words[1];
  row.destination = words[2];
  row.port = words[3];
  enter(row.space);
  const int fd = connectTcp(row, Clock::now() + kPatience);
  if (fd < 0) stop("cannot connect to " + row.destination);
  std::cout << "connected" << std::endl;
  const auto end = Clock::now() + milliseconds(std::stol(words[4]));
  int answered = 0;
  int lost = 0;
  while (Clock::now() < end) {
    if (send(fd, kPayload, sizeof kPayload, MSG_NOSIGNAL) < 0) stop("send");
    std::array<char, 64> data = {};
    const bool answer = await(fd, POLLIN, Clock::now() + kStreamAnswer) &&
                        recv(fd, data.data(), data.size(), 0) > 0;
    ++(answer ? answered : lost);
    (void)poll(nullptr, 0, static_cast<int>(kStreamPause.count()));
  }
  std::cout << answered << " answered, " << lost << " lost" << std::endl;
  return lost == 0 && answered > 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const std::string verb = words.empty() ? "" : words[0];
  const std::vector<std::string> rest(words.begin() + (words.empty() ? 0 : 1), words.end());
  if (verb == "serve" && rest.size() >= 2) return serve(rest);
  if (verb == "table" && rest.size() == 1) return runTable(rest[0]);
  if (verb == "stream" && rest.size() == 5) return stream(rest);
  std::cerr << "usage: tarn-probe serve NAMESPACE PORT... | table FILE | stream NAMESPACE SOURCE "
               "DESTINATION PORT MILLISECONDS\n";
  return kBroken;
}
