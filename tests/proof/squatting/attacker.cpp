#include "attacker.h"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "testFiles.h"

namespace squatting {
namespace {

namespace fs = std::filesystem;

constexpr char kVictims[] = "/etc/victims";
constexpr char kOwnDirectory[] = "/tmp/attacker";

void makeFile(const std::string& path, mode_t mode, uid_t owner) {
  // What is believed must not be: it reads as the record of loaded modules.
  files::write(path, "proof=\"yes\"\nfirewall=\"yes\"\n");
  ASSERT_EQ(0, chown(path.c_str(), owner, owner));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

void becomeAttacker() {
  if (setgroups(0, nullptr) != 0 || setresgid(kAttacker, kAttacker, kAttacker) != 0 ||
      setresuid(kAttacker, kAttacker, kAttacker) != 0) {
    _exit(EPERM);
  }
  (void)umask(0);
}

// --- the kinds of squat; each runs as the attacker ---

int file(const char* path, mode_t mode) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return -1;
  constexpr char kText[] = "proof=\"yes\"\nfirewall=\"yes\"\n";
  const bool written = write(fd, kText, sizeof kText - 1) == sizeof kText - 1;
  return close(fd) == 0 && written ? 0 : -1;
}

int socketAt(const char* path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  (void)std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  const int result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int error = errno;
  (void)close(fd);
  errno = error;
  return result;
}

// A directory that holds a way to every victim, under the names that root's files have.
int trap(const char* path) {
  if (mkdir(path, 0777) != 0) return -1;
  const std::string directory = std::string(path) + "/";
  for (const char* name : {"firewall_settings.json.lock", "iptables_serv_mod_list.lock"}) {
    if (symlink("/etc/victims/readable", (directory + name).c_str()) != 0) return -1;
  }
  return symlink("/etc/victims/nologin", (directory + "1.json.lock").c_str()) != 0 ||
                 mkfifo((directory + "..lock").c_str(), 0666) != 0
             ? -1
             : 0;
}

// Not the links, whose number falls when root takes one away.
std::string numbers(const struct stat& status) {
  std::array<char, 160> text;
  (void)std::snprintf(text.data(), text.size(), " %lu: %o %u %u, %ld bytes, %ld.%09ld",
                      static_cast<unsigned long>(status.st_ino), status.st_mode, status.st_uid,
                      status.st_gid, static_cast<long>(status.st_size),
                      static_cast<long>(status.st_mtim.tv_sec), status.st_mtim.tv_nsec);
  return text.data();
}

}  // namespace

// clang-format off
const std::vector<Squat>& squats() {
  static const std::vector<Squat> kAll = {
      {"File", [](const char* path) { return file(path, 0644); }, false},
      {"FileOpenToAll", [](const char* path) { return file(path, 0666); }, false},
      {"FileOpenToNobody", [](const char* path) { return file(path, 0); }, false},
      {"SetUserIdFile", [](const char* path) { return file(path, 04755); }, false},
      {"LinkToAFile", [](const char* path) { return symlink("/etc/victims/readable", path); }, false},
      {"LinkToASecretFile", [](const char* path) { return symlink("/etc/victims/secret", path); }, false},
      {"LinkToHisOwnFile", [](const char* path) { return symlink("/tmp/attacker/own", path); }, false},
      {"LinkToADirectory", [](const char* path) { return symlink("/etc/victims/directory", path); }, false},
      {"LinkToHisOwnDirectory", [](const char* path) { return symlink("/tmp/attacker", path); }, false},
      {"LinkToAFifo", [](const char* path) { return symlink("/etc/victims/fifo", path); }, false},
      {"DanglingLink", [](const char* path) { return symlink("/etc/victims/nologin", path); }, false},
      {"DanglingLinkToHisDirectory", [](const char* path) { return symlink("/tmp/attacker/made", path); }, false},
      {"LinkToItself", [](const char* path) { return symlink(path, path); }, false},
      {"HardLink", [](const char* path) { return link("/etc/victims/readable", path); }, true},
      {"HardLinkToASecretFile", [](const char* path) { return link("/etc/victims/secret", path); }, true},
      {"HardLinkToAnOpenFile", [](const char* path) { return link("/etc/victims/open", path); }, false},
      {"HardLinkToHisOwnFile", [](const char* path) { return link("/tmp/attacker/own", path); }, false},
      {"Fifo", [](const char* path) { return mkfifo(path, 0666); }, false},
      {"Socket", socketAt, false},
      {"Directory", [](const char* path) { return mkdir(path, 0755); }, false},
      {"DirectoryFullOfTraps", trap, false},
  };
  return kAll;
}
// clang-format on

const Squat& squatOf(const char* name) {
  for (const Squat& squat : squats()) {
    if (std::strcmp(squat.name, name) == 0) return squat;
  }
  std::abort();  // a test that asks for what there is not
}

void makeVictims() {
  fs::remove_all(kVictims);
  fs::remove_all(kOwnDirectory);
  for (const char* directory : {kVictims, "/etc/victims/directory", kOwnDirectory}) {
    fs::create_directory(directory);
    ASSERT_EQ(0, chmod(directory, 0755));
  }
  makeFile("/etc/victims/readable", 0644, 0);
  makeFile("/etc/victims/secret", 0600, 0);
  makeFile("/etc/victims/open", 0666, 0);
  makeFile("/tmp/attacker/own", 0644, kAttacker);
  ASSERT_EQ(0, mkfifo("/etc/victims/fifo", 0644));
  ASSERT_EQ(0, chown(kOwnDirectory, kAttacker, kAttacker));
}

std::string victims() { return description(kVictims) + description(kOwnDirectory); }

std::string description(const std::string& path) {
  struct stat status = {};
  if (lstat(path.c_str(), &status) != 0) return path + ": " + std::strerror(errno) + "\n";
  std::string text = path + numbers(status);
  if (S_ISLNK(status.st_mode)) text += " -> " + fs::read_symlink(path).string();
  if (S_ISREG(status.st_mode)) text += "\n" + files::read(path);
  text += "\n";
  if (!S_ISDIR(status.st_mode)) return text;
  const std::string prefix = path + "/";
  for (const std::string& name : files::list(path)) text += description(prefix + name);
  return text;
}

Kept::Kept(const char* path) : fd_(open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC)) {}

