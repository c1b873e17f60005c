// The settings, read without making them: the library writes the defaults when there are none.

#ifndef TARNFW_OPS_SETTINGS_H
#define TARNFW_OPS_SETTINGS_H

#include <string>

namespace ops {

struct Settings {
  bool enabled = false;
  std::string profile;  // the active one
};

// The settings document.
const char* settingsFile();

// Fills `settings`, from the defaults when there is no settings document. False with the reason
// when the document cannot be read or names no profile.
bool readSettings(Settings& settings, std::string& reason);

}  // namespace ops

#endif
