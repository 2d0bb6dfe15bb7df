// The subtree search behind the browser's search form: a bounded
// depth-first walk matching names and contents, rows streamed as found.
#pragma once

#include "platform/directory.hpp"
#include "serve/browser_page.hpp"

#include <string_view>

namespace tovel::serve {

constexpr std::size_t kMaxQueryLength = 128;

struct SearchRequest {
    std::string_view query;        // decoded, 1 to 128 bytes
    std::string_view relativePath; // the page's directory below the root, no slashes around
    HiddenFiles hiddenFiles = HiddenFiles::Hidden;
    // The page's directory, already opened; the walk goes on from it by
    // descriptor.
    sys::DirectoryReader* directory = nullptr;
};

// Writes the search section: title, table of result rows, summary note.
[[nodiscard]] Result<> writeSearchResults(BodyWriter& out, const SearchRequest& request);

} // namespace tovel::serve
