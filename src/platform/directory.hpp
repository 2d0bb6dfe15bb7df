// Reading directories: an RAII reader over one open directory, and the
// *at() calls that look at its entries without building paths.
#pragma once

#include "platform/result.hpp"
#include "platform/unique_fd.hpp"

#include <optional>
#include <string_view>

#include <dirent.h>
#include <sys/stat.h>

namespace tovel::sys {

enum class EntryType { Directory, Regular, SymbolicLink, Other, Unknown };

struct DirectoryEntry {
    std::string_view name;               // valid until the next call to next()
    EntryType type = EntryType::Unknown; // from d_type; Unknown on some filesystems
};

enum class FollowLinks { No, Yes };

class DirectoryReader {
  public:
    // Opens `path` (O_DIRECTORY, close-on-exec).
    [[nodiscard]] static Result<DirectoryReader> open(std::string_view path);
    // Reads the directory open on `fd` (fdopendir); the reader owns it.
    [[nodiscard]] static Result<DirectoryReader> fromDescriptor(UniqueFd fd);
    // Opens the directory `name` inside this one.
    [[nodiscard]] Result<DirectoryReader> openChild(std::string_view name) const;

    DirectoryReader(DirectoryReader&& other) noexcept;
    DirectoryReader& operator=(DirectoryReader&& other) noexcept;
    DirectoryReader(const DirectoryReader&) = delete;
    ~DirectoryReader();

    // The next entry, skipping "." and ".."; nullopt at the end.
    [[nodiscard]] Result<std::optional<DirectoryEntry>> next();

    // fstatat on an entry of this directory.
    [[nodiscard]] Result<struct stat> statEntry(std::string_view name, FollowLinks follow) const;
    // openat on an entry of this directory (close-on-exec added).
    [[nodiscard]] Result<UniqueFd> openEntry(std::string_view name, int flags) const;

    [[nodiscard]] int fd() const;

  private:
    explicit DirectoryReader(DIR* stream) : stream_(stream) {}
    DIR* stream_ = nullptr;
};

} // namespace tovel::sys
