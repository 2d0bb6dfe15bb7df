// Minified JSON output.
#include "cli/json_writer.hpp"
#include "platform/decimal.hpp"

#include <charconv>

namespace tovel {

void appendJsonEscaped(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        switch (c) {
        case '"':
            out.append("\\\"");
            break;
        case '\\':
            out.append("\\\\");
            break;
        case '\b':
            out.append("\\b");
            break;
        case '\t':
            out.append("\\t");
            break;
        case '\n':
            out.append("\\n");
            break;
        case '\f':
            out.append("\\f");
            break;
        case '\r':
            out.append("\\r");
            break;
        default:
            if (byte < 0x20) {
                out.append("\\u00");
                out.push_back(kHex[byte >> 4]);
                out.push_back(kHex[byte & 0x0f]);
            } else {
                out.push_back(c);
            }
        }
    }
}

void JsonWriter::beforeValue() {
    if (needComma_)
        text_.push_back(',');
    needComma_ = true;
}

void JsonWriter::beginObject() {
    beforeValue();
    text_.push_back('{');
    needComma_ = false;
}

void JsonWriter::endObject() {
    text_.push_back('}');
    needComma_ = true;
}

void JsonWriter::beginArray() {
    beforeValue();
    text_.push_back('[');
    needComma_ = false;
}

void JsonWriter::endArray() {
    text_.push_back(']');
    needComma_ = true;
}

void JsonWriter::key(std::string_view name) {
    beforeValue();
    text_.push_back('"');
    appendJsonEscaped(text_, name);
    text_.append("\":");
    needComma_ = false;
}

void JsonWriter::string(std::string_view value) {
    beforeValue();
    text_.push_back('"');
    appendJsonEscaped(text_, value);
    text_.push_back('"');
}

void JsonWriter::number(std::int64_t value) {
    beforeValue();
    appendSignedDecimal(text_, value);
}

void JsonWriter::unsignedNumber(std::uint64_t value) {
    beforeValue();
    appendDecimal(text_, value);
}

void JsonWriter::boolean(bool value) {
    beforeValue();
    text_.append(value ? "true" : "false");
}

void JsonWriter::null() {
    beforeValue();
    text_.append("null");
}

void JsonWriter::optionalString(const std::optional<std::string>& value) {
    if (value)
        string(*value);
    else
        null();
}

void JsonWriter::optionalNumber(const std::optional<std::int64_t>& value) {
    if (value)
        number(*value);
    else
        null();
}

} // namespace tovel
