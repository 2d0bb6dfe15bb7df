// Parsing of the detach key's caret notation and the per-read decision.
#include "client/detach_key.hpp"

#include "platform/env.hpp"

namespace tovel {

namespace {

constexpr char kDelete = 0x7f;
// Caret notation flips bit 6: "^A" is 0x41 ^ 0x40 = 0x01, "^?" is 0x7f.
constexpr char kCaretBit = 0x40;
constexpr char kLowerCaseBit = 0x20;

} // namespace

std::optional<char> parseCaretKey(std::string_view text) {
    if (text.size() != 2 || text[0] != '^')
        return std::nullopt;
    char c = text[1];
    if (c == '?')
        return kDelete;
    if (c >= 'a' && c <= 'z')
        c = static_cast<char>(c & ~kLowerCaseBit);
    if (c < '@' || c > '_')
        return std::nullopt;
    return static_cast<char>(c ^ kCaretBit);
}

std::expected<DetachKey, std::string> DetachKey::fromEnvironment() {
    auto value = sys::getEnv(kDetachKeyVariable);
    if (!value || value->empty())
        return DetachKey(std::nullopt);
    auto byte = parseCaretKey(*value);
    if (!byte)
        return std::unexpected(std::string(*value));
    return DetachKey(byte);
}

bool DetachKey::detaches(std::string_view keystrokes) const {
    return byte_ && keystrokes.size() == 1 && keystrokes[0] == *byte_;
}

} // namespace tovel
