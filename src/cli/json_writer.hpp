// A small writer of minified JSON: objects, arrays, strings with the
// program's escaping rules, 64-bit numbers, booleans and null. Commas are
// placed automatically.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tovel {

class JsonWriter {
  public:
    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    void key(std::string_view name);
    void string(std::string_view text);
    void number(std::int64_t value);
    void unsignedNumber(std::uint64_t value);
    void boolean(bool value);
    void null();

    // Convenience for optional values: null when absent.
    void optionalString(const std::optional<std::string>& text);
    void optionalNumber(const std::optional<std::int64_t>& value);

    [[nodiscard]] const std::string& text() const { return text_; }

  private:
    void beforeValue();
    std::string text_;
    bool needComma_ = false;
};

// Appends `text` with JSON escaping: quote and backslash escaped, \b \t \n
// \f \r by name, other bytes below 0x20 as \u00XX; well-formed UTF-8 as is,
// and each byte outside it as U+FFFD, so the result is always valid JSON.
void appendJsonEscaped(std::string& out, std::string_view text);

} // namespace tovel
