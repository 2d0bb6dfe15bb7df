// Text encoders of the file-browser pages.
#include "serve/html_text.hpp"

namespace tovel::serve {

void appendHtmlEscaped(std::string& out, std::string_view text) {
    for (char c : text) {
        switch (c) {
        case '&':
            out.append("&amp;");
            break;
        case '<':
            out.append("&lt;");
            break;
        case '>':
            out.append("&gt;");
            break;
        case '"':
            out.append("&quot;");
            break;
        case '\'':
            out.append("&#39;");
            break;
        default:
            out.push_back(c);
        }
    }
}

void appendPercentEncoded(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    for (char c : text) {
        bool plain = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                     c == '-' || c == '.' || c == '/' || c == '_' || c == '~';
        if (plain) {
            out.push_back(c);
            continue;
        }
        auto byte = static_cast<unsigned char>(c);
        out.push_back('%');
        out.push_back(kHex[byte >> 4]);
        out.push_back(kHex[byte & 0x0f]);
    }
}

void appendBrowserLink(std::string& out, std::string_view relativePath, HiddenFiles hidden) {
    out.append("/__tovel/");
    appendPercentEncoded(out, relativePath);
    if (!relativePath.empty())
        out.push_back('/');
    if (hidden == HiddenFiles::Shown)
        out.append("?hidden=1");
}

void appendRawUrl(std::string& out, std::string_view relativePath) {
    out.push_back('/');
    appendPercentEncoded(out, relativePath);
}

} // namespace tovel::serve
