// The optional detach key of the attach client: TOVEL_PTYD_DETACH_KEY names
// one control character in caret notation ("^\", "^]"); pressed on its own it
// ends the attach as if the keyboard input had closed.
#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace tovel {

constexpr std::string_view kDetachKeyVariable = "TOVEL_PTYD_DETACH_KEY";

// "^@" .. "^_" (letters in either case) and "^?"; nullopt for anything else.
[[nodiscard]] std::optional<char> parseCaretKey(std::string_view text);

class DetachKey {
  public:
    // Reads the variable: unset or empty means no key, so every byte is
    // forwarded. An invalid value is given back as the error.
    [[nodiscard]] static std::expected<DetachKey, std::string> fromEnvironment();

    // Whether one read from the keyboard is the key pressed on its own. The
    // same byte inside a longer read (a paste, a burst of typing) is data
    // and is forwarded.
    [[nodiscard]] bool detaches(std::string_view keystrokes) const;

  private:
    explicit DetachKey(std::optional<char> byte) : byte_(byte) {}
    std::optional<char> byte_;
};

} // namespace tovel
