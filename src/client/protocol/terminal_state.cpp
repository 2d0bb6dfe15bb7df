// The terminal state of an output stream.
#include "client/protocol/terminal_state.hpp"

#include <algorithm>
#include <cstring>

namespace tovel {

namespace {

constexpr unsigned char kEscape = 0x1b;
constexpr unsigned char kBell = 0x07;
constexpr unsigned char kShiftOut = 0x0e;
constexpr unsigned char kShiftIn = 0x0f;
constexpr unsigned char kCancel = 0x18;
constexpr unsigned char kSubstitute = 0x1a;
constexpr std::uint16_t kMaxParamValue = 65535;

enum RenditionFlag : std::uint16_t {
    Bold = 1 << 0,
    Faint = 1 << 1,
    Italic = 1 << 2,
    Blink = 1 << 3,
    Inverse = 1 << 4,
    Invisible = 1 << 5,
    Strike = 1 << 6,
    Overline = 1 << 7,
};

// SGR numbers of the flags, in the order they are written.
constexpr std::pair<RenditionFlag, unsigned> kFlagCodes[] = {
    {Bold, 1},    {Faint, 2},     {Italic, 3}, {Blink, 5},
    {Inverse, 7}, {Invisible, 8}, {Strike, 9}, {Overline, 53},
};

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

// Sixteen bytes compared at once (the compiler's portable vector types).
using Block = unsigned char __attribute__((vector_size(16)));
// What comparing blocks gives: each byte all ones where true.
using BlockMask = signed char __attribute__((vector_size(16)));

Block loadBlock(const unsigned char* at) {
    Block block;
    std::memcpy(&block, at, sizeof block);
    return block;
}

// A bit per byte of a comparison, the first byte in the lowest bit.
unsigned bitsOf(BlockMask mask) {
#if defined(__SSE2__)
    using Bytes = char __attribute__((vector_size(16)));
    return static_cast<unsigned>(__builtin_ia32_pmovmskb128(reinterpret_cast<Bytes>(mask)));
#else
    unsigned bits = 0;
    for (int i = 0; i < 16; ++i)
        bits |= (mask[i] != 0 ? 1u : 0u) << i;
    return bits;
#endif
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

void appendMode(SequenceText& text, unsigned mode, bool on) {
    text.append("\x1b[?");
    text.appendNumber(mode);
    text.append(on ? "h" : "l");
}

} // namespace

void SequenceText::append(std::string_view text) {
    std::size_t count = std::min(text.size(), kCapacity - size_);
    std::memcpy(bytes_.data() + size_, text.data(), count);
    size_ += count;
}

void SequenceText::appendNumber(unsigned value) {
    char digits[10];
    std::size_t count = 0;
    do {
        digits[sizeof digits - 1 - count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    append(std::string_view(digits + sizeof digits - count, count));
}

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

bool TerminalState::keepRendition(const unsigned char* parameters, const unsigned char* final,
                                  const unsigned char* end) {
    // The parameters are looked at thirty-two bytes at once, so only a
    // sequence that fits in them, with that many bytes in view, is kept.
    auto count = static_cast<unsigned>(final - parameters);
    if (count >= KeptRenditions::kSpan || end - parameters < KeptRenditions::kSpan)
        return false;
    Block low = loadBlock(parameters);
    Block high = loadBlock(parameters + 16);
    auto both = [](unsigned lowBits, unsigned highBits) { return lowBits | highBits << 16; };
    // A private marker or an intermediate makes it another sequence.
    std::uint32_t others =
        both(bitsOf((low < '0') | (low > ';')), bitsOf((high < '0') | (high > ';')));
    if ((others & ((1u << count) - 1)) != 0)
        return false;
    // A first parameter of zeros, or none, resets: nothing before matters.
    auto firstNonZero = static_cast<unsigned>(
        __builtin_ctz(both(bitsOf(low != '0'), bitsOf(high != '0')) | 1u << count));
    if (firstNonZero == count || parameters[firstNonZero] > '9') {
        modes_.rendition = Rendition{};
        kept_.size = 0;
    } else if (kept_.size + count + 1 > KeptRenditions::kCapacity) {
        modes_.rendition = rendition();
        kept_.size = 0;
    }
    std::memcpy(kept_.bytes.data() + kept_.size, parameters, KeptRenditions::kSpan);
    kept_.size = static_cast<std::uint8_t>(kept_.size + count + 1);
    return true;
}

TerminalState::Rendition TerminalState::rendition() const {
    Rendition current = modes_.rendition;
    Parameters parameters;
    for (std::size_t i = 0; i < kept_.size; ++i) {
        unsigned char byte = kept_.bytes[i];
        if (byte != 'm') {
            parameters.take(byte);
            continue;
        }
        graphicRendition(parameters, current);
        parameters = Parameters{};
    }
    return current;
}

std::size_t TerminalState::extendedColor(const Parameters& parameters, std::size_t at,
                                         Color& color) {
    const auto& [count, subParams, values] = parameters;
    bool colons = at + 1 < count && (subParams & (1u << (at + 1)));
    std::size_t last = at;
    if (colons) {
        while (last + 1 < count && (subParams & (1u << (last + 1))))
            ++last;
    } else {
        last = count - 1;
    }
    if (at + 1 > last)
        return last;
    std::uint16_t kind = values[at + 1];
    if (kind == 5 && at + 2 <= last) {
        color = {ColorKind::Palette256, {static_cast<std::uint8_t>(values[at + 2]), 0, 0}};
        return colons ? last : at + 2;
    }
    if (kind != 2)
        return colons ? last : at + 1;
    // "38:2:<space>:r:g:b" carries a color space before the channels.
    std::size_t first = colons && last - at >= 5 ? at + 3 : at + 2;
    if (first + 2 > last)
        return last;
    color = {ColorKind::Rgb,
             {static_cast<std::uint8_t>(values[first]),
              static_cast<std::uint8_t>(values[first + 1]),
              static_cast<std::uint8_t>(values[first + 2])}};
    return colons ? last : first + 2;
}

void TerminalState::graphicRendition(const Parameters& parameters, Rendition& r) {
    const auto& [count, subParams, values] = parameters;
    if (count == 0) {
        r = Rendition{};
        return;
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (subParams & (1u << i))
            continue;
        std::uint16_t code = values[i];
        bool hasSub = i + 1 < count && (subParams & (1u << (i + 1)));
        switch (code) {
        case 0:
            r = Rendition{};
            break;
        case 1:
            r.flags |= Bold;
            break;
        case 2:
            r.flags |= Faint;
            break;
        case 3:
            r.flags |= Italic;
            break;
        case 4:
            r.underline =
                hasSub ? static_cast<std::uint8_t>(std::min<std::uint16_t>(values[i + 1], 5)) : 1;
            break;
        case 5:
        case 6:
            r.flags |= Blink;
            break;
        case 7:
            r.flags |= Inverse;
            break;
        case 8:
            r.flags |= Invisible;
            break;
        case 9:
            r.flags |= Strike;
            break;
        case 21:
            r.underline = 2;
            break;
        case 22:
            r.flags &= ~(Bold | Faint);
            break;
        case 23:
            r.flags &= ~Italic;
            break;
        case 24:
            r.underline = 0;
            break;
        case 25:
            r.flags &= ~Blink;
            break;
        case 27:
            r.flags &= ~Inverse;
            break;
        case 28:
            r.flags &= ~Invisible;
            break;
        case 29:
            r.flags &= ~Strike;
            break;
        case 38:
            i = extendedColor(parameters, i, r.foreground);
            break;
        case 39:
            r.foreground = Color{};
            break;
        case 48:
            i = extendedColor(parameters, i, r.background);
            break;
        case 49:
            r.background = Color{};
            break;
        case 53:
            r.flags |= Overline;
            break;
        case 55:
            r.flags &= ~Overline;
            break;
        case 58:
            i = extendedColor(parameters, i, r.underlineColor);
            break;
        case 59:
            r.underlineColor = Color{};
            break;
        default:
            if (code >= 30 && code <= 37)
                r.foreground = {ColorKind::Palette16, {static_cast<std::uint8_t>(code - 30), 0, 0}};
            else if (code >= 40 && code <= 47)
                r.background = {ColorKind::Palette16, {static_cast<std::uint8_t>(code - 40), 0, 0}};
            else if (code >= 90 && code <= 97)
                r.foreground = {ColorKind::Palette16, {static_cast<std::uint8_t>(code - 82), 0, 0}};
            else if (code >= 100 && code <= 107)
                r.background = {ColorKind::Palette16, {static_cast<std::uint8_t>(code - 92), 0, 0}};
            break;
        }
    }
}

void TerminalState::appendColor(SequenceText& text, const Color& color, unsigned base) {
    // 30/40 pick from the first eight colors, 90/100 the bright ones, 38/48
    // (and 58 for underlines) the extended forms.
    if (color.kind == ColorKind::Default)
        return;
    text.append(";");
    if (color.kind == ColorKind::Palette16) {
        text.appendNumber(color.value[0] < 8 ? base + color.value[0]
                                             : base + 60 + color.value[0] - 8);
        return;
    }
    text.appendNumber(base + 8);
    if (color.kind == ColorKind::Palette256) {
        text.append(";5;");
        text.appendNumber(color.value[0]);
        return;
    }
    for (int i = 0; i < 3; ++i) {
        text.append(i == 0 ? ";2;" : ";");
        text.appendNumber(color.value[i]);
    }
}

SequenceText TerminalState::preamble() const {
    SequenceText text;
    const Modes& m = modes_;
    if (m.altScreen != 0)
        appendMode(text, m.altScreen, true);
    if (m.scrollTop != 0 || m.scrollBottom != 0) {
        text.append("\x1b[");
        text.appendNumber(std::max<unsigned>(m.scrollTop, 1));
        if (m.scrollBottom != 0) {
            text.append(";");
            text.appendNumber(m.scrollBottom);
        }
        text.append("r");
    }
    if (m.origin)
        appendMode(text, 6, true);
    if (m.cursorKeys)
        appendMode(text, 1, true);
    if (m.keypad)
        text.append("\x1b=");
    if (m.cursorHidden)
        appendMode(text, 25, false);
    if (m.mouse != 0)
        appendMode(text, m.mouse, true);
    if (m.mouseEncoding != 0)
        appendMode(text, m.mouseEncoding, true);
    if (m.focus)
        appendMode(text, 1004, true);
    if (m.paste)
        appendMode(text, 2004, true);
    if (m.g0 != 'B') {
        text.append("\x1b(");
        text.append(std::string_view(&m.g0, 1));
    }
    if (m.g1 != 'B') {
        text.append("\x1b)");
        text.append(std::string_view(&m.g1, 1));
    }
    if (m.shifted)
        text.append("\x0e");
    Rendition r = rendition();
    if (r == Rendition{})
        return text;
    text.append("\x1b[0");
    for (auto [flag, code] : kFlagCodes) {
        if (r.flags & flag) {
            text.append(";");
            text.appendNumber(code);
        }
    }
    if (r.underline == 1) {
        text.append(";4");
    } else if (r.underline > 1) {
        text.append(";4:");
        text.appendNumber(r.underline);
    }
    appendColor(text, r.foreground, 30);
    appendColor(text, r.background, 40);
    appendColor(text, r.underlineColor, 50);
    text.append("m");
    return text;
}

SequenceText TerminalState::undo() const {
    SequenceText text;
    const Modes& m = modes_;
    if (!(rendition() == Rendition{}))
        text.append("\x1b[0m");
    if (m.scrollTop != 0 || m.scrollBottom != 0)
        text.append("\x1b[r");
    if (m.origin)
        appendMode(text, 6, false);
    if (m.mouse != 0)
        appendMode(text, m.mouse, false);
    if (m.mouseEncoding != 0)
        appendMode(text, m.mouseEncoding, false);
    if (m.focus)
        appendMode(text, 1004, false);
    if (m.paste)
        appendMode(text, 2004, false);
    if (m.cursorKeys)
        appendMode(text, 1, false);
    if (m.keypad)
        text.append("\x1b>");
    if (m.shifted)
        text.append("\x0f");
    if (m.g0 != 'B')
        text.append("\x1b(B");
    if (m.g1 != 'B')
        text.append("\x1b)B");
    if (m.cursorHidden)
        appendMode(text, 25, true);
    if (m.altScreen != 0)
        appendMode(text, m.altScreen, false);
    return text;
}

} // namespace tovel
