// The `doctor` command: tells whether sessions on this host will outlive the
// user's logout and can be reattached, and what to change when they cannot.
// It reads the host's login policy (logind's KillUserProcesses and the
// user's lingering), looks at the runtime directory and its socket paths,
// looks up TERM's terminfo entry and asks every live keeper which protocol
// it speaks. It changes nothing beyond what `list` does (the files of a
// keeper that has died are removed while the sessions are enumerated).
#include "cli/commands/doctor.hpp"

#include "cli/commands/host_login.hpp"
#include "cli/commands/session_listing.hpp"
#include "cli/json_writer.hpp"
#include "cli/log.hpp"
#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "client/protocol/frame.hpp"
#include "client/protocol/session_address.hpp"
#include "platform/decimal.hpp"
#include "platform/env.hpp"
#include "platform/system.hpp"

#include <algorithm>
#include <poll.h>
#include <unistd.h>
#include <vector>

namespace tovel {

namespace {

constexpr int kProbeTimeoutMs = 1000;

enum class Level { Ok, Warning, Problem };

struct Finding {
    std::string_view check;
    Level level;
    std::string_view code;
    std::string message;
    std::string fix;
};

std::string_view levelName(Level level) {
    switch (level) {
    case Level::Ok:
        return "ok";
    case Level::Warning:
        return "warning";
    case Level::Problem:
        return "problem";
    }
    return "problem";
}

// Whether the directory lies in the user's /run/user/<uid>, which logind
// removes when the user's last login session ends, unless they linger.
bool isPerUserRuntimeDir(std::string_view directory) {
    std::string perUser = "/run/user/" + decimal(::getuid());
    return directory.starts_with(perUser) &&
           (directory.size() == perUser.size() || directory[perUser.size()] == '/');
}

// What this host does at logout, gathered once for the checks below.
struct LogoutFacts {
    std::string user;
    Result<std::string> directory;
    bool logindKills = false;
    bool lingering = false;
};

Finding checkLogind(const LogoutFacts& facts) {
    if (!facts.logindKills)
        return {"logind", Level::Ok, "logind_keeps_processes",
                "logind leaves the user's processes running at logout", ""};
    return {"logind", Level::Problem, "logind_kills_at_logout",
            "logind ends every process of the login session at logout "
            "(KillUserProcesses=yes), keepers included",
            "put KillExcludeUsers=" + facts.user +
                " in the [Login] section of a file in /etc/systemd/logind.conf.d/ and restart "
                "systemd-logind, or run `loginctl enable-linger " +
                facts.user +
                "` and start sessions outside the login session (systemd-run --user --scope)"};
}

Finding checkLinger(const LogoutFacts& facts) {
    if (facts.lingering)
        return {"linger", Level::Ok, "linger_enabled",
                "lingering is on for " + facts.user +
                    ": the user's runtime directory and services outlive logout",
                ""};
    bool needed = facts.logindKills || (facts.directory && isPerUserRuntimeDir(*facts.directory));
    if (!needed)
        return {"linger", Level::Ok, "linger_not_needed",
                "lingering is off for " + facts.user + ", which sessions here do not need", ""};
    return {"linger", Level::Warning, "linger_disabled",
            "lingering is off for " + facts.user +
                ": the per-user runtime directory and the user's services end at logout",
            "loginctl enable-linger " + facts.user};
}

Finding checkRuntimeDir(const LogoutFacts& facts) {
    const Result<std::string>& directory = facts.directory;
    if (!directory)
        return {"runtime_dir", Level::Problem, "runtime_dir_invalid",
                "no runtime directory can be chosen (" + std::string(errorName(directory.error())) +
                    ")",
                "set TOVEL_PTYD_DIR to an absolute directory"};
    if (facts.lingering || !isPerUserRuntimeDir(*directory))
        return {"runtime_dir", Level::Ok, "runtime_dir_kept", *directory + " is kept across logout",
                ""};
    return {"runtime_dir", Level::Warning, "runtime_dir_removed_at_logout",
            *directory + " lies in the per-user runtime directory, which is removed at logout; "
                         "sessions also listen on an abstract socket name and recreate their "
                         "files there, so they stay reachable",
            "loginctl enable-linger " + facts.user};
}

Finding checkSocketPath(const Result<std::string>& directory) {
    if (!directory)
        return {"socket_path", Level::Problem, "socket_path_unknown",
                "socket paths cannot be formed without a runtime directory",
                "set TOVEL_PTYD_DIR to an absolute directory"};
    constexpr std::size_t kSocketNameLength = kSessionIdLength + std::string_view(".sock").size();
    std::size_t length = directory->size() + 1 + kSocketNameLength;
    if (length < kUnixPathCapacity)
        return {"socket_path", Level::Ok, "socket_path_fits",
                "session socket paths are " + decimal(length) + " bytes (at most " +
                    decimal(kUnixPathCapacity - 1) + " fit)",
                ""};
    return {"socket_path", Level::Problem, "socket_path_too_long",
            "session socket paths are " + decimal(length) + " bytes, more than the " +
                decimal(kUnixPathCapacity - 1) + " a Unix socket address holds",
            "set TOVEL_PTYD_DIR to a directory of at most " +
                decimal(kUnixPathCapacity - 2 - kSocketNameLength) + " bytes"};
}

// Where the terminal libraries look for a compiled entry, in their order.
std::vector<std::string> terminfoDirectories() {
    std::vector<std::string> directories;
    if (auto own = sys::getEnv("TERMINFO"); own && !own->empty())
        directories.emplace_back(*own);
    if (auto home = sys::getEnv("HOME"); home && !home->empty())
        directories.push_back(joinPath(*home, ".terminfo"));
    std::string_view list = sys::getEnv("TERMINFO_DIRS").value_or("");
    while (!list.empty()) {
        std::size_t end = std::min(list.find(':'), list.size());
        std::string_view entry = list.substr(0, end);
        directories.push_back(entry.empty() ? systemPath("/usr/share/terminfo")
                                            : std::string(entry));
        list.remove_prefix(std::min(end + 1, list.size()));
    }
    for (std::string_view system :
         {"/etc/terminfo", "/lib/terminfo", "/usr/share/terminfo", "/usr/lib/terminfo"})
        directories.push_back(systemPath(system));
    return directories;
}

std::optional<std::string> findTerminfo(std::string_view term) {
    if (term.find('/') != std::string_view::npos)
        return std::nullopt;
    constexpr std::string_view kHexDigits = "0123456789abcdef";
    auto first = static_cast<unsigned char>(term.front());
    std::string letter(1, term.front());
    std::string hex{kHexDigits[first >> 4], kHexDigits[first & 0xf]};
    for (const std::string& directory : terminfoDirectories()) {
        for (const std::string& bucket : {letter, hex}) {
            std::string path = directory + "/" + bucket + "/" + std::string(term);
            if (isRegularFile(path))
                return path;
        }
    }
    return std::nullopt;
}

Finding checkTerminfo() {
    std::string_view term = sys::getEnv("TERM").value_or("");
    if (term.empty())
        return {"terminfo", Level::Warning, "term_unset",
                "TERM is not set, so its terminfo entry cannot be checked",
                "run doctor from the terminal you attach with"};
    if (auto path = findTerminfo(term))
        return {"terminfo", Level::Ok, "terminfo_found",
                "TERM=" + std::string(term) + " has a terminfo entry (" + *path + ")", ""};
    return {"terminfo", Level::Warning, "terminfo_missing",
            "TERM=" + std::string(term) +
                " has no terminfo entry here: programs in the session draw the screen wrongly",
            "copy the entry from the machine you type on (`infocmp -x " + std::string(term) +
                " | ssh <this host> tic -x -`) or attach with TERM=xterm-256color"};
}

// Hello, then Ping: a keeper of this protocol answers Pong, an older or
// newer one answers VersionMismatch with its own version.
std::optional<unsigned> keeperProtocolMismatch(std::string_view id) {
    auto socket = connect_session(id);
    if (!socket)
        return std::nullopt;
    char version = static_cast<char>(kProtocolVersion);
    if (!write_frame(socket->get(), FrameType::Hello, std::string_view(&version, 1)) ||
        !write_frame(socket->get(), FrameType::Ping, {}))
        return std::nullopt;
    pollfd entry{socket->get(), POLLIN, 0};
    auto ready = sys::poll(std::span(&entry, 1), kProbeTimeoutMs);
    if (!ready || *ready == 0)
        return std::nullopt;
    auto frame = read_frame(socket->get());
    if (!frame || !*frame ||
        (*frame)->type != static_cast<std::uint8_t>(FrameType::VersionMismatch))
        return std::nullopt;
    const std::string& payload = (*frame)->payload;
    return payload.empty() ? 0U : static_cast<std::uint8_t>(payload[0]);
}

// A keeper whose program file was replaced (an upgrade) runs an older build.
bool keeperBinaryReplaced(const SessionEntry& session) {
    if (!session.record.metadata.keeperPid)
        return false;
    auto target = sys::readlink("/proc/" + decimal(*session.record.metadata.keeperPid) + "/exe");
    return target && target->ends_with(" (deleted)");
}

void checkSessions(std::vector<Finding>& findings) {
    // An unusable runtime directory is the runtime-directory check's finding.
    auto listed = enumerateLiveSessions();
    if (!listed)
        return;
    const std::vector<SessionEntry>& sessions = *listed;
    std::size_t before = findings.size();
    for (const SessionEntry& session : sessions) {
        if (auto version = keeperProtocolMismatch(session.id)) {
            findings.push_back({"sessions", Level::Problem, "keeper_protocol_mismatch",
                                "session " + session.id + " runs a keeper of protocol v" +
                                    decimal(*version) + ", this build speaks v" +
                                    decimal(kProtocolVersion) + ": it cannot be attached",
                                "tovel-ptyd kill " + session.id + " (ends its shell)"});
        } else if (keeperBinaryReplaced(session)) {
            findings.push_back(
                {"sessions", Level::Warning, "keeper_binary_replaced",
                 "session " + session.id +
                     " runs a keeper whose program file has since been replaced "
                     "(an older build)",
                 "when convenient: tovel-ptyd kill " + session.id + ", then start it again"});
        }
    }
    if (findings.size() == before)
        findings.push_back({"sessions", Level::Ok, "sessions_current",
                            decimal(sessions.size()) + " live session(s), none on an older build",
                            ""});
}

std::vector<Finding> examineHost() {
    LogoutFacts facts{loginUserName(), chooseRuntimeDir()};
    facts.logindKills = logindKillsAtLogout(facts.user);
    facts.lingering = userLingers(facts.user);
    std::vector<Finding> findings;
    findings.push_back(checkRuntimeDir(facts));
    findings.push_back(checkSocketPath(facts.directory));
    findings.push_back(checkLogind(facts));
    findings.push_back(checkLinger(facts));
    findings.push_back(checkTerminfo());
    checkSessions(findings);
    return findings;
}

std::string formatText(const std::vector<Finding>& findings) {
    std::string text;
    for (const Finding& finding : findings) {
        text.append(levelName(finding.level))
            .append(" ")
            .append(finding.check)
            .append(": ")
            .append(finding.message);
        if (!finding.fix.empty())
            text.append("; fix: ").append(finding.fix);
        text.append("\n");
    }
    return text;
}

std::string formatJson(const std::vector<Finding>& findings, bool survives) {
    JsonWriter json;
    json.beginObject();
    json.key("protocol_version");
    json.number(1);
    json.key("survives_logout");
    json.boolean(survives);
    json.key("findings");
    json.beginArray();
    for (const Finding& finding : findings) {
        json.beginObject();
        json.key("check");
        json.string(finding.check);
        json.key("level");
        json.string(levelName(finding.level));
        json.key("code");
        json.string(finding.code);
        json.key("message");
        json.string(finding.message);
        json.key("fix");
        if (finding.fix.empty())
            json.null();
        else
            json.string(finding.fix);
        json.endObject();
    }
    json.endArray();
    json.endObject();
    return json.text() + "\n";
}

} // namespace

CommandResult runDoctor(Args args) {
    bool sawJson = false;
    bool sawDir = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--json") {
            if (sawJson)
                return reportInvalidArguments("doctor", Error::DuplicateOption);
            sawJson = true;
        } else if (args[i] == "--dir") {
            if (auto taken = takeDirOption(args, i, sawDir); !taken)
                return reportInvalidArguments("doctor", taken.error());
        } else {
            return reportInvalidArguments("doctor", Error::UnknownOption);
        }
    }
    std::vector<Finding> findings = examineHost();
    bool survives = std::ranges::none_of(
        findings, [](const Finding& finding) { return finding.level == Level::Problem; });
    printStdout(sawJson ? formatJson(findings, survives) : formatText(findings));
    return survives ? kExitSuccess : kExitFailure;
}

} // namespace tovel
