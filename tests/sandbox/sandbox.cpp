// tarn-sandbox: runs a command as root in a root directory and in namespaces of its own.
//
//   tarn-sandbox [--backend nft|legacy] [--tool PROGRAM] [--network] [--keep PATH]...
//                [--] COMMAND [ARG...]
//
// The command sees the machine's directories as they are, except for
//   empty   /usr/tarn/etc/firewall.d, /usr/tarn/etc.defaults, /etc.defaults, /usr/share/xt_geoip,
//           /tmp, /var/tmp, /run, and /var/lock, which leads to /run/lock
//   copied  /etc
//   fresh   /proc, /sys, /dev; /dev/log is a socket whose messages become lines of /run/syslog
// all of which it can write and which vanish with it. The working directory, the command's program
// and whatever --keep names stay visible when they lie in one of the empty directories. The network
// holds lo and nothing else, unless --network adds the links listed at kLinks. The file
// /run/tarn-sandbox tells a program that it runs here.
//
// Exit status: the command's, 128 + n when signal n ended it, 127 or 126 when it is not there or
// cannot be run, 125 when the sandbox could not be made.

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/sendfile.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kSandboxFailed = 125;
constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;

constexpr char kUsage[] =
    "Usage: tarn-sandbox [--backend nft|legacy] [--tool PROGRAM] [--network] [--keep PATH]...\n"
    "                    [--] COMMAND [ARG...]\n"
    "Runs COMMAND as root in a private root directory and private namespaces.\n"
    "  --backend nft|legacy  which variant /sbin/iptables and /sbin/ip6tables are\n"
    "  --tool PROGRAM        run PROGRAM as /sbin/iptables and /sbin/ip6tables\n"
    "  --network             add eth0, eth1, tun0, tun1000 and the namespaces client, lan, road\n"
    "  --keep PATH           keep PATH visible although it lies in /tmp, /run or /usr/tarn\n";

// Where the machine's own root directory is while the new one is put together.
constexpr char kMachine[] = "/.machine";

struct Options {
  std::string backend;
  std::string tool;
  bool network = false;
  std::vector<std::string> keep;
  char** command = nullptr;
};

[[noreturn]] void stop(const std::string& what) {
  (void)std::fprintf(stderr, "tarn-sandbox: %s\n", what.c_str());
  std::exit(kSandboxFailed);
}

[[noreturn]] void stopWithErrno(const std::string& what) {
  const int error = errno;
  stop(what + ": " + std::strerror(error));
}

void require(bool done, const std::string& what) {
  if (!done) stopWithErrno(what);
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};

// --- options ---

std::string absolute(const std::string& path) {
  std::array<char, PATH_MAX> resolved;
  require(realpath(path.c_str(), resolved.data()) != nullptr, path);
  return resolved.data();
}

Options parse(int argc, char** argv) {
  Options options;
  int i = 1;
  const auto value = [&](std::string_view option) -> std::string {
    if (++i >= argc) stop(std::string(option) + " needs a value\n" + kUsage);
    return argv[i];
  };
  for (; i < argc && argv[i][0] == '-'; ++i) {
    const std::string_view option = argv[i];
    if (option == "--") {
      ++i;
      break;
    }
    if (option == "--help") {
      (void)std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (option == "--backend") {
      options.backend = value(option);
      if (options.backend != "nft" && options.backend != "legacy")
        stop("--backend is nft or legacy, not " + options.backend);
    } else if (option == "--tool") {
      options.tool = absolute(value(option));
      options.keep.push_back(options.tool);
    } else if (option == "--network") {
      options.network = true;
    } else if (option == "--keep") {
      options.keep.push_back(absolute(value(option)));
    } else {
      stop("unknown option " + std::string(option) + "\n" + kUsage);
    }
  }
  if (i >= argc) stop(std::string("no command\n") + kUsage);
  options.command = argv + i;
  return options;
}

std::string workingDirectory() {
  std::array<char, PATH_MAX> path;
  require(getcwd(path.data(), path.size()) != nullptr, "working directory");
  return path.data();
}

// --- the root directory ---

void makeDirectory(const std::string& path, mode_t mode) {
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1))
    (void)mkdir(path.substr(0, slash).c_str(), 0755);
  require(mkdir(path.c_str(), mode) == 0 || errno == EEXIST, path);
  require(chmod(path.c_str(), mode) == 0, path);
}

