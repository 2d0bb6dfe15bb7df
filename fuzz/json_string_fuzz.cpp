// The JSON writer's strings: for any bytes, the writer's text must be one
// JSON string with only well-formed escapes that decodes to valid UTF-8, and
// back to the bytes themselves when they were valid UTF-8.
#include "cli/json_writer.hpp"
#include "platform/decimal.hpp"

#include <cstdlib>

namespace {

// Well-formed UTF-8: no overlong forms, surrogates or values past U+10FFFF.
bool isValidUtf8(std::string_view text) {
    for (std::size_t at = 0; at < text.size();) {
        auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
        unsigned lead = byte(at);
        std::size_t length = lead < 0x80   ? 1
                             : lead < 0xC2 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
        if (length == 0 || at + length > text.size())
            return false;
        unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
        unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
        for (std::size_t i = 1; i < length; ++i) {
            if (byte(at + i) < (i == 1 ? low : 0x80) || byte(at + i) > (i == 1 ? high : 0xBF))
                return false;
        }
        at += length;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    tovel::JsonWriter json;
    json.string(input);
    std::string_view text = json.text();
    if (text.size() < 2 || text.front() != '"' || text.back() != '"')
        std::abort();
    constexpr std::string_view kLetters = "\"\\/bfnrt", kBytes = "\"\\/\b\f\n\r\t";
    std::string decoded;
    for (std::size_t at = 1; at + 1 < text.size();) {
        char c = text[at++];
        std::size_t letter =
            c == '\\' && at + 1 < text.size() ? kLetters.find(text[at]) : std::string_view::npos;
        // Of the \u escapes only \u00XX: the writer needs no others.
        int high =
            c == '\\' && text.substr(at, 3) == "u00" ? tovel::hexDigitValue(text[at + 3]) : -1;
        int low = high >= 0 && at + 5 < text.size() ? tovel::hexDigitValue(text[at + 4]) : -1;
        bool plain = c != '\\' && c != '"' && static_cast<unsigned char>(c) >= 0x20;
        if (!plain && letter == std::string_view::npos && low < 0)
            std::abort();
        decoded.push_back(plain                              ? c
                          : letter != std::string_view::npos ? kBytes[letter]
                                                             : static_cast<char>(high * 16 + low));
        at += plain ? 0 : letter != std::string_view::npos ? 1 : 5;
    }
    if (!isValidUtf8(decoded) || (isValidUtf8(input) && decoded != input))
        std::abort();
    return 0;
}
