// Opening request targets beneath the root.
#include "serve/open_target.hpp"

#include "cli/runtime_dir.hpp"
#include "platform/beneath.hpp"
#include "platform/system.hpp"
#include "serve/path_rules.hpp"
#include "serve/protected_path.hpp"

#include <fcntl.h>

namespace tovel::serve {

namespace {

// Opening never blocks (a FIFO) and never takes a terminal; regular files
// read the same with O_NONBLOCK.
constexpr int kTargetFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY;

// The external mount: a link placed directly in the root that leads to a
// directory outside it opens that whole directory, and nothing else
// outside the root. Returns the directory, opened.
Result<UniqueFd> openMount(const ServeSettings& settings, std::string_view first) {
    std::string mount = TRY(sys::realpath(joinPath(settings.rootRealPath, first)));
    if (isInside(mount, settings.rootRealPath))
        return fail(Error::CrossDevice);
    return sys::open(mount, O_RDONLY | O_DIRECTORY);
}

Status refusalFor(Error error) {
    return error == Error::CrossDevice || error == Error::SymLinkLoop ? Status::Forbidden
                                                                      : Status::NotFound;
}

} // namespace

std::expected<OpenTarget, Status> openRelative(const ServeSettings& settings,
                                               std::string relative) {
    if (relative.size() + settings.rootRealPath.size() + 1 >= kMaxDecodedPath)
        return std::unexpected(Status::Forbidden);
    auto root = sys::open(settings.rootRealPath, O_RDONLY | O_DIRECTORY);
    if (!root)
        return std::unexpected(Status::NotFound);
    auto opened = sys::openBeneath(root->get(), relative, kTargetFlags);
    if (!opened && refusalFor(opened.error()) == Status::Forbidden) {
        std::size_t slash = relative.find('/');
        auto mount = openMount(settings, std::string_view(relative).substr(0, slash));
        if (!mount)
            return std::unexpected(Status::Forbidden);
        std::string_view rest = slash == std::string::npos
                                    ? std::string_view()
                                    : std::string_view(relative).substr(slash + 1);
        opened = sys::openBeneath(mount->get(), rest, kTargetFlags);
    }
    if (!opened)
        return std::unexpected(refusalFor(opened.error()));
    auto status = sys::fstat(opened->get());
    if (!status)
        return std::unexpected(Status::NotFound);
    auto real = sys::descriptorPath(opened->get());
    std::string realPath = real               ? std::move(*real)
                           : relative.empty() ? settings.rootRealPath
                                              : joinPath(settings.rootRealPath, relative);
    return OpenTarget{std::move(relative), std::move(realPath), std::move(*opened), *status};
}

std::expected<OpenTarget, Status> openRequestPath(const ServeSettings& settings,
                                                  std::string_view rawPath) {
    auto decoded = percentDecode(rawPath);
    auto relative = decoded ? relativePathOf(*decoded) : std::nullopt;
    if (!relative)
        return std::unexpected(Status::Forbidden);
    return openRelative(settings, std::move(*relative));
}

bool isProtectedTarget(const ServeSettings& settings, const OpenTarget& target) {
    if (isProtectedPath(target.relative))
        return true;
    std::string_view real = target.realPath;
    if (isInside(real, settings.rootRealPath))
        real.remove_prefix(std::min(real.size(), settings.rootRealPath.size()));
    return isProtectedPath(real);
}

} // namespace tovel::serve
