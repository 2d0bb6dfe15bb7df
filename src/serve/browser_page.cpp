// The file browser's page: header, breadcrumbs, warnings, search form, then
// the directory listing or the search results, then the closing script.
#include "serve/browser_page.hpp"
#include "platform/decimal.hpp"

#include "cli/runtime_dir.hpp"
#include "platform/beneath.hpp"
#include "platform/system.hpp"
#include "serve/html_text.hpp"
#include "serve/page_style.hpp"
#include "serve/path_rules.hpp"
#include "serve/protected_path.hpp"
#include "serve/search.hpp"

#include <charconv>
#include <sys/stat.h>

namespace tovel::serve {

namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1048576;
constexpr std::uint64_t kGiB = 1073741824;

std::string_view trimSlashes(std::string_view path) {
    while (!path.empty() && path.front() == '/')
        path.remove_prefix(1);
    while (!path.empty() && path.back() == '/')
        path.remove_suffix(1);
    return path;
}

HiddenFiles inverted(HiddenFiles hidden) {
    return hidden == HiddenFiles::Shown ? HiddenFiles::Hidden : HiddenFiles::Shown;
}

// The search form submits "q" form-encoded: "+" stands for a space and
// "%XX" for a byte. A malformed escape is kept as typed. The query is cut to
// the form's 128-byte limit.
std::string decodeQuery(std::string_view raw) {
    std::string query;
    for (std::size_t i = 0; i < raw.size() && query.size() < kMaxQueryLength; ++i) {
        char c = raw[i];
        if (c == '+') {
            c = ' ';
        } else if (c == '%' && i + 2 < raw.size() && hexDigitValue(raw[i + 1]) >= 0 &&
                   hexDigitValue(raw[i + 2]) >= 0) {
            c = static_cast<char>(hexDigitValue(raw[i + 1]) * 16 + hexDigitValue(raw[i + 2]));
            i += 2;
        }
        query.push_back(c);
    }
    return query;
}

// One decimal, rounded: 1536 bytes in KiB is "1.5".
void appendScaled(std::string& out, std::uint64_t size, std::uint64_t unit) {
    std::uint64_t tenths = (size * 10 + unit / 2) / unit;
    appendDecimal(out, tenths / 10);
    out.push_back('.');
    appendDecimal(out, tenths % 10);
}

void appendSize(std::string& out, std::uint64_t size) {
    if (size < kKiB) {
        appendDecimal(out, size);
        out.append(" B");
    } else if (size < kMiB) {
        appendScaled(out, size, kKiB);
        out.append(" KiB");
    } else if (size < kGiB) {
        appendScaled(out, size, kMiB);
        out.append(" MiB");
    } else {
        appendScaled(out, size, kGiB);
        out.append(" GiB");
    }
}

class Page {
  public:
    Page(BodyWriter& out, const BrowserPageRequest& request)
        : out_(out), request_(request), relative_(trimSlashes(request.relativePath)) {}

    Result<> write(std::string_view query) {
        TRY(writeHeader());
        TRY(writeBreadcrumbs());
        TRY(writeWarnings());
        TRY(writeSearchForm(query));
        if (!query.empty()) {
            SearchRequest search{query, relative_, request_.hiddenFiles, request_.directory};
            TRY(writeSearchResults(out_, search));
        } else {
            TRY(writeListing());
        }
        TRY(out_.write(kPageScript));
        return out_.write("</main></body></html>");
    }

  private:
    Result<> writeHeader() {
        text_.assign("<!doctype html><html lang=\"en\"><head><meta charset=\"utf-8\">"
                     "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">"
                     "<title>Tovel Remote Files</title><style>");
        text_.append(kPageStyle);
        text_.append("</style></head><body><main><header><div><h1>Remote files</h1>"
                     "<div class=\"root\">");
        appendHtmlEscaped(text_, request_.rootRealPath);
        text_.append("</div></div><div class=\"toolbar\"><a class=\"button secondary\" href=\"");
        appendBrowserLink(text_, relative_, inverted(request_.hiddenFiles));
        text_.append("\">");
        text_.append(request_.hiddenFiles == HiddenFiles::Shown ? "Hide dotfiles"
                                                                : "Show dotfiles");
        text_.append("</a></div></header><nav class=\"crumbs\">");
        return out_.write(text_);
    }

    Result<> writeBreadcrumbs() {
        text_.assign("<a href=\"");
        appendBrowserLink(text_, "", request_.hiddenFiles);
        text_.append("\">~</a>");
        std::size_t start = 0;
        while (start < relative_.size()) {
            std::size_t slash = relative_.find('/', start);
            std::size_t end = slash == std::string_view::npos ? relative_.size() : slash;
            text_.append("<span class=\"slash\">/</span><a href=\"");
            appendBrowserLink(text_, relative_.substr(0, end), request_.hiddenFiles);
            text_.append("\">");
            appendHtmlEscaped(text_, relative_.substr(start, end - start));
            text_.append("</a>");
            start = end + 1;
        }
        text_.append("</nav>");
        return out_.write(text_);
    }

