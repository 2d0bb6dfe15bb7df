// Minified JSON output.
#include "cli/json_writer.hpp"
#include "platform/decimal.hpp"

#include <charconv>

namespace tovel {

namespace {

constexpr std::string_view kReplacementCharacter = "\xef\xbf\xbd"; // U+FFFD

bool inRange(std::string_view text, std::size_t at, unsigned char low, unsigned char high) {
    if (at >= text.size())
        return false;
    auto byte = static_cast<unsigned char>(text[at]);
    return byte >= low && byte <= high;
}

// The length of the well-formed UTF-8 sequence starting at `at` (lead byte
// 0x80 or above), or 0 when none starts there: no overlong forms, no
// surrogates, nothing above U+10FFFF.
std::size_t utf8SequenceLength(std::string_view text, std::size_t at) {
    auto lead = static_cast<unsigned char>(text[at]);
    unsigned char low = 0x80;
    unsigned char high = 0xbf;
    std::size_t length = 0;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        low = lead == 0xe0 ? 0xa0 : 0x80;
        high = lead == 0xed ? 0x9f : 0xbf;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        low = lead == 0xf0 ? 0x90 : 0x80;
        high = lead == 0xf4 ? 0x8f : 0xbf;
    } else {
        return 0;
    }
    if (!inRange(text, at + 1, low, high))
        return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if (!inRange(text, at + i, 0x80, 0xbf))
            return 0;
    }
    return length;
}

} // namespace

void appendJsonEscaped(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (std::size_t at = 0; at < text.size(); ++at) {
        char c = text[at];
        auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80) {
            // Output that must always parse: a byte that is not part of
            // well-formed UTF-8 is replaced, never copied.
            std::size_t length = utf8SequenceLength(text, at);
            if (length == 0) {
                out.append(kReplacementCharacter);
                continue;
            }
            out.append(text.substr(at, length));
            at += length - 1;
            continue;
        }
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
