// A small JSON writer for the command line's --json output.
#pragma once
#include <cstdint>
#include <string>
#include <string_view>

namespace orlin::cli {

std::string JsonString(std::string_view text);

// Builds one JSON value; commas are placed by the writer.
class JsonWriter {
 public:
  JsonWriter& BeginObject();
  JsonWriter& EndObject();
  JsonWriter& BeginArray();
  JsonWriter& EndArray();
  JsonWriter& Key(std::string_view key);
  JsonWriter& Value(std::string_view text);
  JsonWriter& Value(const char* text) { return Value(std::string_view(text)); }
  JsonWriter& Value(const std::string& text) { return Value(std::string_view(text)); }
  JsonWriter& Value(int64_t number);
  JsonWriter& Value(double number);
  JsonWriter& Value(bool flag);
  JsonWriter& Null();
  JsonWriter& Value(int number) { return Value(int64_t(number)); }
  JsonWriter& Value(uint32_t number) { return Value(int64_t(number)); }
  const std::string& Text() const { return text_; }

 private:
  void Separate();
  std::string text_;
  bool needComma_ = false;
};

}  // namespace orlin::cli