    Result<> writeWarnings() {
        text_.clear();
        if (request_.hiddenFiles == HiddenFiles::Shown)
            text_.append("<div class=\"warning\"><strong>Hidden files are visible.</strong> "
                         "Credential stores, private keys, and common secret files remain "
                         "protected.</div>");
        if (!isInside(request_.directoryRealPath, request_.rootRealPath)) {
            text_.append("<div class=\"warning external\"><strong>External symlink mount."
                         "</strong> You are browsing outside the selected root at <span "
                         "class=\"root\">");
            appendHtmlEscaped(text_, request_.directoryRealPath);
            text_.append("</span>.</div>");
        }
        return text_.empty() ? Result<>{} : out_.write(text_);
    }

    Result<> writeSearchForm(std::string_view query) {
        text_.assign("<form method=\"get\">");
        if (request_.hiddenFiles == HiddenFiles::Shown)
            text_.append("<input type=\"hidden\" name=\"hidden\" value=\"1\">");
        text_.append("<input name=\"q\" maxlength=\"128\" placeholder=\"Search names and text "
                     "below this folder\" value=\"");
        appendHtmlEscaped(text_, query);
        text_.append("\"><button type=\"submit\">Search subtree</button></form>");
        return out_.write(text_);
    }

    Result<> writeListing() {
        TRY(out_.write("<section><table><thead><tr><th></th><th>Name</th><th>Size</th>"
                       "<th>Actions</th></tr></thead><tbody>"));
        bool wroteRow = false;
        if (request_.directory != nullptr) {
            for (;;) {
                auto next = request_.directory->next();
                if (!next || !*next)
                    break;
                std::string name((*next)->name);
                if (request_.hiddenFiles == HiddenFiles::Hidden && name.front() == '.')
                    continue;
                TRY(writeRow(name));
                wroteRow = true;
            }
        }
        if (!wroteRow)
            TRY(out_.write(
                "<tr><td colspan=\"4\" class=\"empty\">This folder is empty.</td></tr>"));
        return out_.write("</tbody></table></section>");
    }

    Result<> writeRow(const std::string& name) {
        std::string relative = relative_.empty() ? name : std::string(relative_) + "/" + name;
        std::string fullPath = joinPath(request_.directoryRealPath, name);
        auto status = request_.directory->statEntry(name, sys::FollowLinks::No);
        bool isDirectory = status && S_ISDIR(status->st_mode);
        bool isLink = status && S_ISLNK(status->st_mode);
        bool isRegular = status && S_ISREG(status->st_mode);
        std::optional<std::string> linkTarget;
        std::optional<std::string> linkRealPath;
        bool directoryLike = isDirectory;
        if (isLink) {
            auto target = sys::readlinkAt(request_.directory->fd(), name);
            if (target)
                linkTarget = std::move(*target);
            auto real = sys::realpath(fullPath);
            if (real) {
                auto targetStatus = sys::stat(*real);
                directoryLike = targetStatus && S_ISDIR(targetStatus->st_mode);
                linkRealPath = std::move(*real);
            }
        }
        bool isProtected = isProtectedPath(relative);

        text_.assign("<tr><td class=\"kind\">");
        text_.append(isDirectory ? "\U0001F4C1" : isLink ? "\u2197" : "\U0001F4C4");
        text_.append("</td><td class=\"name\"><a href=\"");
        std::string rawUrl;
        appendRawUrl(rawUrl, relative);
        if (directoryLike)
            appendBrowserLink(text_, relative, request_.hiddenFiles);
        else
            text_.append(rawUrl);
        text_.append("\">");
        appendHtmlEscaped(text_, name);
        text_.append("</a>");
        if (isProtected)
            text_.append("<span class=\"badge\">Protected</span>");
        if (isLink) {
            text_.append("<span class=\"detail\">\u2192 ");
            appendHtmlEscaped(text_, linkTarget.value_or(""));
            if (linkRealPath && !isInside(*linkRealPath, request_.rootRealPath))
                text_.append(" \u00b7 outside selected root");
            text_.append("</span>");
        }
        text_.append("</td><td class=\"size\">");
        if (isRegular)
            appendSize(text_, static_cast<std::uint64_t>(status->st_size));
        text_.append("</td><td class=\"actions\"><div class=\"actions\">");
        if (!directoryLike && !isProtected) {
            text_.append("<a class=\"button secondary\" href=\"").append(rawUrl);
            text_.append("\">Open</a><a class=\"button secondary\" href=\"").append(rawUrl);
            text_.append("?download=1\">Download</a>");
        }
        text_.append("<button type=\"button\" class=\"secondary\" data-copy-path=\"");
        appendHtmlEscaped(text_, fullPath);
        text_.append("\">Copy path</button></div></td></tr>");
        return out_.write(text_);
    }

    BodyWriter& out_;
    const BrowserPageRequest& request_;
    std::string_view relative_;
    std::string text_;
};

} // namespace

Result<> writeBrowserPage(BodyWriter& out, const BrowserPageRequest& request) {
    std::string query = request.rawQuery ? decodeQuery(*request.rawQuery) : std::string();
    return Page(out, request).write(query);
}

} // namespace tovel::serve
