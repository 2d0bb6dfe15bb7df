// The text encoders of the file-browser pages: HTML escaping, URL
// percent-encoding, and the browser link of a relative path.
#pragma once

#include <string>
#include <string_view>

namespace tovel::serve {

// Whether a listing shows dot files; its links carry the choice along.
enum class HiddenFiles { Hidden, Shown };

// & < > " ' become entities; every other byte passes unchanged.
void appendHtmlEscaped(std::string& out, std::string_view text);
// Letters, digits and - . / _ ~ pass; every other byte becomes %XX
// (uppercase). "/" is kept so whole relative paths encode in one go.
void appendPercentEncoded(std::string& out, std::string_view text);
// "/__tovel/" + encoded path + "/" (when the path is not empty), then
// "?hidden=1" when hidden files are shown.
void appendBrowserLink(std::string& out, std::string_view relativePath, HiddenFiles hidden);
// "/" + encoded path: the raw route of a file.
void appendRawUrl(std::string& out, std::string_view relativePath);

} // namespace tovel::serve
