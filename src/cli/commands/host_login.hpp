// What this host does to a user's processes at logout, read from its
// configuration files: logind's KillUserProcesses with its user lists, and
// the user's linger flag.
#pragma once

#include <string>
#include <string_view>

namespace tovel {

// `path` (absolute) below the diagnostic root TOVEL_PTYD_DOCTOR_ROOT when
// that is set, else `path` itself.
[[nodiscard]] std::string systemPath(std::string_view path);

[[nodiscard]] bool isRegularFile(const std::string& path);

// The password file's name for the real user id, else USER or LOGNAME,
// else the user id in decimal.
[[nodiscard]] std::string loginUserName();

// Whether logind's configuration (logind.conf, then the logind.conf.d
// drop-ins in name order) ends this user's session processes at logout.
[[nodiscard]] bool logindKillsAtLogout(std::string_view user);

// Whether /var/lib/systemd/linger/<user> exists.
[[nodiscard]] bool userLingers(std::string_view user);

} // namespace tovel
