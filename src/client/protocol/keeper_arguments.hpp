// The keeper process's command line, written by the launcher and read back
// by the keeper's entry: "<executable> --keeper-exec" and twelve texts in one
// fixed order (an empty text means absent); and the byte the keeper then
// writes on its ready descriptor.
#pragma once

#include "cli/spawn_options.hpp"
#include "platform/result.hpp"

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tovel {

constexpr std::string_view kKeeperExecWord = "--keeper-exec";
constexpr char kKeeperReadyByte = 'R';
constexpr char kKeeperFailedByte = 'F';

struct KeeperLaunch {
    std::string id;
    SpawnOptions options;
    int readyFd = -1;
};

// The whole vector, `executable` and the word first.
[[nodiscard]] std::vector<std::string> encodeKeeperArguments(std::string_view executable,
                                                             const KeeperLaunch& launch);

// The texts after the word, checked in order: their count, the id, the
// dimensions, the ready descriptor, the lease generation, then the portable
// metadata as a whole.
[[nodiscard]] Result<KeeperLaunch> decodeKeeperArguments(std::span<const std::string_view> texts);

// Every user can read a process's arguments (ps, /proc/<pid>/cmdline), and
// the command, directory and lease texts may hold secrets. `texts` must view
// this process's own, writable argument strings: from the command on, their
// bytes are zeroed in place, so what stays visible is the id and the sizes.
void hideKeeperSecrets(std::span<const std::string_view> texts);

} // namespace tovel
