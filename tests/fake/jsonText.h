// JSON values as one line of text, without their comments: {"a":1,"b":[true,null]}.

#ifndef TARNFW_TESTS_FAKE_JSON_TEXT_H
#define TARNFW_TESTS_FAKE_JSON_TEXT_H

#include <sstream>
#include <stdexcept>
#include <string>

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

inline std::string toText(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["commentStyle"] = "None";
  return Json::writeString(builder, value);
}

inline Json::Value toJson(const std::string& text) {
  std::istringstream stream(text);
  Json::Value value;
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &value, &errors)) {
    throw std::invalid_argument(errors);
  }
  return value;
}

#endif
