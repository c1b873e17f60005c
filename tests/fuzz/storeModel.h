// The profiles in memory: what the operations on stored profiles make of them.

#ifndef TARNFW_TESTS_FUZZ_STORE_MODEL_H
#define TARNFW_TESTS_FUZZ_STORE_MODEL_H

#include <map>
#include <string>
#include <vector>

#include "fakePlatform.h"
#include "tarnfirewall_records.h"

namespace fuzz {

using Profiles = std::map<std::string, FW::FWPROFILE>;

// A profile as it is read back after it was set.
FW::FWPROFILE asStored(FW::FWPROFILE profile);

// The edits, on one profile each; the result is as it is stored.
FW::FWPROFILE reserved(FW::FWPROFILE profile, const std::string& adapter,
                       const std::string& service, FW::FW_POLICY policy);
FW::FWPROFILE withoutService(FW::FWPROFILE profile, const std::string& service);
FW::FWPROFILE renamedAdapter(FW::FWPROFILE profile, const std::string& from, const std::string& to);
FW::FWPROFILE updated(FW::FWPROFILE profile, const std::vector<fake::Service>& services);

// The profiles of the directory, read without the library's scan. Every document there must parse,
// have a name of its own and be a profile; the settings are left out.
Profiles profilesOnDisk();

std::string textOf(const Profiles& profiles);

}  // namespace fuzz

#endif
