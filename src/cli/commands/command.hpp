// What every command handler receives and returns: the arguments after its
// command word, and an exit status (0..255) or an error name.
#pragma once

#include "platform/result.hpp"

#include <span>
#include <string_view>

namespace tovel {

using Args = std::span<const std::string_view>;
using CommandResult = Result<int>;

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitRefused = 3;
constexpr int kExitExecFailed = 127;
constexpr int kExitInterrupted = 130;

// The two forms of the reporting commands (list, inspect, preflight).
enum class OutputFormat { Text, Json };

// Writes a command's result to standard output (write errors are ignored:
// the reader has gone).
void printStdout(std::string_view text);

// Takes "--dir" and its value at args[i] (advancing i past the value):
// DuplicateOption the second time, MissingOptionValue without a value,
// InvalidDirectory unless the value is absolute. The front end has already
// exported it; commands only check it.
[[nodiscard]] Result<> takeDirOption(Args args, std::size_t& i, bool& seen);

// "<command>: invalid arguments (<ErrorName>)\n" on standard error; status 2.
int reportInvalidArguments(std::string_view command, Error error);

// The line naming an unusable TOVEL_PTYD_DETACH_KEY value on standard
// error; status 2.
int reportInvalidDetachKey(std::string_view value);

} // namespace tovel
