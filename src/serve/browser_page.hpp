// The file browser's HTML pages under "/__tovel/": a directory listing or the
// results of a subtree search, streamed piece by piece after the connection
// code has sent the browser header set.
#pragma once

#include "platform/directory.hpp"
#include "platform/result.hpp"
#include "serve/html_text.hpp"

#include <optional>
#include <string_view>

namespace tovel::serve {

// Where a page's bytes go. The connection implements it over its socket; a
// failed write ends the page and the request.
class BodyWriter {
  public:
    virtual ~BodyWriter() = default;
    [[nodiscard]] virtual Result<> write(std::string_view bytes) = 0;
};

struct BrowserPageRequest {
    std::string_view rootRealPath;      // the served root, resolved
    std::string_view relativePath;      // decoded path below "/__tovel", starting with "/"
    std::string_view directoryRealPath; // the shown directory, resolved
    HiddenFiles hiddenFiles = HiddenFiles::Hidden;
    // The raw, still percent-encoded value of the "q" parameter when the
    // query has one; the page decodes it and applies the search limits.
    std::optional<std::string_view> rawQuery;
    // The shown directory, already opened: a directory that cannot be
    // opened is answered 404 before any of the page is sent.
    sys::DirectoryReader* directory = nullptr;
};

// Writes the whole page body. Returns the first failed write's error.
[[nodiscard]] Result<> writeBrowserPage(BodyWriter& out, const BrowserPageRequest& request);

} // namespace tovel::serve
