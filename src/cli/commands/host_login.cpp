// What this host does to a user's processes at logout, read from its files:
// logind's configuration (KillUserProcesses and the user lists) and the
// user's linger flag. The doctor command reports on it.
#include "cli/commands/host_login.hpp"

#include "platform/decimal.hpp"
#include "platform/directory.hpp"
#include "platform/env.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <array>
#include <fcntl.h>
#include <map>
#include <unistd.h>
#include <vector>

namespace tovel {

namespace {

// The system files are looked up below TOVEL_PTYD_DOCTOR_ROOT when it is
// set: an administrator can examine a mounted image of another host, and
// the test suites examine prepared files. Paths taken from the user's own
// environment (TERMINFO, HOME, the runtime directory) are used as they are.
constexpr std::string_view kRootVariable = "TOVEL_PTYD_DOCTOR_ROOT";
constexpr std::size_t kMaxConfigFile = 1 << 20;

std::optional<std::string> readTextFile(const std::string& path) {
    auto fd = sys::open(path, O_RDONLY);
    if (!fd)
        return std::nullopt;
    std::string text;
    char chunk[4096];
    while (text.size() < kMaxConfigFile) {
        auto got = sys::read(fd->get(), std::span(chunk));
        if (!got || *got == 0)
            break;
        text.append(chunk, *got);
    }
    return text;
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r";
    std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

template <typename Visit> void forEachLine(std::string_view text, Visit visit) {
    while (!text.empty()) {
        std::size_t end = std::min(text.find('\n'), text.size());
        visit(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

// What logind does at logout, as far as its configuration says.
struct LoginPolicy {
    bool killUserProcesses = false;
    std::vector<std::string> killOnlyUsers;
    std::vector<std::string> killExcludeUsers{"root"};

    [[nodiscard]] bool kills(std::string_view user) const {
        if (!killUserProcesses)
            return false;
        if (std::ranges::find(killExcludeUsers, user) != killExcludeUsers.end())
            return false;
        return killOnlyUsers.empty() ||
               std::ranges::find(killOnlyUsers, user) != killOnlyUsers.end();
    }
};

std::optional<bool> parseBoolean(std::string_view value) {
    std::string lower(value);
    std::ranges::transform(lower, lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
    });
    for (std::string_view yes : {"1", "yes", "y", "true", "t", "on"}) {
        if (lower == yes)
            return true;
    }
    for (std::string_view no : {"0", "no", "n", "false", "f", "off"}) {
        if (lower == no)
            return false;
    }
    return std::nullopt;
}

// A user list setting: an empty value empties it, words are appended.
void applyUserList(std::vector<std::string>& list, std::string_view value) {
    if (value.empty()) {
        list.clear();
        return;
    }
    while (!value.empty()) {
        std::size_t end = std::min(value.find_first_of(" \t"), value.size());
        if (end > 0)
            list.emplace_back(value.substr(0, end));
        value.remove_prefix(std::min(end + 1, value.size()));
    }
}

void applyLogindFile(LoginPolicy& policy, std::string_view text) {
    bool inLogin = false;
    forEachLine(text, [&](std::string_view raw) {
        std::string_view line = trim(raw);
        if (line.empty() || line.front() == '#' || line.front() == ';')
            return;
        if (line.front() == '[') {
            inLogin = line == "[Login]";
            return;
        }
        std::size_t equals = line.find('=');
        if (!inLogin || equals == std::string_view::npos)
            return;
        std::string_view name = trim(line.substr(0, equals));
        std::string_view value = trim(line.substr(equals + 1));
        if (name == "KillUserProcesses") {
            if (auto flag = parseBoolean(value))
                policy.killUserProcesses = *flag;
        } else if (name == "KillOnlyUsers") {
            applyUserList(policy.killOnlyUsers, value);
        } else if (name == "KillExcludeUsers") {
            applyUserList(policy.killExcludeUsers, value);
        }
    });
}

// logind reads the first main file found in these places, then every
// logind.conf.d/*.conf of all of them in the order of their names; of two
// drop-ins with the same name the one in the earlier place wins.
constexpr std::array<std::string_view, 4> kConfigPlaces{
    "/etc/systemd", "/run/systemd", "/usr/local/lib/systemd", "/usr/lib/systemd"};

LoginPolicy readLoginPolicy() {
    LoginPolicy policy;
    for (std::string_view place : kConfigPlaces) {
        if (auto text = readTextFile(systemPath(place) + "/logind.conf")) {
            applyLogindFile(policy, *text);
            break;
        }
    }
    std::map<std::string, std::string> dropIns;
    for (std::string_view place : kConfigPlaces) {
        std::string directory = systemPath(place) + "/logind.conf.d";
        auto reader = sys::DirectoryReader::open(directory);
        while (reader) {
            auto entry = reader->next();
            if (!entry || !*entry)
                break;
            std::string name((*entry)->name);
            if (name.ends_with(".conf"))
                dropIns.try_emplace(name, directory + "/" + name);
        }
    }
    for (const auto& [name, path] : dropIns) {
        if (auto text = readTextFile(path))
            applyLogindFile(policy, *text);
    }
    return policy;
}

} // namespace

std::string systemPath(std::string_view path) {
    return std::string(sys::getEnv(kRootVariable).value_or("")).append(path);
}

bool isRegularFile(const std::string& path) {
    auto info = sys::stat(path);
    return info && S_ISREG(info->st_mode);
}

// The user's name for the linger file: the password file's entry for the
// real user id, else the login environment's, else the number itself.
std::string loginUserName() {
    std::string uid = decimal(::getuid());
    std::string name;
    if (auto passwd = readTextFile(systemPath("/etc/passwd"))) {
        forEachLine(*passwd, [&](std::string_view line) {
            std::size_t first = line.find(':');
            std::size_t second = line.find(':', first + 1);
            std::size_t third = line.find(':', second + 1);
            if (name.empty() && third != std::string_view::npos &&
                line.substr(second + 1, third - second - 1) == uid)
                name = line.substr(0, first);
        });
    }
    if (!name.empty())
        return name;
    for (std::string_view variable : {"USER", "LOGNAME"}) {
        if (auto value = sys::getEnv(variable); value && !value->empty())
            return std::string(*value);
    }
    return uid;
}

bool logindKillsAtLogout(std::string_view user) {
    return readLoginPolicy().kills(user);
}

bool userLingers(std::string_view user) {
    return isRegularFile(systemPath("/var/lib/systemd/linger/") + std::string(user));
}

} // namespace tovel
