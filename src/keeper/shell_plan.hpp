// Everything the shell's forked child needs, built before the fork: the
// program to run, its argument vector, the candidate paths of a PATH search
// and the set-up errors the child must report at their step. After the fork
// the child only reads this.
#pragma once

#include "platform/error.hpp"
#include "platform/spawn.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tovel {

constexpr std::size_t kMaxShellPathLength = 4095;
constexpr std::size_t kMaxLoginNameLength = 4094;
constexpr std::size_t kMaxCommandLength = 65535;
constexpr std::size_t kMaxWorkingDirectoryLength = 4095;
constexpr std::string_view kFallbackShell = "/bin/bash";
// Run through the login shell so that its start-up files apply: clears a TERM
// trap the login files may have set, then becomes the shell running the
// command. Inside it $1 is the command and $2 the shell path.
constexpr std::string_view kCommandScript = "trap - TERM; exec \"$2\" -c \"$1\"";
constexpr std::string_view kCommandScriptName = "tovel-command";

struct ShellPlan {
    std::string cwd; // empty: stay in the keeper's directory
    std::optional<Error> cwdError;
    std::optional<Error> shellError; // SHELL too long
    std::optional<Error> argvError;  // command or login name too long
    std::string shellPath;
    std::vector<std::string> arguments;
    std::vector<char*> argv; // points into `arguments`, NULL-terminated
    // The paths to try in order: the shell path itself when it holds a "/",
    // else each PATH directory joined with it.
    std::vector<std::string> candidates;
};

// `shellVariable` is SHELL's value, nullopt when the variable is absent;
// `pathVariable` likewise for PATH.
[[nodiscard]] ShellPlan planShell(std::string_view cmd, std::string_view cwd,
                                  std::optional<std::string_view> shellVariable,
                                  std::optional<std::string_view> pathVariable);

// The login shell's argument zero: "-" and the base name of `shellPath`
// (trailing slashes removed; empty for an empty or all-slash path).
[[nodiscard]] std::string loginName(std::string_view shellPath);

} // namespace tovel
