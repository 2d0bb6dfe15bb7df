// Session id validation and generation.
#include "cli/session_id.hpp"

#include "platform/random.hpp"

#include <array>

namespace tovel {

bool isValidSessionId(std::string_view text) {
    if (text.size() != kSessionIdLength)
        return false;
    for (char c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')))
            return false;
    }
    return true;
}

std::string hexEncode(std::string_view bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (unsigned char byte : bytes) {
        out.push_back(kDigits[byte >> 4]);
        out.push_back(kDigits[byte & 0x0f]);
    }
    return out;
}

Result<std::string> newSessionId() {
    std::array<std::byte, kSessionIdLength / 2> bytes{};
    TRY(sys::randomBytes(bytes));
    return hexEncode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

} // namespace tovel
