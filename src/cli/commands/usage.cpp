// The usage text, byte for byte, --help and --version.
#include "cli/commands/usage.hpp"

#include "cli/version.hpp"

#include <string>

namespace tovel {

const std::string_view kUsageText =
    "tovel-ptyd \xe2\x80\x94 persistent-PTY keeper for Tovel\n"
    "\n"
    "Usage:\n"
    "  tovel-ptyd ensure  <id> [--cols N] [--rows R] [--cmd path] [--cwd dir]\n"
    "      [--workspace-id UUID --replica-id UUID --lease-generation N]\n"
    "      [--migration-id UUID] [--agent-kind NAME] [--adapter-id NAME]\n"
    "      Attach if a keeper for <id> is live, else spawn one bound\n"
    "      to that exact id and attach. The app entry point; <id> is\n"
    "      the workspace UUID (32 hex chars). Idempotent.\n"
    "  tovel-ptyd new      [--cols N] [--rows R] [--cmd path] [--cwd dir]\n"
    "      Spawn a fresh keeper with a random id; print the id.\n"
    "  tovel-ptyd list     [--json]\n"
    "  tovel-ptyd preflight [--session id] [--cwd dir] [--executable name] [--json]\n"
    "      Validate the requested directory/tool and return typed readiness.\n"
    "  tovel-ptyd inspect  <id> [--json]\n"
    "  tovel-ptyd attach   <id>\n"
    "  tovel-ptyd connect  [--cols N] [--rows R]\n"
    "      Spawn a fresh keeper and attach in one process.\n"
    "      The id is exported as TOVEL_SHELL_ID before exec.\n"
    "  tovel-ptyd kill     <id> [--force]\n"
    "  tovel-ptyd serve    <dir> [--port N] [--browser] [--browse-mode] [--idle-timeout N]\n"
    "      Foreground static file server on 127.0.0.1 rooted at <dir>.\n"
    "      --browser asserts support for the file browser at /__tovel/.\n"
    "      --browse-mode redirects raw directory URLs into the browser.\n"
    "      --idle-timeout exits after N seconds without a request.\n"
    "      Port 0 (default) auto-selects; the chosen port is printed as\n"
    "      `TOVEL_PTYD_SERVE_PORT <n>`. Runs until the SSH channel drops.\n";

CommandResult printHelp(Args) {
    printStdout(kUsageText);
    return kExitSuccess;
}

CommandResult printVersion(Args) {
    std::string line = "tovel-ptyd v";
    line.append(kVersion);
    line.push_back('\n');
    printStdout(line);
    return kExitSuccess;
}

} // namespace tovel
