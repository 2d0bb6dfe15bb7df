// Real sessions started with the built binary, and their clean-up.
#include "support/session_fixture.hpp"

#include <csignal>
#include <unistd.h>

namespace tovel::test {

void SessionFixture::TearDown() {
    for (int pid : pids_) {
        ::kill(-pid, SIGKILL); // the shell leads its group
        ::kill(pid, SIGKILL);
    }
}

RunOptions SessionFixture::options() const {
    RunOptions run = runtimeOptions(dir_.path());
    for (const auto& [name, value] : env_)
        run.env[name] = value;
    return run;
}

std::string SessionFixture::startSession(const std::vector<std::string>& arguments) {
    std::vector<std::string> args = {"new"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    RunResult result = runBinary(args, options());
    if (result.status != 0 || result.out.size() != 33) {
        ADD_FAILURE() << "new failed (" << result.status << "): " << result.err;
        return {};
    }
    std::string id = result.out.substr(0, 32);
    track(id);
    return id;
}

void SessionFixture::track(const std::string& id) {
    for (const char* key : {"keeper_pid", "shell_pid"}) {
        if (auto pid = metadataNumber(id, key); pid && *pid > 0)
            pids_.push_back(static_cast<int>(*pid));
    }
}

std::optional<long long> SessionFixture::metadataNumber(const std::string& id,
                                                        const std::string& key) const {
    std::string text = readFile(filePath(id, ".meta"));
    std::string needle = key + "=";
    std::size_t at = text.find(needle);
    if (at == std::string::npos || (at > 0 && text[at - 1] != '\n'))
        return std::nullopt;
    return std::stoll(text.substr(at + needle.size()));
}

bool SessionFixture::waitGone(const std::string& id) {
    // An ending keeper removes its socket first and its metadata after it.
    return waitUntil([&] {
        return ::access(socketPath(id).c_str(), F_OK) != 0 &&
               ::access(filePath(id, ".meta").c_str(), F_OK) != 0;
    });
}

} // namespace tovel::test
