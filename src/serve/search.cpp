// The bounded subtree search.
#include "serve/search.hpp"
#include "platform/decimal.hpp"

#include "platform/system.hpp"
#include "serve/html_text.hpp"
#include "serve/protected_path.hpp"

#include <array>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <memory>

namespace tovel::serve {

namespace {

constexpr int kMaxResults = 200;
constexpr std::uint64_t kMaxFilesScanned = 5000;
constexpr std::uint64_t kMaxBytesScanned = 67108864;
constexpr int kMaxDepth = 11;
constexpr std::uint64_t kMaxMatchedFileSize = 2097152;
constexpr std::size_t kContentReadSize = 65536;
constexpr std::size_t kMaxSearchPath = 4096;

constexpr std::string_view kSkippedFolders[] = {"zig-out", "node_modules", ".git",   "zig-cache",
                                                ".cache",  ".build",       ".Trash", "DerivedData"};

char foldAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Position of `needle` (already lower case) in `haystack`, ASCII letters
// compared without case; npos when absent.
std::size_t findFolded(std::string_view haystack, std::string_view needle) {
    if (needle.size() > haystack.size())
        return std::string_view::npos;
    char first = needle[0];
    char firstUpper = first >= 'a' && first <= 'z' ? static_cast<char>(first - 'a' + 'A') : first;
    for (std::size_t i = 0; i + needle.size() <= haystack.size(); ++i) {
        char c = haystack[i];
        if (c != first && c != firstUpper)
            continue;
        std::size_t j = 1;
        while (j < needle.size() && foldAscii(haystack[i + j]) == needle[j])
            ++j;
        if (j == needle.size())
            return i;
    }
    return std::string_view::npos;
}

bool isSkippedFolder(std::string_view name) {
    for (std::string_view skipped : kSkippedFolders) {
        if (name == skipped)
            return true;
    }
    return false;
}

enum class Kind { FolderName, FileName, FileContents };

std::string_view kindText(Kind kind) {
    switch (kind) {
    case Kind::FolderName:
        return "folder name";
    case Kind::FileName:
        return "file name";
    case Kind::FileContents:
        return "file contents";
    }
    return "file name";
}

class Search {
  public:
    Search(BodyWriter& out, const SearchRequest& request)
        : out_(out), hidden_(request.hiddenFiles), path_(request.relativePath) {
        for (char c : request.query)
            query_.push_back(foldAscii(c));
        buffer_ = std::make_unique_for_overwrite<char[]>(kContentReadSize + kMaxQueryLength);
    }

    Result<> run(sys::DirectoryReader& directory) { return walk(directory, 0); }

    [[nodiscard]] int results() const { return results_; }
    [[nodiscard]] std::uint64_t filesScanned() const { return filesScanned_; }
    [[nodiscard]] std::uint64_t bytesScanned() const { return bytesScanned_; }
    [[nodiscard]] bool stopped() const { return stopped_; }

  private:
    bool countLimitReached() {
        if (results_ >= kMaxResults || filesScanned_ >= kMaxFilesScanned ||
            bytesScanned_ >= kMaxBytesScanned) {
            stopped_ = true;
            return true;
        }
        return false;
    }

    Result<bool> limitReached(int depth) {
        if (countLimitReached())
            return true;
        if (depth > kMaxDepth) {
            stopped_ = true;
            return true;
        }
        return false;
    }

    Result<> walk(sys::DirectoryReader& directory, int depth) {
        if (TRY(limitReached(depth)))
            return {};
        for (;;) {
            if (countLimitReached())
                return {};
            auto next = directory.next();
            if (!next || !*next)
                return {};
            std::string_view name = (*next)->name;
            if (hidden_ == HiddenFiles::Hidden && name.size() >= 2 && name.front() == '.')
                continue;
            std::size_t mark = path_.size();
            if (!path_.empty())
                path_.push_back('/');
            path_.append(name);
            auto visited = visit(directory, **next, depth);
            path_.resize(mark);
            TRY(visited);
        }
    }

