// A running `serve` over a private tree, and raw HTTP exchanges with it.
#pragma once

#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace tovel::test {

class ServeFixture : public ::testing::Test {
  protected:
    // Starts the server over root() with extra options.
    void startServer(const std::vector<std::string>& extra = {});
    enum class AfterRequest { KeepOpen, HalfClose };
    // The whole response to `request`, read until the server closes. With
    // HalfClose the client shuts its sending side after the request.
    std::string exchange(const std::string& request, AfterRequest after = AfterRequest::KeepOpen);
    // A connected client socket (the caller closes it), or -1.
    int connectClient();
    std::string get(const std::string& target) {
        return exchange("GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                        "\r\n\r\n");
    }
    // The response body (after the blank line).
    std::string body(const std::string& response) {
        std::size_t at = response.find("\r\n\r\n");
        return at == std::string::npos ? std::string() : response.substr(at + 4);
    }
    std::string root() const { return tree_.path() + "/root"; }
    void writeFile(const std::string& relative, const std::string& content) {
        tree_.writeFile("root/" + relative, content);
    }
    void link(const std::string& target, const std::string& relative);

    TempDir tree_;
    std::unique_ptr<PtyProcess> server_;
    int port_ = 0;
};

} // namespace tovel::test
