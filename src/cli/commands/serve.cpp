// The `serve` command: its options, then the server until its idle timeout.
#include "cli/commands/serve.hpp"

#include "cli/log.hpp"
#include "cli/number.hpp"
#include "serve/server.hpp"

namespace tovel {

namespace {

Result<serve::ServeRequest> parseServeOptions(Args args) {
    if (args.empty())
        return fail(Error::MissingDirectory);
    serve::ServeRequest options;
    bool sawRoot = false, sawPort = false, sawBrowser = false, sawBrowseMode = false,
         sawIdle = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        bool takesValue = arg == "--port" || arg == "--idle-timeout" || arg == "--dir";
        if (takesValue && i + 1 >= args.size())
            return fail(Error::MissingOptionValue);
        if (arg == "--port") {
            if (sawPort)
                return fail(Error::DuplicateOption);
            sawPort = true;
            auto port = parseNumber<std::uint16_t>(args[++i]);
            if (!port)
                return fail(Error::InvalidOptionValue);
            options.port = *port;
        } else if (arg == "--idle-timeout") {
            if (sawIdle)
                return fail(Error::DuplicateOption);
            sawIdle = true;
            std::string_view value = args[++i];
            auto seconds = value.starts_with('-') ? fail(Error::InvalidCharacter)
                                                  : parseNumber<std::uint32_t>(value);
            if (!seconds || *seconds == 0)
                return fail(Error::InvalidOptionValue);
            options.idleTimeoutSeconds = *seconds;
        } else if (arg == "--dir") {
            ++i; // the global runtime-directory option: accepted, unused here
        } else if (arg == "--browser") {
            if (sawBrowser)
                return fail(Error::DuplicateOption);
            sawBrowser = true;
        } else if (arg == "--browse-mode") {
            if (sawBrowseMode)
                return fail(Error::DuplicateOption);
            sawBrowseMode = true;
            options.browseMode = serve::BrowseMode::On;
        } else if (arg.starts_with("--")) {
            return fail(Error::UnknownOption);
        } else {
            if (arg.empty())
                return fail(Error::InvalidDirectory);
            if (sawRoot)
                return fail(Error::DuplicateOption);
            sawRoot = true;
            options.root = arg;
        }
    }
    if (!sawRoot)
        return fail(Error::MissingDirectory);
    return options;
}

void reportStartFailure(const serve::ServeEnd& end, std::string_view root) {
    using serve::StartStep;
    switch (end.failedStep) {
    case StartStep::None:
        return;
    case StartStep::OpenRoot:
        printStderr("serve: cannot open directory ", root, ": ", end.error, "\n");
        return;
    case StartStep::StatRoot:
        printStderr("serve: cannot stat ", root, ": ", end.error, "\n");
        return;
    case StartStep::RootNotDirectory:
        printStderr("serve: not a directory: ", root, "\n");
        return;
    case StartStep::Socket:
        printStderr("serve: socket failed: ", end.error, "\n");
        return;
    case StartStep::Bind:
        printStderr("serve: bind failed: ", end.error, "\n");
        return;
    case StartStep::BoundPort:
        printStderr("serve: getsockname failed\n");
        return;
    case StartStep::Listen:
        printStderr("serve: listen failed: ", end.error, "\n");
        return;
    }
}

} // namespace

CommandResult runServe(Args args) {
    serve::ServeRequest request = TRY(parseServeOptions(args));
    serve::ServeEnd end = TRY(serve::runServer(request));
    if (end.failedStep != serve::StartStep::None) {
        reportStartFailure(end, request.root);
        return kExitFailure;
    }
    printStderr("serve: idle timeout after ", request.idleTimeoutSeconds, "s\n");
    return kExitSuccess;
}

} // namespace tovel
