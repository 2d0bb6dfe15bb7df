// Starting real sessions with the built binary in a private runtime
// directory, and cleaning up every keeper and shell they started.
#pragma once

#include "support/test_support.hpp"
#include "support/wire.hpp"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tovel::test {

class KeeperFixture : public ::testing::Test {
  protected:
    void TearDown() override;

    RunOptions options() const;
    // `new` with the given arguments; the id, or empty on failure.
    std::string startSession(const std::vector<std::string>& arguments);
    std::string socketPath(const std::string& id) const { return dir_.path() + "/" + id + ".sock"; }
    std::string filePath(const std::string& id, const std::string& suffix) const {
        return dir_.path() + "/" + id + suffix;
    }
    std::string readFile(const std::string& path) const;
    // A field of the session's metadata file.
    std::optional<long long> metadataNumber(const std::string& id, const std::string& key) const;
    // Waits until the keeper of `id` has removed its socket.
    bool waitGone(const std::string& id);

    TempDir dir_;
    std::map<std::string, std::optional<std::string>> env_{{"SHELL", "/bin/sh"}};
    std::vector<int> keepers_;
    std::vector<int> shells_;
};

} // namespace tovel::test
