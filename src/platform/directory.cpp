// Reading directories.
#include "platform/directory.hpp"

#include "platform/retry.hpp"
#include "platform/system.hpp"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <utility>

namespace tovel::sys {

namespace {

EntryType entryType(unsigned char type) {
    switch (type) {
    case DT_DIR:
        return EntryType::Directory;
    case DT_REG:
        return EntryType::Regular;
    case DT_LNK:
        return EntryType::SymbolicLink;
    case DT_UNKNOWN:
        return EntryType::Unknown;
    default:
        return EntryType::Other;
    }
}

// Hands the descriptor to a directory stream, which then owns it.
Result<DIR*> adopt(UniqueFd fd) {
    DIR* stream = ::fdopendir(fd.get());
    if (stream == nullptr)
        return fail(errorFromErrno(errno));
    (void)fd.release();
    return stream;
}

} // namespace

Result<DirectoryReader> DirectoryReader::open(std::string_view path) {
    UniqueFd fd = TRY(sys::open(path, O_RDONLY | O_DIRECTORY));
    return DirectoryReader(TRY(adopt(std::move(fd))));
}

Result<DirectoryReader> DirectoryReader::fromDescriptor(UniqueFd fd) {
    return DirectoryReader(TRY(adopt(std::move(fd))));
}

Result<DirectoryReader> DirectoryReader::openChild(std::string_view name) const {
    UniqueFd fd = TRY(openEntry(name, O_RDONLY | O_DIRECTORY));
    return DirectoryReader(TRY(adopt(std::move(fd))));
}

DirectoryReader::DirectoryReader(DirectoryReader&& other) noexcept
    : stream_(std::exchange(other.stream_, nullptr)) {}

DirectoryReader& DirectoryReader::operator=(DirectoryReader&& other) noexcept {
    if (this != &other) {
        if (stream_ != nullptr)
            ::closedir(stream_);
        stream_ = std::exchange(other.stream_, nullptr);
    }
    return *this;
}

DirectoryReader::~DirectoryReader() {
    if (stream_ != nullptr)
        ::closedir(stream_);
}

Result<std::optional<DirectoryEntry>> DirectoryReader::next() {
    for (;;) {
        errno = 0;
        dirent* entry = ::readdir(stream_);
        if (entry == nullptr) {
            if (errno != 0)
                return fail(errorFromErrno(errno));
            return std::optional<DirectoryEntry>{};
        }
        std::string_view name(entry->d_name);
        if (name == "." || name == "..")
            continue;
        return std::optional<DirectoryEntry>{DirectoryEntry{name, entryType(entry->d_type)}};
    }
}

Result<struct stat> DirectoryReader::statEntry(std::string_view name, FollowLinks follow) const {
    struct stat st {};
    int flags = follow == FollowLinks::No ? AT_SYMLINK_NOFOLLOW : 0;
    if (::fstatat(fd(), std::string(name).c_str(), &st, flags) != 0)
        return fail(errorFromErrno(errno));
    return st;
}

Result<UniqueFd> DirectoryReader::openEntry(std::string_view name, int flags) const {
    std::string path(name);
    int opened = retryOnInterrupt([&] { return ::openat(fd(), path.c_str(), flags | O_CLOEXEC); });
    if (opened < 0)
        return fail(errorFromErrno(errno));
    return UniqueFd(opened);
}

int DirectoryReader::fd() const {
    return ::dirfd(stream_);
}

} // namespace tovel::sys
