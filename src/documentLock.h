// The lock of one document: an exclusive record lock on its lock file. Excludes other processes,
// not other threads of this one.

#ifndef TARNFW_SRC_DOCUMENTLOCK_H
#define TARNFW_SRC_DOCUMENTLOCK_H

#include <optional>
#include <string>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/interprocess/sync/file_lock.hpp>
#include <boost/interprocess/sync/scoped_lock.hpp>

#include "lockFile.h"

namespace FW {

// Held from take() to the end of the scope. What goes wrong with the file is an exception of the
// lock library.
class DocumentLock {
 public:
  // `lockFile`: what getLockFile() answers for the document.
  explicit DocumentLock(std::string lockFile);
  DocumentLock(const DocumentLock&) = delete;
  DocumentLock& operator=(const DocumentLock&) = delete;

  // Takes the lock; false when it is not had in 30 seconds. The name may be removed or given to
  // another file while we wait; then what we locked is not the document's lock any more, and the
  // wait goes on with the new file under the same deadline.
  bool take();

 private:
  // False when it could not be had by the deadline.
  bool open(const boost::posix_time::ptime& deadline);

  // Destroyed from the last to the first: closing any descriptor of the file ends the record lock.
  std::string path_;
  tarn::Place place_;
  tarn::Descriptor file_;
  std::optional<boost::interprocess::file_lock> lock_;
  std::optional<boost::interprocess::scoped_lock<boost::interprocess::file_lock>> held_;
};

}  // namespace FW

#endif
