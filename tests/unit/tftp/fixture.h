// A private directory and a session of the client under test.
#pragma once

#include "tests/unit/tftp/scripted_server.h"
#include "tftp/session.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace tftp_test {

constexpr int system_result(int number) {
    return -(100 + number);
}

// Octets that differ from block to block.
std::string content_of(std::size_t octets);

class TftpTest : public testing::Test {
  protected:
    TftpTest();
    ~TftpTest() override;

    void connect(const TestServer &server) {
        ASSERT_EQ(session.connect(server.address(), server.port()), 0);
    }
    [[nodiscard]] std::string path(const std::string &name) const {
        return (directory / name).string();
    }
    // Creates a file and returns its path.
    std::string write(const std::string &name, const std::string &content) const;
    [[nodiscard]] std::string read(const std::string &name) const;
    // Puts the content to the server and gets it back, into the file "got". Stops the server.
    void expect_there_and_back(TestServer &server, const std::string &content);
    // The number of names in the directory, including hidden ones.
    [[nodiscard]] std::size_t entries() const;

    std::filesystem::path directory;
    ulmo::tftp::Session session;
};

} // namespace tftp_test
