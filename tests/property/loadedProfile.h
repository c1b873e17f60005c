// The library and the packet filter under test.

#ifndef TARNFW_TESTS_PROPERTY_LOADEDPROFILE_H
#define TARNFW_TESTS_PROPERTY_LOADEDPROFILE_H

#include "evaluation.h"
#include "tarnfirewall_records.h"

namespace property {

// Makes the base chains, in which closing packets pass, and installs the service table.
void prepareMachine();

// Stores the profile as the active one of an enabled firewall, as a document of its own: what it
// says is not completed.
void store(const FW::FWPROFILE& profile);

// Compiles the stored profile and loads it. Without the connection-state lines: no packet of this
// test belongs to a connection.
void load(const FW::FWPROFILE& profile);

// What the library answers for the stored profile.
FW::AdapterPolicyMap libraryAnswer(const Query& query);

}  // namespace property

#endif
