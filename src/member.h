// Membership in JSON documents.

#ifndef TARNFW_SRC_MEMBER_H
#define TARNFW_SRC_MEMBER_H

#include <string>

#include <json/value.h>

namespace FW {

// Has `document` a member `key`? A document that is not an object has none; the JSON library would
// throw.
inline bool hasMember(const Json::Value& document, const std::string& key) {
  return document.isObject() && document.isMember(key);
}

}  // namespace FW

#endif
