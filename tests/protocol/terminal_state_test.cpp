// The terminal state of an output stream: what a stream leaves on, the
// sequences that rebuild it from defaults and those that undo it, and where
// a stream can be cut without splitting a sequence or a character.
#include "client/protocol/terminal_state.hpp"

#include <gtest/gtest.h>

namespace tovel {
namespace {

struct Case {
    const char* name;
    std::string_view output;
    std::string_view preamble;
    std::string_view undo;
    bool boundary = true;
};

const Case kCases[] = {
    {"PlainText", "hello \xc3\xa9t\xc3\xa9\r\n", "", ""},
    {"FullScreen", "\x1b[?1049h\x1b[?1h\x1b=\x1b[?25l\x1b[?1002;1006;1004;2004h",
     "\x1b[?1049h\x1b[?1h\x1b=\x1b[?25l\x1b[?1002h\x1b[?1006h\x1b[?1004h\x1b[?2004h",
     "\x1b[?1002l\x1b[?1006l\x1b[?1004l\x1b[?2004l\x1b[?1l\x1b>\x1b[?25h\x1b[?1049l"},
    {"ModesTurnedOffAgain", "\x1b[?1049h\x1b[?1000h\x1b[?1000l\x1b[?1049l\x1b[?25l\x1b[?25h", "",
     ""},
    {"OlderAlternateScreen", "\x1b[?47h", "\x1b[?47h", "\x1b[?47l"},
    {"ScrollRegionAndOrigin", "\x1b[2;20r\x1b[?6h", "\x1b[2;20r\x1b[?6h", "\x1b[r\x1b[?6l"},
    {"FullScrollRegionIsDefault", "\x1b[5;9r\x1b[r", "", ""},
    {"EmptyScrollRegionIgnored", "\x1b[0;1r", "", ""},
    {"LineDrawingShiftedIn", "\x1b(0\x1b)0\x0e", "\x1b(0\x1b)0\x0e", "\x0f\x1b(B\x1b)B"},
    {"Rendition", "\x1b[1;4;31;48;5;200m\x1b[38:2::1:2:3m", "\x1b[0;1;4;38;2;1;2;3;48;5;200m",
     "\x1b[0m"},
    {"RenditionStylesAndBright", "\x1b[3;4:3;7;53;95;104;58;2;9;8;7m",
     "\x1b[0;3;7;53;4:3;95;104;58;2;9;8;7m", "\x1b[0m"},
    {"RenditionReset", "\x1b[1;32m text \x1b[m", "", ""},
    {"RenditionPartlyOff", "\x1b[1;2;3;9m\x1b[22;23m", "\x1b[0;9m", "\x1b[0m"},
    // More changes than are kept unread, in a stream long enough to be
    // taken a window at a time.
    {"ManyRenditionChanges",
     "\x1b[0;1m\x1b[3m\x1b[38;5;100m\x1b[3m\x1b[38;5;100m\x1b[3m\x1b[38;5;100m\x1b[3m\x1b[38;5;100m"
     "\x1b[3m\x1b[38;5;100m\x1b[3m\x1b[38;5;100m\x1b[3m\x1b[38;5;100m\x1b[3m\x1b[38;5;100m"
     "\x1b[3m\x1b[38;5;100m\x1b[22m and some text to read after the last of the changes",
     "\x1b[0;3;38;5;100m", "\x1b[0m"},
    {"SoftResetKeepsScreenAndMouse", "\x1b[?1049h\x1b[?1000h\x1b[?25l\x1b[1m\x1b(0\x1b[!p",
     "\x1b[?1049h\x1b[?1000h", "\x1b[?1000l\x1b[?1049l"},
    {"FullReset",
     "\x1b[?1049h\x1b[?2004h\x1b[7m\x1b"
     "c",
     "", ""},
    {"OtherSequencesIgnored", "\x1b]0;title\x07\x1bP+q\x1b\\\x1b[>4;1m\x1b[?1$p\x1b[4h\x1b#8", "",
     ""},
    {"StringEndedByEscape", "\x1b]2;t\x1b[?25l", "\x1b[?25l", "\x1b[?25h"},
    {"CancelledSequence",
     "\x1b[?10\x18"
     "49h",
     "", ""},
    {"ControlInsideSequence",
     "\x1b[?20\x0e"
     "04h",
     "\x1b[?2004h\x0e", "\x1b[?2004l\x0f"},
    {"InsideCsi", "abc\x1b[12;", "", "", false},
    {"InsideEscape", "\x1b", "", "", false},
    {"InsideOsc", "\x1b]0;ti", "", "", false},
    {"BellInsideDeviceControl", "\x1bPq#0\x07", "", "", false},
    {"InsideStringTerminator", "\x1b]0;t\x1b", "", "", false},
    {"InsideCharset", "\x1b(", "", "", false},
    {"InsideTwoByteCharacter", "a\xc3", "", "", false},
    {"InsideFourByteCharacter", "\xf0\x9f\x98", "", "", false},
    {"AfterFourByteCharacter", "\xf0\x9f\x98\x80", "", ""},
    {"StrayContinuationBytes", "\x80\x80\x80\x80\x80", "", ""},
    {"ControlEndsCharacter", "\xe2\x94\n", "", ""},
};

class TerminalStateCase : public ::testing::TestWithParam<Case> {};

TEST_P(TerminalStateCase, ReportsStateAndBoundary) {
    const Case& c = GetParam();
    // Fed whole and fed a byte at a time, the stream ends in the same state.
    TerminalState whole;
    whole.feed(c.output);
    TerminalState bytewise;
    for (char byte : c.output)
        bytewise.feed(std::string_view(&byte, 1));
    for (const TerminalState* state : {&whole, &bytewise}) {
        EXPECT_EQ(state->preamble().view(), c.preamble);
        EXPECT_EQ(state->undo().view(), c.undo);
        EXPECT_EQ(state->atBoundary(), c.boundary);
    }
    // The preamble rebuilds the state, and the undo goes back to defaults.
    TerminalState rebuilt;
    rebuilt.feed(whole.preamble().view());
    EXPECT_EQ(rebuilt.preamble().view(), c.preamble);
    rebuilt.feed(rebuilt.undo().view());
    EXPECT_EQ(rebuilt.preamble().view(), "");
}

INSTANTIATE_TEST_SUITE_P(Streams, TerminalStateCase, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TerminalState, FeedToBoundaryStopsAfterTheSequence) {
    TerminalState state;
    state.feed("x\x1b[?104");
    EXPECT_EQ(state.feedToBoundary("9hrest"), 2u);
    EXPECT_TRUE(state.alternateScreen());
    EXPECT_EQ(state.feedToBoundary("more"), 0u);
}

} // namespace
} // namespace tovel
