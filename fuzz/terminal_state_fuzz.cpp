// Fuzzes the terminal-state parser: any output, fed whole, cut anywhere or
// a byte at a time (which never takes the whole-sequence paths), must leave
// the same state; the preamble must rebuild that state and the
// undo must bring it back to defaults, both within their fixed room.
#include "client/protocol/terminal_state.hpp"

#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace {

void check(bool condition) {
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using tovel::SequenceText;
    using tovel::TerminalState;
    std::string_view output(reinterpret_cast<const char*>(data), size);

    TerminalState whole;
    whole.feed(output);
    TerminalState cut;
    std::size_t at = size == 0 ? 0 : data[0] % size;
    cut.feed(output.substr(0, at));
    std::size_t skipped = cut.feedToBoundary(output.substr(at));
    check(cut.atBoundary() || at + skipped == size);
    cut.feed(output.substr(at + skipped));

    SequenceText preamble = whole.preamble();
    SequenceText undo = whole.undo();
    check(preamble.view().size() < SequenceText::kCapacity);
    check(undo.view().size() < SequenceText::kCapacity);
    check(cut.preamble().view() == preamble.view());
    check(cut.undo().view() == undo.view());
    check(cut.atBoundary() == whole.atBoundary());

    TerminalState bytewise;
    for (std::size_t i = 0; i < size; ++i)
        bytewise.feed(output.substr(i, 1));
    check(bytewise.preamble().view() == preamble.view());
    check(bytewise.atBoundary() == whole.atBoundary());

    TerminalState rebuilt;
    rebuilt.feed(preamble.view());
    check(rebuilt.atBoundary());
    check(rebuilt.preamble().view() == preamble.view());
    rebuilt.feed(undo.view());
    check(rebuilt.preamble().view().empty());
    return 0;
}
