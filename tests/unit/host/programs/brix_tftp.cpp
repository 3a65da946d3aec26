// The program brix-tftp: its arguments, exit status and messages.
#include "tests/unit/child.h"
#include "tests/unit/tftp/fixture.h"

#include <sys/wait.h>

#include <cstdio>

using namespace tftp_test;

namespace {

struct Ended {
    int status = -1;
    std::string said; // on standard error
};

// Runs the program with arguments in shell syntax.
Ended brix_tftp(const std::string &arguments) {
    Ended ended;
    FILE *errors = ::popen(
        (host_test::quoted_program("brix-tftp") + " " + arguments + " 2>&1 >/dev/null").c_str(),
        "r");
    if (errors == nullptr) {
        return ended;
    }
    for (int octet = std::fgetc(errors); octet != EOF; octet = std::fgetc(errors)) {
        ended.said += static_cast<char>(octet);
    }
    const int status = ::pclose(errors);
    ended.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return ended;
}

std::string quoted(const std::string &text) {
    return "\"" + text + "\"";
}

class BrixTftp : public TftpTest {
  protected:
    [[nodiscard]] std::string command(int direction, const TestServer &server,
                                      const std::string &local) const {
        return std::to_string(direction) + " 127.0.0.1 " + std::to_string(server.port()) + " " +
               quoted(path(local)) + " \"re mote\" 1 management";
    }
};

} // namespace

TEST_F(BrixTftp, PutsWith1AndGetsWith0) {
    TestServer server{Behaviour{}};
    const std::string content = content_of(100000);
    write("local file", content);
    Ended ended = brix_tftp(command(1, server, "local file"));
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.said, "");
    EXPECT_EQ(server.stored("re mote"), content);
    server.offer("re mote", "other");
    ended = brix_tftp(command(0, server, "got"));
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(read("got"), "other");
}

TEST_F(BrixTftp, FailureIsOneLineAnd1) {
    TestServer server([](Dialogue &dialogue) { dialogue.send(error(1, "not\nhere")); });
    Ended ended = brix_tftp(command(0, server, "got"));
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(ended.said,
              "brix-tftp: cannot get re mote as " + path("got") +
                  " from 127.0.0.1: File not found (the server reports error 1, not here)\n");
    EXPECT_EQ(entries(), 0U);
    ended = brix_tftp(command(1, server, "missing"));
    EXPECT_EQ(ended.status, 1);
    EXPECT_EQ(
        ended.said,
        "brix-tftp: cannot put " + path("missing") +
            " as re mote on 127.0.0.1: No such file or directory (cannot open the local file)\n");
}

TEST_F(BrixTftp, WrongArgumentsAre2) {
    for (const char *arguments :
         {"", "1 127.0.0.1 69 a b 1", "2 127.0.0.1 69 a b 1 management",
          "1 127.0.0.1 0 a b 1 management", "1 127.0.0.1 69x a b 1 management",
          "1 127.0.0.1 65536 a b 1 management", "1 127.0.0.1 69 a b 2 management",
          "1 127.0.0.1 69 a b 1 management more"}) {
        const Ended ended = brix_tftp(arguments);
        EXPECT_EQ(ended.status, 2) << arguments;
        EXPECT_EQ(
            ended.said,
            "brix-tftp: usage: brix-tftp {1 (put) | 0 (get)} SERVER PORT LOCAL REMOTE 1 VRF\n")
            << arguments;
    }
}

TEST_F(BrixTftp, UnknownVrfIs3) {
    const Ended ended = brix_tftp("1 127.0.0.1 69 a b 1 no-such-vrf-here");
    EXPECT_EQ(ended.status, 3);
    EXPECT_EQ(ended.said.rfind("brix-tftp: cannot enter VRF no-such-vrf-here: ", 0), 0U)
        << ended.said;
    EXPECT_EQ(ended.said.find('\n'), ended.said.size() - 1);
}
