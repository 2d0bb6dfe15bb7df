// How fast the terminal-state parser reads output of four shapes: plain
// text, numbered lines, full-screen redraws (rows addressed, then coloured
// runs of text) and the worst case, every character addressed on its own.
// Prints one "<shape> <MiB/s>" line each. Built and run by bench/pty_bench.py.
// The bytes are parsed from a 1 MiB buffer in 64 KiB pieces, as they are in
// use: the keeper parses bytes as they leave its 1 MiB ring, the attach
// client the piece it has just read; both are still in the cache.
#include "client/protocol/terminal_state.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>

namespace {

constexpr std::size_t kSize = 1u << 20;
constexpr std::size_t kChunk = 65536; // as the keeper reads the PTY

double mibPerSecond(const std::string& output) {
    using Clock = std::chrono::steady_clock;
    tovel::TerminalState state;
    int rounds = 320;
    auto start = Clock::now();
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t at = 0; at < output.size(); at += kChunk)
            state.feed(std::string_view(output).substr(at, kChunk));
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (state.preamble().view().size() == tovel::SequenceText::kCapacity)
        std::puts("(preamble full)"); // keeps the work observable
    return static_cast<double>(output.size()) * rounds / seconds / (1 << 20);
}

} // namespace

int main() {
    std::string plain(kSize, 'a');
    std::string lines;
    for (int i = 1; lines.size() < kSize; ++i)
        lines += std::to_string(i) + "\r\n";
    std::string alternate = "\x1b[?1049h\x1b[?1002h\x1b[?1006h\x1b[?25l";
    std::string redraws = alternate;
    for (int k = 0; redraws.size() < kSize; ++k) {
        redraws += "\x1b[" + std::to_string(1 + k % 24) + ";1H\x1b(0x\x1b(B";
        for (int width = 1; width < 79;) {
            int run = std::min(8 + (k * 7 + width) % 18, 79 - width);
            std::string text = std::to_string(k * width);
            text.resize(static_cast<std::size_t>(run), ' ');
            redraws += "\x1b[0;" + std::to_string(30 + (k + width) % 8) + ";" +
                       std::to_string(40 + k % 8) + "m" + text;
            width += run;
        }
        redraws += "\x1b[m\x1b(0x\x1b(B";
    }
    std::string cells = alternate + "\x1b(0";
    for (int k = 0; cells.size() < kSize; ++k) {
        cells += "\x1b[" + std::to_string(1 + k / 80 % 24) + ";" + std::to_string(1 + k % 80) + "H";
        if (k % 3 == 0)
            cells += "\x1b[0;1;3" + std::to_string(k % 7) + "m";
        cells += k % 5 ? "q" : "\xe2\x82\xac";
    }
    std::printf("plain %.0f\nlines %.0f\nredraws %.0f\ncells %.0f\n", mibPerSecond(plain),
                mibPerSecond(lines), mibPerSecond(redraws), mibPerSecond(cells));
}
