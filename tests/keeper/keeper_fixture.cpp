// Real sessions for the keeper tests.
#include "keeper_fixture.hpp"

#include <csignal>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace tovel::test {

void KeeperFixture::TearDown() {
    for (int pid : shells_) {
        ::kill(-pid, SIGKILL);
        ::kill(pid, SIGKILL);
    }
    for (int pid : keepers_)
        ::kill(pid, SIGKILL);
}

RunOptions KeeperFixture::options() const {
    RunOptions run;
    run.env = env_;
    run.env["TOVEL_PTYD_DIR"] = dir_.path();
    // Login shells read the profile under HOME: keep it empty and fast.
    run.env["HOME"] = dir_.path();
    return run;
}

std::string KeeperFixture::startSession(const std::vector<std::string>& arguments) {
    std::vector<std::string> args = {"new"};
    args.insert(args.end(), arguments.begin(), arguments.end());
    RunResult result = runBinary(args, options());
    if (result.status != 0 || result.out.size() != 33)
        return {};
    std::string id = result.out.substr(0, 32);
    if (auto keeper = metadataNumber(id, "keeper_pid"))
        keepers_.push_back(static_cast<int>(*keeper));
    if (auto shell = metadataNumber(id, "shell_pid"))
        shells_.push_back(static_cast<int>(*shell));
    return id;
}

std::string KeeperFixture::readFile(const std::string& path) const {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::optional<long long> KeeperFixture::metadataNumber(const std::string& id,
                                                       const std::string& key) const {
    std::string text = readFile(filePath(id, ".meta"));
    std::string needle = key + "=";
    std::size_t at = text.find(needle);
    if (at == std::string::npos || (at > 0 && text[at - 1] != '\n'))
        return std::nullopt;
    return std::stoll(text.substr(at + needle.size()));
}

bool KeeperFixture::waitGone(const std::string& id) {
    std::string path = socketPath(id);
    return waitUntil([&] {
        struct stat st {};
        return ::stat(path.c_str(), &st) != 0;
    });
}

} // namespace tovel::test
