#include "disk.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace disk {
namespace {

constexpr char kControl[] = "/dev/loop-control";
constexpr unsigned int kMisc = 10;  // the kernel's device numbers
constexpr unsigned int kLoopControl = 237;
constexpr unsigned int kLoop = 7;
constexpr off_t kBytes = 8L * 1024 * 1024;  // of an image
constexpr int kAttempts = 20;               // another process may take the free device first

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) (void)close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }

 private:
  int fd_;
};

// The sandbox's own /dev has no loop devices; root may make them.
int openControl() {
  (void)mknod(kControl, S_IFCHR | 0600, makedev(kMisc, kLoopControl));
  return open(kControl, O_RDWR | O_CLOEXEC);
}

// Opens a free loop device and has it show `image`; it is given back when nobody uses it any more.
// -1 with errno when there is none.
int attach(int image, std::string& path) {
  const Descriptor control(openControl());
  if (!control.valid()) return -1;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const int number = ioctl(control.get(), LOOP_CTL_GET_FREE);
    if (number < 0) return -1;
    path = "/dev/loop" + std::to_string(number);
    (void)mknod(path.c_str(), S_IFBLK | 0600, makedev(kLoop, static_cast<unsigned int>(number)));
    const int device = open(path.c_str(), O_RDWR | O_CLOEXEC);
    if (device < 0) return -1;
    loop_config config = {};
    config.fd = static_cast<std::uint32_t>(image);
    config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
    if (ioctl(device, LOOP_CONFIGURE, &config) == 0) return device;
    const int error = errno;
    (void)close(device);
    errno = error;
    if (error != EBUSY) return -1;
  }
  return -1;
}

}  // namespace

std::string whyNone(const std::string& image, const std::string& directory,
                    const std::string& options) {
  const Descriptor control(openControl());
  if (!control.valid()) return std::string(kControl) + ": " + std::strerror(errno);
  if (ioctl(control.get(), LOOP_CTL_GET_FREE) < 0) {
    return std::string("no free loop device: ") + std::strerror(errno);
  }
  if (!make(image)) return "mkfs.ext4 makes no file system";
  errno = 0;
  const Mounted tried(image, directory, options);
  return tried.done() ? "" : std::string("no ext4 on a loop device: ") + std::strerror(errno);
}

Mounted::Mounted(const std::string& image, const std::string& directory, const std::string& options)
    : directory_(directory) {
  const Descriptor file(open(image.c_str(), O_RDWR | O_CLOEXEC));
  std::string path;
  const Descriptor device(file.valid() ? attach(file.get(), path) : -1);
  done_ = device.valid() && mount(path.c_str(), directory.c_str(), "ext4", 0, options.c_str()) == 0;
}

Mounted::~Mounted() {
  if (done_) (void)umount(directory_.c_str());
}

bool make(const std::string& image) {
  const Descriptor file(open(image.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file.valid() || ftruncate(file.get(), kBytes) != 0) return false;
  const pid_t process = fork();
  if (process == 0) {
    (void)execl("/sbin/mkfs.ext4", "mkfs.ext4", "-q", "-F", image.c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  return waitpid(process, &status, 0) == process && status == 0;
}

bool copy(const std::string& image, const std::string& to) {
  const Descriptor from(open(image.c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor file(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!from.valid() || !file.valid() || ftruncate(file.get(), kBytes) != 0) return false;
  std::vector<char> block(std::size_t{64} * 1024);
  for (off_t at = 0; at < kBytes && (at = lseek(from.get(), at, SEEK_DATA)) >= 0;) {
    const ssize_t length = pread(from.get(), block.data(), block.size(), at);
    if (length <= 0 ||
        pwrite(file.get(), block.data(), static_cast<std::size_t>(length), at) != length) {
      return false;
    }
    at += length;
  }
  return true;
}

bool writeJournal(const std::string& directory) {
  const Descriptor file(
      open((directory + "/unrelated").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  return file.valid() && write(file.get(), ".", 1) == 1 && fsync(file.get()) == 0;
}

}  // namespace disk
