// Reading /proc/net/unix.
#include "platform/unix_socket_table.hpp"

#include "platform/system.hpp"

#include <fcntl.h>

namespace tovel::sys {

namespace {

constexpr std::string_view kTablePath = "/proc/net/unix";
constexpr std::size_t kReadChunk = 65536;
// Fields of a line: Num RefCount Protocol Flags Type St Inode Path.
constexpr std::size_t kFlagsField = 3;
constexpr std::size_t kPathField = 7;
// __SO_ACCEPTCON in the Flags field: the socket is listening.
constexpr std::string_view kListeningFlags = "00010000";

Result<std::string> readWhole(std::string_view path) {
    UniqueFd fd = TRY(open(path, O_RDONLY));
    std::string text;
    for (;;) {
        std::size_t used = text.size();
        text.resize(used + kReadChunk);
        std::size_t got = TRY(read(fd.get(), std::span(text.data() + used, kReadChunk)));
        text.resize(used + got);
        if (got == 0)
            return text;
    }
}

// The blank-separated fields of one line; the path is the last one.
std::vector<std::string_view> fieldsOf(std::string_view line) {
    std::vector<std::string_view> fields;
    while (!line.empty()) {
        std::size_t start = line.find_first_not_of(' ');
        if (start == std::string_view::npos)
            break;
        line.remove_prefix(start);
        std::size_t end = line.find(' ');
        fields.push_back(line.substr(0, end));
        line.remove_prefix(end == std::string_view::npos ? line.size() : end);
    }
    return fields;
}

} // namespace

Result<std::vector<std::string>> listeningAbstractNames(std::string_view prefix) {
    std::string table = TRY(readWhole(kTablePath));
    std::vector<std::string> names;
    std::string_view rest = table;
    while (!rest.empty()) {
        std::size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        auto fields = fieldsOf(line);
        if (fields.size() <= kPathField || fields[kFlagsField] != kListeningFlags)
            continue;
        std::string_view path = fields[kPathField];
        // The kernel shows an abstract name's leading NUL byte as "@".
        if (path.empty() || path.front() != '@')
            continue;
        path.remove_prefix(1);
        if (path.starts_with(prefix))
            names.emplace_back(path);
    }
    return names;
}

} // namespace tovel::sys
