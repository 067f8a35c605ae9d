#include "cli/json.h"

#include <cmath>
#include <cstdio>

namespace orlin::cli {

std::string JsonString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (uint8_t(c) < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", unsigned(uint8_t(c)));
          out += escape;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

void JsonWriter::Separate() {
  if (needComma_) text_ += ',';
  needComma_ = true;
}

JsonWriter& JsonWriter::BeginObject() {
  Separate();
  text_ += '{';
  needComma_ = false;
  return *this;
}
JsonWriter& JsonWriter::EndObject() {
  text_ += '}';
  needComma_ = true;
  return *this;
}
JsonWriter& JsonWriter::BeginArray() {
  Separate();
  text_ += '[';
  needComma_ = false;
  return *this;
}
JsonWriter& JsonWriter::EndArray() {
  text_ += ']';
  needComma_ = true;
  return *this;
}
JsonWriter& JsonWriter::Key(std::string_view key) {
  Separate();
  text_ += JsonString(key) + ':';
  needComma_ = false;
  return *this;
}
JsonWriter& JsonWriter::Value(std::string_view text) {
  Separate();
  text_ += JsonString(text);
  return *this;
}
JsonWriter& JsonWriter::Null() {
  Separate();
  text_ += "null";
  return *this;
}
JsonWriter& JsonWriter::Value(int64_t number) {
  Separate();
  text_ += std::to_string(number);
  return *this;
}
JsonWriter& JsonWriter::Value(double number) {
  Separate();
  if (!std::isfinite(number)) {
    text_ += "null";
  } else {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.9g", number);
    text_ += buffer;
  }
  return *this;
}
JsonWriter& JsonWriter::Value(bool flag) {
  Separate();
  text_ += flag ? "true" : "false";
  return *this;
}

}  // namespace orlin::cli
