// The terminal-state parser: one pass over output, text skipped sixteen
// and sixty-four bytes at a time, control sequences taken whole where
// they are in view and byte by byte where they are not.
#include "client/protocol/terminal_state.hpp"
#include "client/protocol/byte_blocks.hpp"

#include <algorithm>

namespace tovel {

namespace {

constexpr unsigned char kEscape = 0x1b;
constexpr unsigned char kBell = 0x07;
constexpr unsigned char kShiftOut = 0x0e;
constexpr unsigned char kShiftIn = 0x0f;
constexpr unsigned char kCancel = 0x18;
constexpr unsigned char kSubstitute = 0x1a;
constexpr std::uint16_t kMaxParamValue = 65535;

// How many continuation bytes are still owed after a run of bytes of 0x20
// and above, looking back at most one whole character.
std::uint8_t utf8PendingAfter(const unsigned char* run, const unsigned char* stop,
                              std::uint8_t before) {
    std::size_t length = static_cast<std::size_t>(stop - run);
    std::size_t look = std::min<std::size_t>(length, 4);
    for (std::size_t back = 1; back <= look; ++back) {
        unsigned char byte = stop[-static_cast<std::ptrdiff_t>(back)];
        if ((byte & 0xc0) == 0x80)
            continue;
        std::size_t need = byte >= 0xf8 ? 0 : byte >= 0xf0 ? 3 : byte >= 0xe0 ? 2 : byte >= 0xc0;
        std::size_t have = back - 1;
        return static_cast<std::uint8_t>(need > have ? need - have : 0);
    }
    if (length >= 4)
        return 0;
    return static_cast<std::uint8_t>(before > length ? before - length : 0);
}

// The control bytes that change the state; every other one only ends a
// UTF-8 character, which the look-back over a run of text already sees.
constexpr std::uint32_t kStateControls =
    1u << kShiftOut | 1u << kShiftIn | 1u << kCancel | 1u << kSubstitute | 1u << kEscape;

bool changesState(unsigned char byte) {
    return byte < 0x20 && (kStateControls >> byte & 1u) != 0;
}

// The first control byte that changes the state from `at` on, or `end`,
// sixteen bytes at a time: one predictable test per block of text, and
// between the control sequences of a full-screen update, where the text is
// a character or two, one test in all.
const unsigned char* skipText(const unsigned char* at, const unsigned char* end) {
    static_assert((kShiftIn & 0xfe) == kShiftOut && (kSubstitute & 0xfd) == kCancel);
    for (; end - at >= 16; at += 16) {
        Block block = loadBlock(at);
        unsigned stops = bitsOf(((block & 0xfe) == kShiftOut) | ((block & 0xfd) == kCancel) |
                                (block == kEscape));
        if (stops != 0)
            return at + __builtin_ctz(stops);
    }
    while (at < end && !changesState(*at))
        ++at;
    return at;
}

// Where the bytes of interest are in a window of sixty-four, a bit each.
struct WindowBits {
    std::uint64_t escapes = 0;
    std::uint64_t controls = 0;   // every control byte that changes the state
    std::uint64_t parameters = 0; // 0x20-0x3f: parameter and intermediate bytes
};

// Text, the most common window, costs one test per sixteen bytes.
WindowBits classifyWindow(const unsigned char* at) {
    WindowBits bits;
    for (unsigned part = 0; part < 4; ++part) {
        Block block = loadBlock(at + 16 * part);
        bits.controls |= std::uint64_t{bitsOf(((block & 0xfe) == kShiftOut) |
                                              ((block & 0xfd) == kCancel) | (block == kEscape))}
                         << (16 * part);
    }
    if (bits.controls == 0)
        return bits;
    for (unsigned part = 0; part < 4; ++part) {
        Block block = loadBlock(at + 16 * part);
        bits.escapes |= std::uint64_t{bitsOf(block == kEscape)} << (16 * part);
        bits.parameters |= std::uint64_t{bitsOf((block & 0xe0) == 0x20)} << (16 * part);
    }
    return bits;
}

// The final bytes of the control sequences that can change the state:
// modes (h, l), rendition (m), the scroll region (r) and soft reset (p).
bool mayChangeState(unsigned char final) {
    return final == 'h' || final == 'l' || final == 'm' || final == 'r' || final == 'p';
}

// The byte that ends the parameter and intermediate bytes (0x20-0x3f) of a
// control sequence whose parameters start at `at`, or `end` when it is not
// in view.
const unsigned char* sequenceFinal(const unsigned char* at, const unsigned char* end) {
    if (end - at >= 16) {
        Block block = loadBlock(at);
        unsigned others = bitsOf((block & 0xe0) != 0x20);
        if (others != 0)
            return at + __builtin_ctz(others);
        at += 16;
    }
    while (at < end && (*at & 0xe0) == 0x20)
        ++at;
    return at;
}

} // namespace

void TerminalState::feed(std::string_view bytes) {
    auto* at = reinterpret_cast<const unsigned char*>(bytes.data());
    auto* end = at + bytes.size();
    while (at < end) {
        if (parse_ == Parse::Ground) {
            // Printable text is the bulk of any output: skip it in one run.
            // A control byte ends any UTF-8 character, so the UTF-8 state
            // needs settling only where the bytes end.
            const unsigned char* run = at;
            at = skipText(skipWindows(at, end, run), end);
            if (at == end) {
                if (at != run)
                    utf8Pending_ = utf8PendingAfter(run, at, utf8Pending_);
                break;
            }
            at = *at == kEscape ? controlSequence(at, end) : (control(*at), at + 1);
            continue;
        }
        if (parse_ == Parse::Csi && intermediate_ == 0) {
            // Parameters are most of a control sequence's bytes.
            at = params_.read(at, end);
            if (at == end)
                break;
        }
        unsigned char byte = *at++;
        if (parse_ == Parse::String || parse_ == Parse::StringEscape)
            string(byte);
        else if (parse_ == Parse::Escape)
            escape(byte);
        else
            csi(byte);
    }
}

const unsigned char* TerminalState::controlSequence(const unsigned char* at,
                                                    const unsigned char* end) {
    control(kEscape);
    if (end - at < 3 || at[1] != '[')
        return at + 1;
    // A control sequence in view whole is taken in one scan; only the few
    // final bytes that can change the state need its parameters.
    const unsigned char* final = sequenceFinal(at + 2, end);
    if (final == end || *final < 0x40 || *final > 0x7e)
        return at + 1;
    parse_ = Parse::Ground;
    if (mayChangeState(*final) && !(*final == 'm' && keepRendition(at + 2, final, end)))
        stateSequence(at + 2, final);
    return final + 1;
}

void TerminalState::stateSequence(const unsigned char* parameters, const unsigned char* final) {
    startSequence(Parse::Csi);
    for (const unsigned char* byte = params_.read(parameters, final); byte <= final; ++byte)
        csi(*byte);
}

const unsigned char* TerminalState::skipWindows(const unsigned char* at, const unsigned char* end,
                                                const unsigned char*& text) {
    // Full-screen output is mostly short control sequences a few bytes of
    // text apart. Classifying sixty-four bytes at once finds each
    // sequence's end with a bit scan instead of a test per byte.
    for (; end - at >= 64; at += 64) {
        WindowBits bits = classifyWindow(at);
        std::uint64_t stops = bits.controls;
        for (unsigned next = 0; next < 64;) {
            std::uint64_t ahead = stops >> next << next;
            if (ahead == 0)
                break;
            unsigned index = static_cast<unsigned>(__builtin_ctzll(ahead));
            if ((bits.escapes >> index & 1) == 0) {
                control(at[index]);
                next = index + 1;
                text = at + next;
                continue;
            }
            // What follows the ESC must be in this window; anything but a
            // control sequence or a character-set choice goes byte by byte.
            if (index > 61)
                return at + index;
            unsigned char kind = at[index + 1];
            if (kind == '(' || kind == ')') {
                unsigned char set = at[index + 2];
                if (set < 0x30 || set > 0x7e)
                    return at + index;
                (kind == '(' ? modes_.g0 : modes_.g1) = static_cast<char>(set);
                next = index + 3;
            } else {
                std::uint64_t others = ~bits.parameters >> (index + 2);
                if (kind != '[' || others == 0)
                    return at + index;
                const unsigned char* final = at + index + 2 + __builtin_ctzll(others);
                if (*final < 0x40 || *final > 0x7e)
                    return at + index;
                const unsigned char* parameters = at + index + 2;
                if (mayChangeState(*final) &&
                    !(*final == 'm' && keepRendition(parameters, final, end)))
                    stateSequence(parameters, final);
                next = static_cast<unsigned>(final + 1 - at);
            }
            utf8Pending_ = 0;
            text = at + next;
        }
    }
    return at;
}

std::size_t TerminalState::feedToBoundary(std::string_view bytes) {
    std::size_t taken = 0;
    while (taken < bytes.size() && !atBoundary())
        feed(bytes.substr(taken++, 1));
    return taken;
}

void TerminalState::control(unsigned char byte) {
    utf8Pending_ = 0;
    switch (byte) {
    case kEscape:
        parse_ = Parse::Escape;
        intermediates_ = 0;
        intermediate_ = 0;
        return;
    case kCancel:
    case kSubstitute:
        parse_ = Parse::Ground;
        return;
    case kShiftOut:
        modes_.shifted = true;
        return;
    case kShiftIn:
        modes_.shifted = false;
        return;
    default:
        return;
    }
}

void TerminalState::startSequence(Parse next) {
    parse_ = next;
    marker_ = 0;
    intermediate_ = 0;
    params_ = Parameters{};
}

void TerminalState::escape(unsigned char byte) {
    if (byte < 0x20) {
        control(byte);
        return;
    }
    if (byte == 0x7f)
        return;
    if (byte < 0x30) {
        intermediate_ = static_cast<char>(byte);
        ++intermediates_;
        return;
    }
    if (intermediates_ == 0) {
        switch (byte) {
        case '[':
            startSequence(Parse::Csi);
            return;
        case ']':
        case 'P':
        case 'X':
        case '^':
        case '_':
            parse_ = Parse::String;
            bellEndsString_ = byte == ']';
            return;
        default:
            break;
        }
    }
    parse_ = Parse::Ground;
    if (byte < 0x80)
        dispatchEscape(byte);
}

void TerminalState::dispatchEscape(unsigned char final) {
    if (intermediates_ == 1 && (intermediate_ == '(' || intermediate_ == ')')) {
        (intermediate_ == '(' ? modes_.g0 : modes_.g1) = static_cast<char>(final);
        return;
    }
    if (intermediates_ != 0)
        return;
    if (final == '=')
        modes_.keypad = true;
    else if (final == '>')
        modes_.keypad = false;
    else if (final == 'c')
        resetModes(Modes{});
}

void TerminalState::csi(unsigned char byte) {
    if (byte < 0x20) {
        control(byte);
        return;
    }
    if (byte >= 0x80 || byte == 0x7f)
        return;
    if (byte >= 0x40) {
        if (parse_ == Parse::Csi)
            dispatchCsi(byte);
        parse_ = Parse::Ground;
        return;
    }
    if (parse_ == Parse::CsiIgnore)
        return;
    if (byte < 0x30) {
        intermediate_ = static_cast<char>(byte);
        return;
    }
    if (intermediate_ != 0) {
        parse_ = Parse::CsiIgnore;
        return;
    }
    if (byte >= 0x3c) {
        if (params_.count != 0 || marker_ != 0)
            parse_ = Parse::CsiIgnore;
        else
            marker_ = static_cast<char>(byte);
        return;
    }
    params_.take(byte);
}

void TerminalState::Parameters::take(unsigned char byte) {
    if (count == 0)
        values[count++] = 0;
    if (byte <= '9') {
        unsigned value = values[count - 1] * 10u + (byte - '0');
        values[count - 1] = static_cast<std::uint16_t>(std::min<unsigned>(value, kMaxParamValue));
        return;
    }
    // With no room left, later digits go on into the last parameter.
    if (count == kMaxParams)
        return;
    if (byte == ':')
        subParams |= 1u << count;
    values[count++] = 0;
}

const unsigned char* TerminalState::Parameters::read(const unsigned char* at,
                                                     const unsigned char* end) {
    if (at == end || !((*at >= '0' && *at <= '9') || *at == ';'))
        return at;
    if (count == 0)
        values[count++] = 0;
    // The parameter being read stays in a register until it ends.
    unsigned value = values[count - 1];
    for (; at < end; ++at) {
        unsigned digit = *at - '0';
        if (digit <= 9) {
            value = std::min(value * 10u + digit, unsigned{kMaxParamValue});
            continue;
        }
        if (*at != ';')
            break;
        if (count == kMaxParams)
            continue;
        values[count - 1] = static_cast<std::uint16_t>(value);
        values[count++] = 0;
        value = 0;
    }
    values[count - 1] = static_cast<std::uint16_t>(value);
    return at;
}

void TerminalState::string(unsigned char byte) {
    if (parse_ == Parse::StringEscape) {
        parse_ = Parse::Escape;
        intermediates_ = 0;
        intermediate_ = 0;
        if (byte == '\\')
            parse_ = Parse::Ground;
        else
            escape(byte);
        return;
    }
    if (byte == kEscape)
        parse_ = Parse::StringEscape;
    else if ((byte == kBell && bellEndsString_) || byte == kCancel || byte == kSubstitute)
        parse_ = Parse::Ground;
}

void TerminalState::dispatchCsi(unsigned char final) {
    if (marker_ == '?' && intermediate_ == 0 && (final == 'h' || final == 'l')) {
        for (std::size_t i = 0; i < params_.count; ++i) {
            if (!(params_.subParams & (1u << i)))
                decMode(params_.values[i], final == 'h');
        }
        return;
    }
    if (marker_ != 0)
        return;
    if (intermediate_ == '!' && final == 'p') {
        softReset();
        return;
    }
    if (intermediate_ != 0)
        return;
    if (final == 'm') {
        // The kept changes came first.
        modes_.rendition = rendition();
        kept_.size = 0;
        graphicRendition(params_, modes_.rendition);
    } else if (final == 'r') {
        // Lines count from 1; an empty or zero top means the first line.
        std::uint16_t top = std::max<std::uint16_t>(params_.count > 0 ? params_.values[0] : 0, 1);
        std::uint16_t bottom = params_.count > 1 ? params_.values[1] : 0;
        if (bottom != 0 && top >= bottom)
            return;
        modes_.scrollTop = top > 1 ? top : 0;
        modes_.scrollBottom = bottom;
    }
}

void TerminalState::decMode(std::uint16_t mode, bool on) {
    switch (mode) {
    case 1:
        modes_.cursorKeys = on;
        return;
    case 6:
        modes_.origin = on;
        return;
    case 25:
        modes_.cursorHidden = !on;
        return;
    case 9:
    case 1000:
    case 1002:
    case 1003:
        modes_.mouse = on ? mode : 0;
        return;
    case 1005:
    case 1006:
    case 1015:
        modes_.mouseEncoding = on ? mode : 0;
        return;
    case 1004:
        modes_.focus = on;
        return;
    case 2004:
        modes_.paste = on;
        return;
    case 47:
    case 1047:
    case 1049:
        modes_.altScreen = on ? mode : 0;
        return;
    default:
        return;
    }
}

void TerminalState::softReset() {
    Modes kept;
    kept.altScreen = modes_.altScreen;
    kept.mouse = modes_.mouse;
    kept.mouseEncoding = modes_.mouseEncoding;
    kept.focus = modes_.focus;
    kept.paste = modes_.paste;
    resetModes(kept);
}

void TerminalState::resetModes(const Modes& modes) {
    modes_ = modes;
    kept_.size = 0;
}

} // namespace tovel
