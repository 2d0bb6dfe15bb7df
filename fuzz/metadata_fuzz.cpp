// The session metadata reader: never fails on content, and whatever it
// reads back formats to a record that reads back to the same text again.
#include "cli/session_metadata.hpp"

#include <cstdlib>

using namespace tovel;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    MetadataRecord record = parseSessionMetadata({reinterpret_cast<const char*>(data), size});
    auto text = formatSessionMetadata(record.metadata);
    if (!text)
        return 0;
    MetadataRecord again = parseSessionMetadata(*text);
    auto textAgain = formatSessionMetadata(again.metadata);
    if (!textAgain || *textAgain != *text || (record.ok && !again.ok))
        std::abort();
    return 0;
}
