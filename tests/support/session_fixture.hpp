// Tests that run the built binary in a private runtime directory and start
// real sessions; every keeper and shell they start is killed at the end.
#pragma once

#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace tovel::test {

class SessionFixture : public ::testing::Test {
  protected:
    void TearDown() override;

    // runtimeOptions() for dir_, then the changes in env_.
    RunOptions options() const;
    // `new` with the given arguments; the id, or empty on failure.
    std::string startSession(const std::vector<std::string>& arguments);
    // Remembers the keeper and shell of `id` for clean-up.
    void track(const std::string& id);
    std::string filePath(const std::string& id, const std::string& suffix) const {
        return dir_.path() + "/" + id + suffix;
    }
    std::string socketPath(const std::string& id) const { return filePath(id, ".sock"); }
    // A numeric field of the session's metadata file.
    std::optional<long long> metadataNumber(const std::string& id, const std::string& key) const;
    // Waits until the keeper of `id` has removed its socket and metadata.
    bool waitGone(const std::string& id);

    TempDir dir_;
    Env env_;
    std::vector<int> pids_; // keepers and shells, killed at the end
};

} // namespace tovel::test
