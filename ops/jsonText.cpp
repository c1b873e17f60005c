#include "jsonText.h"

#include <memory>

#include <json/reader.h>
#include <json/writer.h>

namespace ops {

bool parseJson(const std::string& text, Json::Value& document) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  return reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
}

std::string compactJson(const Json::Value& document) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  return Json::writeString(builder, document);
}

// The stored documents are written by this writer, which some releases mark as deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string styledJson(const Json::Value& document) { return Json::StyledWriter().write(document); }
#pragma GCC diagnostic pop

}  // namespace ops
