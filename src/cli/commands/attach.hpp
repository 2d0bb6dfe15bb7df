// The `attach` command, and how every attaching command ends.
#pragma once

#include "cli/commands/command.hpp"
#include "client/attach.hpp"

namespace tovel {

[[nodiscard]] CommandResult runAttach(Args args);

// Prints the protocol-mismatch line when the keeper is another build, and
// gives the exit status: the shell's own when the session ended; 0 when the
// keyboard closed or the detach key was pressed; 130 when interrupted; 3
// when the keeper is another build.
[[nodiscard]] int finishAttach(const AttachEnd& end);

} // namespace tovel