Kept::~Kept() {
  if (fd_ >= 0) close(fd_);
}

std::string Kept::description() const {
  struct stat status = {};
  if (fd_ < 0 || fstat(fd_, &status) != 0) return "nothing";
  const std::string path = "/proc/self/fd/" + std::to_string(fd_);
  std::string text = numbers(status) + "\n";
  if (S_ISREG(status.st_mode)) text += files::read(path);
  if (!S_ISDIR(status.st_mode)) return text;
  const std::string prefix = path + "/";
  for (const std::string& name : files::list(path)) text += squatting::description(prefix + name);
  return text;
}

int asAttacker(const std::function<int()>& work) {
  const pid_t process = fork();
  if (process == 0) {
    becomeAttacker();
    _exit(work() == 0 ? 0 : errno);
  }
  int status = 0;
  if (waitpid(process, &status, 0) != process || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

Attack Attack::holding(const std::function<int()>& work) {
  return {work, [] { pause(); }};
}

Attack Attack::repeating(const std::function<void()>& work) {
  return {[] { return 0; }, work};
}

Attack::Attack(const std::function<int()>& prepare, const std::function<void()>& work) {
  std::array<int, 2> ends = {-1, -1};
  EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
  process_ = fork();
  if (process_ == 0) {
    becomeAttacker();
    const int error = prepare() == 0 ? 0 : errno;
    if (write(ends[1], &error, sizeof error) != sizeof error) _exit(1);
    for (;;) work();
  }
  close(ends[1]);
  EXPECT_EQ(static_cast<ssize_t>(sizeof error_), read(ends[0], &error_, sizeof error_));
  close(ends[0]);
}

Attack::~Attack() {
  if (process_ < 0) return;
  (void)kill(process_, SIGKILL);
  (void)waitpid(process_, nullptr, 0);
}

}  // namespace squatting
