// The `attach` command, and the exit status every attaching command ends with.
#pragma once

#include "cli/commands/command.hpp"
#include "client/attach.hpp"

namespace tovel {

[[nodiscard]] CommandResult runAttach(Args args);

// The shell's own status when the session ended; 0 when the keyboard closed
// or the detach key was pressed; 130 when interrupted; 3 when the keeper is
// another build.
[[nodiscard]] int attachExitStatus(const AttachEnd& end);

} // namespace tovel
