// JSON documents as text.

#ifndef TARNFW_OPS_JSONTEXT_H
#define TARNFW_OPS_JSONTEXT_H

#include <string>

#include <json/value.h>

namespace ops {

// False when `text` is not one document. Throws the JSON library's exception on one nested too
// deeply.
bool parseJson(const std::string& text, Json::Value& document);

// On one line, for other processes.
std::string compactJson(const Json::Value& document);

// In the form in which the library stores documents, for people and for files.
std::string styledJson(const Json::Value& document);

}  // namespace ops

#endif
