// Changing stored profiles, or with --dry-run saying what would change.

#ifndef TARNFW_TOOLS_DOCUMENTCHANGES_H
#define TARNFW_TOOLS_DOCUMENTCHANGES_H

#include <functional>
#include <string>

#include "verbs.h"

namespace tarnfw {

// The name as a message shows it.
std::string quoted(const std::string& name);

// Carries out `change`, or with --dry-run on a copy, and tells what it did to the documents.
Answer changeDocuments(const Request& request, const std::function<bool()>& change,
                       const std::string& failure);

// The --dry-run of a change that loads a profile afterwards: what it does to the documents, and how
// the profile `loaded` is loaded then.
Answer planChangeAndLoad(const std::function<bool()>& change, const std::string& failure,
                         const std::string& loaded);

}  // namespace tarnfw

#endif