    // Every entry is opened without following a link and without blocking
    // (a FIFO swapped in opens at once), and its kind is taken from what was
    // opened: a link swapped in after readdir is never walked into.
    Result<> visit(sys::DirectoryReader& directory, const sys::DirectoryEntry& entry, int depth) {
        if (path_.size() > kMaxSearchPath || isProtectedPath(path_))
            return {};
        if (entry.type == sys::EntryType::SymbolicLink || entry.type == sys::EntryType::Other)
            return {};
        std::string name(entry.name); // the entry's name outlives the next readdir
        if (entry.type == sys::EntryType::Directory && isSkippedFolder(name))
            return {};
        int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
        if (entry.type == sys::EntryType::Directory)
            flags |= O_DIRECTORY;
        auto opened = directory.openEntry(name, flags);
        if (!opened)
            return {};
        auto status = sys::fstat(opened->get());
        if (!status)
            return {};
        if (S_ISREG(status->st_mode))
            return visitFile(opened->get(), name, *status);
        if (!S_ISDIR(status->st_mode) || isSkippedFolder(name))
            return {};
        if (findFolded(name, query_) != std::string_view::npos)
            TRY(addResult(Kind::FolderName));
        auto child = sys::DirectoryReader::fromDescriptor(std::move(*opened));
        if (!child)
            return {};
        return walk(*child, depth + 1);
    }

    Result<> visitFile(int file, const std::string& name, const struct stat& status) {
        ++filesScanned_;
        auto size = static_cast<std::uint64_t>(status.st_size);
        if (size > kMaxMatchedFileSize)
            return {};
        bytesScanned_ += size;
        if (findFolded(name, query_) != std::string_view::npos)
            return addResult(Kind::FileName);
        if (contentsMatch(file))
            return addResult(Kind::FileContents);
        return {};
    }

    // Reads at most 2 MiB in 65536-byte reads, keeping the last bytes of
    // each read in front of the next so that a match may straddle two.
    bool contentsMatch(int file) {
        char* buffer = buffer_.get();
        std::size_t carried = 0;
        std::uint64_t total = 0;
        bool first = true;
        while (total < kMaxMatchedFileSize) {
            std::size_t want =
                std::min<std::uint64_t>(kContentReadSize, kMaxMatchedFileSize - total);
            auto got = sys::read(file, std::span(buffer + carried, want));
            if (!got || *got == 0)
                return false;
            std::string_view chunk(buffer + carried, *got);
            if (first && chunk.find('\0') != std::string_view::npos)
                return false;
            first = false;
            total += *got;
            std::string_view window(buffer, carried + *got);
            if (findFolded(window, query_) != std::string_view::npos)
                return true;
            carried = std::min(window.size(), query_.size() - 1);
            std::memmove(buffer, window.data() + window.size() - carried, carried);
        }
        return false;
    }

    Result<> addResult(Kind kind) {
        if (results_ >= kMaxResults) {
            stopped_ = true;
            return {};
        }
        ++results_;
        row_.assign("<tr><td class=\"kind\">\u2315</td><td class=\"name\"><a href=\"");
        if (kind == Kind::FolderName)
            appendBrowserLink(row_, path_, hidden_);
        else
            appendRawUrl(row_, path_);
        row_.append("\">");
        appendHtmlEscaped(row_, path_);
        row_.append("</a></td><td>").append(kindText(kind)).append("</td></tr>");
        return out_.write(row_);
    }

    BodyWriter& out_;
    HiddenFiles hidden_;
    std::string query_;
    std::string path_;
    std::string row_;
    std::unique_ptr<char[]> buffer_;
    int results_ = 0;
    std::uint64_t filesScanned_ = 0;
    std::uint64_t bytesScanned_ = 0;
    bool stopped_ = false;
};

} // namespace

Result<> writeSearchResults(BodyWriter& out, const SearchRequest& request) {
    TRY(out.write("<h2 class=\"search-title\">Search results</h2><section><table><thead><tr>"
                  "<th></th><th>Path</th><th>Match</th></tr></thead><tbody>"));
    Search search(out, request);
    if (request.directory != nullptr)
        TRY(search.run(*request.directory));
    if (search.results() == 0)
        TRY(out.write("<tr><td colspan=\"3\" class=\"empty\">No matches found.</td></tr>"));
    std::string note = "</tbody></table><div class=\"note\">";
    appendDecimal(note, static_cast<std::uint64_t>(search.results()));
    note.append(" result");
    if (search.results() != 1)
        note.push_back('s');
    note.append("; scanned ");
    appendDecimal(note, search.filesScanned());
    note.append(" files and ");
    appendDecimal(note, search.bytesScanned() / 1048576);
    note.append(" MiB.");
    if (search.stopped())
        note.append(" Search stopped at its safety limit; narrow the folder or query for more.");
    note.append("</div></section>");
    return out.write(note);
}

} // namespace tovel::serve
