// The terminal state a stream of shell output leaves behind: a one-pass
// parser of control sequences (no screen grid, no allocation) that follows
// the modes a terminal starting from scratch would need to show that output
// right: alternate screen, cursor keys and keypad, cursor visibility, mouse
// reporting and its encoding, focus events, bracketed paste, origin mode,
// the scroll region, the G0/G1 character sets with the shift state, and
// the current graphic rendition. The keeper uses it to replay a ring that
// has lost its oldest bytes; the attach client uses it to give the local
// terminal back as it found it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tovel {

// A short run of control sequences, built in place.
class SequenceText {
  public:
    static constexpr std::size_t kCapacity = 256;

    [[nodiscard]] std::string_view view() const { return {bytes_.data(), size_}; }
    [[nodiscard]] bool empty() const { return size_ == 0; }
    void append(std::string_view text);
    void appendNumber(unsigned value);

  private:
    std::array<char, kCapacity> bytes_;
    std::size_t size_ = 0;
};

class TerminalState {
  public:
    void feed(std::string_view bytes);
    // Feeds bytes until the stream stands at a boundary; returns how many
    // were taken (all of them when no boundary comes).
    [[nodiscard]] std::size_t feedToBoundary(std::string_view bytes);
    // Whether the next byte starts outside every escape sequence and UTF-8
    // character.
    [[nodiscard]] bool atBoundary() const { return parse_ == Parse::Ground && utf8Pending_ == 0; }
    [[nodiscard]] bool alternateScreen() const { return modes_.altScreen != 0; }
    // The sequences that bring a terminal at its defaults to this state;
    // empty when this state is the default.
    [[nodiscard]] SequenceText preamble() const;
    // The sequences that turn off everything that is on; empty when
    // nothing is.
    [[nodiscard]] SequenceText undo() const;

  private:
    enum class Parse : std::uint8_t { Ground, Escape, Csi, CsiIgnore, String, StringEscape };
    enum class ColorKind : std::uint8_t { Default, Palette16, Palette256, Rgb };
    struct Color {
        ColorKind kind = ColorKind::Default;
        std::uint8_t value[3] = {0, 0, 0};
        bool operator==(const Color&) const = default;
    };
    struct Rendition {
        std::uint16_t flags = 0;
        std::uint8_t underline = 0; // 0 none, 1 single, 2.. the styles of "4:n"
        Color foreground;
        Color background;
        Color underlineColor;
        bool operator==(const Rendition&) const = default;
    };
    struct Modes {
        std::uint16_t altScreen = 0; // 47, 1047 or 1049 when on
        std::uint16_t mouse = 0;     // 9, 1000, 1002 or 1003 when on
        std::uint16_t mouseEncoding = 0;
        std::uint16_t scrollTop = 0; // 0: the whole screen
        std::uint16_t scrollBottom = 0;
        bool cursorKeys = false;
        bool keypad = false;
        bool cursorHidden = false;
        bool focus = false;
        bool paste = false;
        bool origin = false;
        bool shifted = false;
        char g0 = 'B';
        char g1 = 'B';
        Rendition rendition; // as read so far: later changes may be kept unread
    };
    static constexpr std::size_t kMaxParams = 32;
    // A control sequence's parameters, with a bit per parameter that
    // followed a colon.
    struct Parameters {
        std::uint8_t count = 0;
        std::uint32_t subParams = 0;
        std::array<std::uint16_t, kMaxParams> values{};
        // Takes one digit, semicolon or colon.
        void take(unsigned char byte);
        // Takes digits and semicolons; returns where they end.
        const unsigned char* read(const unsigned char* at, const unsigned char* end);
    };
    // Rendition changes are most of the state changes of full-screen
    // output, and nearly all of them begin with a reset. Their parameters
    // are kept as written, each ended by its 'm', and read only when the
    // rendition is asked for or the room runs out.
    struct KeptRenditions {
        static constexpr std::size_t kCapacity = 96;
        // The most bytes a change may have, its 'm' included; each is
        // copied as this many, so the room runs on by as much.
        static constexpr std::ptrdiff_t kSpan = 32;
        std::array<unsigned char, kCapacity + kSpan> bytes;
        std::uint8_t size = 0;
    };

    void control(unsigned char byte);
    // Takes the escape sequence at `at` (an ESC): whole when it is a control
    // sequence in view, else only the ESC. Returns where to go on.
    const unsigned char* controlSequence(const unsigned char* at, const unsigned char* end);
    // Takes a control sequence that can change the state, whole in view.
    void stateSequence(const unsigned char* parameters, const unsigned char* final);
    // Takes text and control sequences sixty-four bytes at a time, from the
    // ground state; returns where the bytes need the byte-by-byte path, or
    // where fewer than sixty-four remain. `text` follows the start of the
    // current run of text.
    const unsigned char* skipWindows(const unsigned char* at, const unsigned char* end,
                                     const unsigned char*& text);
    void escape(unsigned char byte);
    void csi(unsigned char byte);
    void string(unsigned char byte);
    void dispatchEscape(unsigned char final);
    void dispatchCsi(unsigned char final);
    void decMode(std::uint16_t mode, bool on);
    // Keeps a rendition change with plain parameters, whole in view, for
    // later; false when it has to be read now.
    bool keepRendition(const unsigned char* parameters, const unsigned char* final,
                       const unsigned char* end);
    // The rendition in force: the last one read with the kept changes on it.
    [[nodiscard]] Rendition rendition() const;
    static void graphicRendition(const Parameters& parameters, Rendition& into);
    // Reads an extended color starting at parameter `at` (the 38/48/58);
    // returns the index of the last parameter it used.
    static std::size_t extendedColor(const Parameters& parameters, std::size_t at, Color& color);
    void softReset();
    static void appendColor(SequenceText& text, const Color& color, unsigned base);
    void startSequence(Parse next);
    void resetModes(const Modes& modes);

    Modes modes_;
    Parse parse_ = Parse::Ground;
    std::uint8_t utf8Pending_ = 0;
    // BEL ends an operating-system command; device-control and the other
    // strings end only with ST.
    bool bellEndsString_ = false;
    // The sequence being read: private marker, last intermediate, the
    // number of intermediates, and parameters.
    char marker_ = 0;
    char intermediate_ = 0;
    std::uint8_t intermediates_ = 0;
    Parameters params_;
    KeptRenditions kept_;
};

} // namespace tovel
