// Building the shell child's plan before the fork.
#include "keeper/shell_plan.hpp"

namespace tovel {

std::string loginName(std::string_view shellPath) {
    while (!shellPath.empty() && shellPath.back() == '/')
        shellPath.remove_suffix(1);
    std::size_t slash = shellPath.rfind('/');
    std::string_view base =
        slash == std::string_view::npos ? shellPath : shellPath.substr(slash + 1);
    std::string name = "-";
    name.append(base);
    return name;
}

ShellPlan planShell(std::string_view cmd, std::string_view cwd,
                    std::optional<std::string_view> shellVariable,
                    std::optional<std::string_view> pathVariable) {
    ShellPlan plan;
    plan.cwd = std::string(cwd);
    if (cwd.size() > kMaxWorkingDirectoryLength)
        plan.cwdError = Error::NameTooLong;

    // A SHELL that is present but empty is used as it stands: the exec then
    // fails and the user learns that their SHELL is broken.
    plan.shellPath = std::string(shellVariable.value_or(kFallbackShell));
    if (plan.shellPath.size() > kMaxShellPathLength)
        plan.shellError = Error::ShellPathTooLong;

    if (!cmd.empty()) {
        if (cmd.size() > kMaxCommandLength)
            plan.argvError = Error::CommandTooLong;
        plan.arguments = {plan.shellPath,
                          "-lic",
                          std::string(kCommandScript),
                          std::string(kCommandScriptName),
                          std::string(cmd),
                          plan.shellPath};
    } else {
        std::string name = loginName(plan.shellPath);
        if (name.size() - 1 > kMaxLoginNameLength)
            plan.argvError = Error::ShellNameTooLong;
        plan.arguments = {std::move(name)};
    }
    plan.argv = argumentPointers(plan.arguments);
    plan.candidates = programCandidates(plan.shellPath, pathVariable);
    return plan;
}

} // namespace tovel
