// Building the shell child's plan before the fork.
#include "keeper/shell_plan.hpp"

#include "platform/process.hpp"

extern char** environ;

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

std::vector<std::string> programCandidates(std::string_view program,
                                           std::optional<std::string_view> pathVariable) {
    if (program.empty() || program.find('/') != std::string_view::npos)
        return {std::string(program)};
    std::string_view search = pathVariable.value_or(kDefaultSearchPath);
    std::vector<std::string> candidates;
    for (;;) {
        std::size_t colon = search.find(':');
        std::string_view directory = search.substr(0, colon);
        // An empty entry means the current directory, as in the shell.
        std::string candidate = directory.empty() ? std::string(".") : std::string(directory);
        if (candidate.back() != '/')
            candidate.push_back('/');
        candidate.append(program);
        candidates.push_back(std::move(candidate));
        if (colon == std::string_view::npos)
            break;
        search.remove_prefix(colon + 1);
    }
    return candidates;
}

Error execCandidates(const std::vector<std::string>& candidates, char* const argv[]) {
    Error reported = Error::FileNotFound;
    bool sawAccessDenied = false;
    for (const auto& candidate : candidates) {
        Error error = sys::execve(candidate.c_str(), argv, environ).error();
        if (error == Error::AccessDenied)
            sawAccessDenied = true;
        reported = error;
        if (error != Error::FileNotFound && error != Error::NotDir && error != Error::AccessDenied)
            break;
    }
    // A permission failure on any candidate is more telling than a later
    // "not found".
    return sawAccessDenied && reported != Error::InvalidExe ? Error::AccessDenied : reported;
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
    for (auto& argument : plan.arguments)
        plan.argv.push_back(argument.data());
    plan.argv.push_back(nullptr);
    plan.candidates = programCandidates(plan.shellPath, pathVariable);
    return plan;
}

} // namespace tovel
