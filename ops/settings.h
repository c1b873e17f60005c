// The settings, read without making them: the library writes the defaults when there are none.

#ifndef TARNFW_OPS_SETTINGS_H
#define TARNFW_OPS_SETTINGS_H

#include <string>

namespace ops {

// The settings.
//   profile       the active one
//   knowsEnabled  `enabled` is what the document says, or what holds when there is none
//   knowsProfile  likewise `profile`
struct Settings {
  bool enabled = false;
  std::string profile;
  bool knowsEnabled = false;
  bool knowsProfile = false;
};

// The settings document.
const char* settingsFile();

// Fills `settings`, from the defaults when there is no settings document. False with the reason
// when the document cannot be read, names no profile or has a member of another type; what can be
// told all the same is filled in.
bool readSettings(Settings& settings, std::string& reason);

}  // namespace ops

#endif