void makeLink(const std::string& target, const std::string& path) {
  (void)unlink(path.c_str());
  require(symlink(target.c_str(), path.c_str()) == 0, path);
}

void makeFile(const std::string& path) {
  require(Descriptor(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)).valid(), path);
}

std::string linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> target;
  const ssize_t length = readlink(path.c_str(), target.data(), target.size());
  require(length >= 0, path);
  return {target.data(), static_cast<std::size_t>(length)};
}

// The names in a directory; none when it cannot be read.
std::vector<std::string> entries(const std::string& path) {
  std::vector<std::string> names;
  DIR* const directory = opendir(path.c_str());
  if (directory == nullptr) return names;
  while (const dirent* const entry = readdir(directory)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(directory);
  return names;
}

// Makes `path` what it is on the machine, when it is there.
void show(const std::string& path) {
  const std::string source = kMachine + path;
  struct stat status;
  if (lstat(source.c_str(), &status) != 0) return;
  if (S_ISLNK(status.st_mode)) {
    makeLink(linkTarget(source), path);
    return;
  }
  if (S_ISDIR(status.st_mode))
    makeDirectory(path, status.st_mode & ALLPERMS);
  else
    makeFile(path);
  require(mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0,
          "bind " + path);
}

void showEntries(const std::string& path, const std::vector<std::string>& leaveOut) {
  makeDirectory(path, 0755);
  const std::string prefix = path == "/" ? path : path + "/";
  for (const std::string& name : entries(kMachine + path))
    if (std::find(leaveOut.begin(), leaveOut.end(), name) == leaveOut.end()) show(prefix + name);
}

// Binds in the first component of `path` that the new root does not have.
void keepVisible(const std::string& path) {
  std::size_t end = 0;
  while (end < path.size()) {
    end = std::min(path.find('/', end + 1), path.size());
    const std::string prefix = path.substr(0, end);
    if (prefix == "/" || access(prefix.c_str(), F_OK) == 0) continue;
    show(prefix);
    return;
  }
}

void copyFile(const std::string& from, const std::string& to, const struct stat& status) {
  const Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor target(open(to.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  require(source.valid(), from);
  require(target.valid(), to);
  ssize_t copied = 1;
  while (copied > 0)
    copied =
        sendfile(target.get(), source.get(), nullptr, static_cast<std::size_t>(status.st_size) + 1);
  require(copied == 0, "copy " + from);
  require(fchown(target.get(), status.st_uid, status.st_gid) == 0, to);
  require(fchmod(target.get(), status.st_mode & ALLPERMS) == 0, to);
}

void copyEntries(const std::string& path);

// Copies a directory with all below it, a file or a symbolic link; other things stay out.
void copy(const std::string& path) {
  const std::string source = kMachine + path;
  struct stat status;
  if (lstat(source.c_str(), &status) != 0) return;
  if (S_ISLNK(status.st_mode)) {
    makeLink(linkTarget(source), path);
  } else if (S_ISREG(status.st_mode)) {
    copyFile(source, path, status);
  } else if (S_ISDIR(status.st_mode)) {
    makeDirectory(path, status.st_mode & ALLPERMS);
    require(chown(path.c_str(), status.st_uid, status.st_gid) == 0, path);
    copyEntries(path);
  }
}

void copyEntries(const std::string& path) {
  const std::string prefix = path + "/";
  for (const std::string& name : entries(kMachine + path)) copy(prefix + name);
}

void makeDevices() {
  makeDirectory("/dev/shm", 01777);
  makeDirectory("/dev/pts", 0755);
  makeDirectory("/dev/net", 0755);
  for (const char* device : {"null", "zero", "full", "random", "urandom", "tty", "net/tun"})
    show(std::string("/dev/") + device);
  // A terminal device of the machine would otherwise be one write away.
  require(mount("devpts", "/dev/pts", "devpts", MS_NOSUID | MS_NOEXEC,
                "newinstance,ptmxmode=0666,mode=0620") == 0,
          "mount /dev/pts");
  makeLink("pts/ptmx", "/dev/ptmx");
  makeLink("/proc/self/fd", "/dev/fd");
  makeLink("fd/0", "/dev/stdin");
  makeLink("fd/1", "/dev/stdout");
  makeLink("fd/2", "/dev/stderr");
}

// From here on "/" is an empty tmpfs and the machine is at kMachine. pivot_root uncovers the
// directory that the tmpfs was mounted on, so /tmp is among what can be bound in again.
void enterEmptyRoot() {
  require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
  require(mount("tarn-sandbox", "/tmp", "tmpfs", 0, "mode=0755") == 0, "mount tmpfs");
  makeDirectory(std::string("/tmp") + kMachine, 0755);
  require(syscall(SYS_pivot_root, "/tmp", (std::string("/tmp") + kMachine).c_str()) == 0,
          "pivot_root");
  require(chdir("/") == 0, "/");
}

// Debian's /sbin/iptables goes through /etc/alternatives, which is a copy here.
//   program      "iptables-nft", "ip6tables-nft-save"
//   alternative  "iptables", "ip6tables-save"
void choose(const std::string& program, const std::string& alternative) {
  const std::string target = "/usr/sbin/" + program;
  const std::string link = "/etc/alternatives/" + alternative;
  require(access(target.c_str(), X_OK) == 0, target);
  require(access(link.c_str(), F_OK) == 0, link);
  makeLink(target, link);
}

void chooseBackend(const std::string& backend) {
  const std::string suffix = "-" + backend;
  for (const std::string family : {"iptables", "ip6tables"}) {
    const std::string program = family + suffix;
    choose(program, family);
    choose(program + "-save", family + "-save");
    choose(program + "-restore", family + "-restore");
  }
}

// Gives the directory of /sbin a version of our own that has `tool` under the names of both tools.
// Mounting it over them would cover what they are symbolic links to.
void putTool(const std::string& tool) {
  const std::string directory = absolute("/sbin");
  require(umount2(directory.c_str(), MNT_DETACH) == 0, "unmount " + directory);
  showEntries(directory, {"iptables", "ip6tables"});
  makeLink(tool, directory + "/iptables");
  makeLink(tool, directory + "/ip6tables");
}

void makeRoot(const Options& options, const std::string& directory) {
  const mode_t mask = umask(0);
  enterEmptyRoot();
  showEntries(
      "/", {kMachine + 1, "dev", "etc", "etc.defaults", "proc", "run", "sys", "tmp", "usr", "var"});
  showEntries("/usr", {"share", "tarn"});
  showEntries("/usr/share", {"xt_geoip"});
  showEntries("/var", {"lock", "run", "tmp"});

  makeDirectory("/usr/tarn/etc/firewall.d", 0755);
  makeDirectory("/usr/tarn/etc.defaults", 0755);
  makeDirectory("/usr/share/xt_geoip", 0755);
  makeDirectory("/etc.defaults", 0755);
  makeDirectory("/etc", 0755);
  copyEntries("/etc");
  makeDirectory("/tmp", 01777);
  makeDirectory("/run/lock", 01777);
  makeDirectory("/var/tmp", 01777);
  makeLink("/run/lock", "/var/lock");
  makeLink("/run", "/var/run");
  makeFile("/run/tarn-sandbox");
  makeDevices();
  makeDirectory("/proc", 0555);
  makeDirectory("/sys", 0555);
  require(mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
          "mount /proc");
  require(mount("sysfs", "/sys", "sysfs", MS_NOSUID | MS_NODEV | MS_NOEXEC, nullptr) == 0,
          "mount /sys");

  for (const std::string& path : options.keep) keepVisible(path);
  if (!options.backend.empty()) chooseBackend(options.backend);
  if (!options.tool.empty()) putTool(options.tool);

  require(umount2(kMachine, MNT_DETACH) == 0, "unmount the machine");
  require(rmdir(kMachine) == 0, kMachine);
  require(chdir(directory.c_str()) == 0, directory);
  (void)umask(mask);
}

// --- the network ---

// The indexes are none that the other ends get: the kernel reports a change of a link whose both
// ends have the same index up to a second late, and until then it sends nothing.
constexpr char kLinks[] = R"(
netns add client
netns add lan
netns add road
link add eth0 index 10 type veth peer name c0 netns client
link add eth1 index 11 type veth peer name d0 netns lan
link add tun0 index 12 type veth peer name t0 netns road
link add tun1000 index 13 type veth peer name t1000 netns road
address add 10.77.0.1/24 dev eth0
address add fd77::1/64 dev eth0
address add 10.78.0.1/24 dev eth1
address add fd78::1/64 dev eth1
address add 10.79.0.1/24 dev tun0
link set eth0 up
link set eth1 up
link set tun0 up
)";

struct Neighbour {
  const char* name;
  const char* link;
  const char* commands;
};

constexpr std::array<Neighbour, 3> kNeighbours = {{
    {"client", "c0", R"(
link set lo up
address add 10.77.0.2/24 dev c0
address add fd77::2/64 dev c0
link set c0 up
route add default via 10.77.0.1
route add ::/0 via fd77::1
)"},
    {"lan", "d0", R"(
link set lo up
address add 10.78.0.2/24 dev d0
address add fd78::2/64 dev d0
link set d0 up
route add default via 10.78.0.1
route add ::/0 via fd78::1
)"},
    {"road", "t0", R"(
link set lo up
address add 10.79.0.2/24 dev t0
link set t0 up
route add default via 10.79.0.1
)"},
}};

void writeSetting(const std::string& name, const char* value) {
  const std::string path = "/proc/sys/net/" + name;
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  require(file.valid() && write(file.get(), value, std::strlen(value)) > 0, path);
}

// Makes IPv6 addresses usable at once: duplicate address detection holds each back for a second.
//   link  an interface, or "default": those that will be made
void disableAddressDetection(const std::string& link) {
  writeSetting("ipv6/conf/all/accept_dad", "0");
  writeSetting("ipv6/conf/" + link + "/accept_dad", "0");
}

void loopbackUp() {
  const Descriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq request = {};
  std::memcpy(request.ifr_name, "lo", sizeof "lo");
  require(ioctl(any.get(), SIOCGIFFLAGS, &request) == 0, "lo");
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  require(ioctl(any.get(), SIOCSIFFLAGS, &request) == 0, "lo");
}

// Replaces this process by "ip", which carries out `commands`.
[[noreturn]] void becomeIp(const char* commands) {
  const Descriptor text(memfd_create("ip commands", MFD_CLOEXEC));
  const auto length = static_cast<ssize_t>(std::strlen(commands));
  require(write(text.get(), commands, static_cast<std::size_t>(length)) == length, "ip commands");
  require(lseek(text.get(), 0, SEEK_SET) == 0 && dup2(text.get(), STDIN_FILENO) == STDIN_FILENO,
          "ip commands");
  execl("/bin/ip", "ip", "-batch", "-", nullptr);
  stopWithErrno("--network needs /bin/ip (package iproute2)");
}

void waitFor(pid_t process, const std::string& what) {
  int status = 0;
  require(process > 0 && waitpid(process, &status, 0) == process, what);
  if (status != 0) stop(what + " failed");
}

void makeNeighbour(const Neighbour& neighbour) {
  const pid_t process = fork();
  if (process == 0) {
    const std::string path = std::string("/run/netns/") + neighbour.name;
    const Descriptor space(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    require(setns(space.get(), CLONE_NEWNET) == 0, path);
    disableAddressDetection(neighbour.link);
    becomeIp(neighbour.commands);
  }
  waitFor(process, std::string("the network of ") + neighbour.name);
}

void makeNetwork() {
  disableAddressDetection("default");
  writeSetting("ipv4/ip_forward", "1");
  writeSetting("ipv6/conf/all/forwarding", "1");
  // The neighbours' interfaces appear while theirs is still to be switched off, but they are down
  // until then.
  const pid_t process = fork();
  if (process == 0) becomeIp(kLinks);
  waitFor(process, "the network");
  for (const Neighbour& neighbour : kNeighbours) makeNeighbour(neighbour);
}

// --- the system log ---

constexpr char kSyslogFile[] = "/run/syslog";

Descriptor openSyslogSocket() {
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, "/dev/log", sizeof "/dev/log");
  require(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "/dev/log");
  require(chmod("/dev/log", 0666) == 0, "/dev/log");
  makeFile(kSyslogFile);
  return Descriptor(fd);
}

// One message is one line, as a system log daemon writes it.
std::string asLine(std::string_view message) {
  while (!message.empty() && (message.back() == '\0' || message.back() == '\n'))
    message.remove_suffix(1);
  std::string line;
  for (const char c : message) {
    if (c == '\n')
      line += "#012";
    else
      line += c;
  }
  return line + "\n";
}

void receiveSyslog(const Descriptor& log) {
  static std::array<char, 65536> buffer;
  const Descriptor file(open(kSyslogFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  ssize_t length = 0;
  while ((length = recv(log.get(), buffer.data(), buffer.size(), 0)) >= 0) {
    const std::string line = asLine({buffer.data(), static_cast<std::size_t>(length)});
    if (write(file.get(), line.data(), line.size()) < 0) return;
  }
}

// --- the processes ---

int exitStatus(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

pid_t startCommand(char** command, const sigset_t& mask) {
  const pid_t process = fork();
  require(process >= 0, "fork");
  if (process > 0) return process;
  (void)sigprocmask(SIG_SETMASK, &mask, nullptr);
  execvp(command[0], command);
  const int status = errno == ENOENT ? kNotFound : kCannotRun;
  (void)std::fprintf(stderr, "tarn-sandbox: %s: %s\n", command[0], std::strerror(errno));
  _exit(status);
}

// Reaps what has ended. Answers whether `command` is among it, and its wait status.
bool reap(pid_t command, int& commandStatus) {
  bool ended = false;
  int status = 0;
  pid_t process = 0;
  while ((process = waitpid(-1, &status, WNOHANG)) > 0) {
    if (process != command) continue;
    ended = true;
    commandStatus = status;
  }
  return ended;
}

// Process 1: makes the sandbox, runs the command, receives the system log and reaps orphans. When
// it ends, the kernel kills what is left and drops mounts and namespaces. `lifeline` reads end of
// file once the process outside is gone.
[[noreturn]] void runInside(const Options& options, const std::string& directory,
                            const Descriptor& lifeline) {
  makeRoot(options, directory);
  loopbackUp();
  if (options.network) makeNetwork();
  const Descriptor log = openSyslogSocket();

  sigset_t childEnds;
  sigset_t before;
  (void)sigemptyset(&childEnds);
  (void)sigaddset(&childEnds, SIGCHLD);
  require(sigprocmask(SIG_BLOCK, &childEnds, &before) == 0, "sigprocmask");
  const Descriptor signals(signalfd(-1, &childEnds, SFD_CLOEXEC | SFD_NONBLOCK));
  require(signals.valid(), "signalfd");
  const pid_t command = startCommand(options.command, before);

  std::array<pollfd, 3> events = {
      {{signals.get(), POLLIN, 0}, {log.get(), POLLIN, 0}, {lifeline.get(), POLLIN, 0}}};
  for (;;) {
    if (poll(events.data(), events.size(), -1) < 0 && errno != EINTR) stopWithErrno("poll");
    if (events[2].revents != 0) std::exit(kSandboxFailed);
    receiveSyslog(log);
    signalfd_siginfo signal;
    while (read(signals.get(), &signal, sizeof signal) > 0) continue;
    int status = 0;
    if (!reap(command, status)) continue;
    receiveSyslog(log);
    std::exit(exitStatus(status));
  }
}

[[noreturn]] void run(const Options& options, const std::string& directory) {
  std::array<int, 2> ends;
  require(pipe2(ends.data(), O_CLOEXEC) == 0, "pipe");
  const Descriptor lifeline(ends[0]);
  Descriptor heldByUs(ends[1]);
  require(unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWUTS) == 0,
          "unshare");
  const pid_t inside = fork();
  require(inside >= 0, "fork");
  if (inside == 0) {
    heldByUs.close();
    runInside(options, directory, lifeline);
  }
  // The terminal's signals are for the command; its end is ours.
  (void)std::signal(SIGINT, SIG_IGN);
  (void)std::signal(SIGQUIT, SIG_IGN);
  int status = 0;
  while (waitpid(inside, &status, 0) < 0) require(errno == EINTR, "waitpid");
  // Without the handlers of exit(): a leak checker's would start a thread, and since process 1 of
  // its process namespace has ended, this process can start none.
  _exit(exitStatus(status));
}

}  // namespace

int main(int argc, char** argv) {
  Options options = parse(argc, argv);
  if (geteuid() != 0) stop("needs root: it mounts file systems and makes namespaces");
  const std::string directory = workingDirectory();
  options.keep.push_back(directory);
  options.keep.push_back(absolute("/proc/self/exe"));
  if (std::strchr(options.command[0], '/') != nullptr && access(options.command[0], F_OK) == 0)
    options.keep.push_back(absolute(options.command[0]));
  run(options, directory);
}
