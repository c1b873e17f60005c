// The profile directory: seeding it, and trying changes on a copy of it.

#ifndef TARNFW_OPS_PROFILESTORE_H
#define TARNFW_OPS_PROFILESTORE_H

#include <functional>
#include <string>
#include <vector>

#include <json/value.h>

namespace ops {

// Is there a profile document? Without one, a new profile is not to be asked for: the library's
// search for a file name would not end.
bool hasProfileDocument();

// How seeding went.
//   file    the document that was or is to be written; empty when there are profiles already
//   error   why there is none
struct Seed {
  std::string file;
  Json::Value document;
  std::string error;
};

// Stores a profile "default" without rules when the directory holds no profile; makes the directory
// too.
Seed seedProfile();
// What seedProfile() would do.
Seed planSeed();

// A change of a document in the profile directory; a null value stands for no document.
struct DocumentChange {
  std::string file;
  Json::Value before;
  Json::Value after;
};

// How a rehearsal ended.
//   rehearsed  false: there was no rehearsal, `reason` says why
//   done       what `change` answered
//   seen       what `look` answered
//   messages   what was logged
struct Rehearsal {
  bool rehearsed = false;
  std::string reason;
  bool done = false;
  std::vector<DocumentChange> changes;
  Json::Value seen;
  std::vector<std::string> messages;
};

// Runs `change` in a process that has a copy of the profile directory and of the locks to itself,
// and tells what it did to the documents. The real ones are not touched. When `change` has
// succeeded, `look` may look at the changed copy.
Rehearsal rehearse(const std::function<bool()>& change,
                   const std::function<Json::Value()>& look = nullptr);

}  // namespace ops

#endif
