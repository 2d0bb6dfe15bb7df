// The sequences of a terminal state: rendition changes read into the
// rendition they leave (kept as written until asked for), and the
// sequences that rebuild a state from a terminal's defaults or undo it.
#include "client/protocol/byte_blocks.hpp"
#include "client/protocol/terminal_state.hpp"

#include <algorithm>
#include <cstring>

namespace tovel {

namespace {

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