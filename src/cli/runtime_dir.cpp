// Runtime directory choice, creation and session file paths.
#include "cli/runtime_dir.hpp"

#include "cli/session_id.hpp"
#include "platform/env.hpp"
#include "platform/system.hpp"

#include "platform/mutex.hpp"
#include <unistd.h>

namespace tovel {

namespace {

sys::Mutex cacheMutex;
std::string cachedDir; // empty: not resolved yet

Result<std::string> createRuntimeDir(std::string path) {
    if (path.size() > kMaxRuntimeDirLength)
        return fail(Error::PathTooLong);
    auto made = sys::mkdir(path, 0700);
    if (!made && made.error() != Error::PathAlreadyExists)
        return fail(made.error());
    if (path.size() >= kMaxRuntimeDirLength)
        return fail(Error::NameTooLong);
    auto changed = sys::chmod(path, 0700);
    if (!changed) {
        switch (changed.error()) {
        case Error::NotDir:
        case Error::FileNotFound:
            return fail(Error::FileNotFound);
        case Error::AccessDenied:
        case Error::PermissionDenied:
        case Error::ReadOnlyFileSystem:
        case Error::NameTooLong:
        case Error::SymLinkLoop:
        case Error::SystemResources:
        case Error::InputOutput:
            return fail(changed.error());
        default:
            return fail(Error::Unexpected);
        }
    }
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
    return joinPath(base, "tovel-ptyd-" + std::to_string(::getuid()));
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

} // namespace tovel
