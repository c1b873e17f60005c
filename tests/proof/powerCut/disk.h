// A disk that can lose its power: an ext4 file system in a file. What the kernel has not handed to
// the disk yet is not in the file, so a copy of it is what a machine finds after the power comes
// back.

#ifndef TARNFW_TESTS_PROOF_POWER_CUT_DISK_H
#define TARNFW_TESTS_PROOF_POWER_CUT_DISK_H

#include <string>

namespace disk {

// A file system image that is mounted while the object lives.
class Mounted {
 public:
  // Mounts `image` on `directory` with the file system's own options.
  Mounted(const std::string& image, const std::string& directory, const std::string& options);
  ~Mounted();
  Mounted(const Mounted&) = delete;
  Mounted& operator=(const Mounted&) = delete;

  bool done() const { return done_; }

 private:
  std::string directory_;
  bool done_ = false;
};

// Makes a new, empty file system of ext4 in the file `image`.
bool make(const std::string& image);

// Why this machine has no such disk for us, without a loop device, ext4 or the right to mount;
// empty when it has. Tries with the file `image`.
std::string whyNone(const std::string& image, const std::string& directory,
                    const std::string& options);

// Copies the image as the disk holds it at this moment.
bool copy(const std::string& image, const std::string& to);

// Has the kernel write down the journal, as any program's fsync does, and as time does: an
// unrelated file of the file system is flushed. Of other files only the names are written by that,
// not what they hold.
bool writeJournal(const std::string& directory);

}  // namespace disk

#endif
