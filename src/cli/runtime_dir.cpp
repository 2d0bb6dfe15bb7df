// Runtime directory choice, creation, the ownership check and session file
// paths.
#include "cli/runtime_dir.hpp"

#include "cli/session_id.hpp"
#include "platform/env.hpp"
#include "platform/system.hpp"

#include "platform/mutex.hpp"

#include <fcntl.h>

namespace tovel {

namespace {

sys::Mutex cacheMutex;
std::string cachedDir; // empty: not resolved yet

// The names a failure to open or set up the directory reports.
Error modeError(Error error) {
    return narrowError(error,
                       {Error::FileNotFound, Error::AccessDenied, Error::PermissionDenied,
                        Error::ReadOnlyFileSystem, Error::NameTooLong, Error::SymLinkLoop,
                        Error::SystemResources, Error::InputOutput},
                       {{Error::NotDir, Error::FileNotFound}});
}

Result<> checkLength(std::string_view path) {
    if (path.size() > kMaxRuntimeDirLength)
        return fail(Error::PathTooLong);
    if (path.size() >= kMaxRuntimeDirLength)
        return fail(Error::NameTooLong);
    return {};
}

// Opens the directory itself, never a link standing in its place, and
// accepts it only when this user owns it: a directory another user made
// first would let them swap the session files and sockets underneath us.
Result<UniqueFd> openOwnedDirectory(std::string_view path) {
    auto opened = sys::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (!opened) {
        // Something is there but could not be opened as our directory: a
        // link, another kind of file, or a directory closed to us.
        auto there = sys::lstat(path);
        if (there && (!S_ISDIR(there->st_mode) || there->st_uid != sys::realUserId()))
            return fail(Error::RuntimeDirNotOwned);
        return fail(modeError(opened.error()));
    }
    struct stat st = TRY(sys::fstat(opened->get()));
    if (!S_ISDIR(st.st_mode) || st.st_uid != sys::realUserId())
        return fail(Error::RuntimeDirNotOwned);
    return std::move(*opened);
}

Result<std::string> createRuntimeDir(std::string path) {
    if (path.size() > kMaxRuntimeDirLength)
        return fail(Error::PathTooLong);
    auto made = sys::mkdir(path, 0700);
    if (!made && made.error() != Error::PathAlreadyExists)
        return fail(made.error());
    TRY(checkLength(path));
    UniqueFd directory = TRY(openOwnedDirectory(path));
    if (auto changed = sys::fchmod(directory.get(), 0700); !changed)
        return fail(modeError(changed.error()));
    return path;
}

} // namespace

std::string joinPath(std::string_view left, std::string_view right) {
    bool leftSlash = !left.empty() && left.back() == '/';
    bool rightSlash = !right.empty() && right.front() == '/';
    std::string out(left);
    if (!leftSlash && !rightSlash)
        out.push_back('/');
    else if (leftSlash && rightSlash)
        right.remove_prefix(1);
    out.append(right);
    return out;
}

Result<std::string> chooseRuntimeDir() {
    if (auto dir = sys::getEnv("TOVEL_PTYD_DIR")) {
        if (dir->empty())
            return fail(Error::InvalidBaseDirectory);
        return std::string(*dir);
    }
    if (auto xdg = sys::getEnv("XDG_RUNTIME_DIR")) {
        if (xdg->empty())
            return fail(Error::InvalidBaseDirectory);
        std::string path(*xdg);
        if (path.back() != '/')
            path.push_back('/');
        return path + "tovel-ptyd";
    }
    std::string_view base = "/tmp";
    if (auto tmp = sys::getEnv("TMPDIR")) {
        if (tmp->empty())
            return fail(Error::InvalidBaseDirectory);
        base = *tmp;
    }
    return joinPath(base, "tovel-ptyd-" + std::to_string(sys::realUserId()));
}

Result<std::optional<std::string>> existingRuntimeDir() {
    std::string chosen = TRY(chooseRuntimeDir());
    TRY(checkLength(chosen));
    auto directory = openOwnedDirectory(chosen);
    if (!directory && directory.error() == Error::FileNotFound)
        return std::optional<std::string>();
    if (!directory)
        return fail(directory.error());
    return std::optional<std::string>(std::move(chosen));
}

Result<std::string> runtimeDir() {
    sys::MutexGuard guard(cacheMutex);
    if (!cachedDir.empty())
        return cachedDir;
    std::string chosen = TRY(chooseRuntimeDir());
    cachedDir = TRY(createRuntimeDir(std::move(chosen)));
    return cachedDir;
}

Result<> recreateRuntimeDir() {
    sys::MutexGuard guard(cacheMutex);
    std::string path = cachedDir.empty() ? TRY(chooseRuntimeDir()) : cachedDir;
    cachedDir = TRY(createRuntimeDir(std::move(path)));
    return {};
}

Result<std::string> sessionPath(std::string_view id, std::string_view suffix) {
    if (!isValidSessionId(id))
        return fail(Error::InvalidSessionId);
    std::string dir = TRY(runtimeDir());
    std::string name(id);
    name.append(suffix);
    return joinPath(dir, name);
}

void resetRuntimeDirForTesting() {
    sys::MutexGuard guard(cacheMutex);
    cachedDir.clear();
}

Result<> checkSocketPathFits() {
    // "<RuntimeDir>/<id>.sock" must be shorter than a Unix socket address.
    constexpr std::size_t kSocketAddressLength = 108;
    constexpr std::size_t kSocketNameLength = 1 + kSessionIdLength + 5;
    std::string chosen = TRY(chooseRuntimeDir());
    if (chosen.size() + kSocketNameLength >= kSocketAddressLength)
        return fail(Error::PathTooLong);
    return {};
}

} // namespace tovel
