// Failing transfers: their results, the error that the server receives, and that nothing is left
// behind.
#include "tests/unit/own_mounts.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"
#include "tests/unit/test_clock.h"
#include "tests/unit/tftp/fixture.h"

#include "platform/tftp_client.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <thread>

using namespace std::chrono_literals;
using namespace tftp_test;

namespace {

constexpr std::size_t block = 512;

std::string full_block() {
    return std::string(block, 'x');
}

// Returns the error code that the client sends, skipping its acknowledgments.
std::optional<unsigned> error_sent(Dialogue &dialogue) {
    while (const auto packet = dialogue.receive()) {
        if (opcode_of(*packet) == 5) {
            return block_of(*packet);
        }
    }
    return std::nullopt;
}

// A server that is never silent, and never comes to an end: every 5 seconds it sends a block of
// that size, or acknowledges one.
TestServer::Script trickle(host_test::TestClock &clock, std::size_t octets) {
    return [&clock, octets](Dialogue &dialogue) {
        const bool is_read = dialogue.request().opcode == 1;
        dialogue.send(oack({{"blksize", std::to_string(octets)}}));
        for (unsigned number = 0; number < 50; ++number) {
            auto packet = dialogue.receive();
            while (packet && opcode_of(*packet) != 5 && block_of(*packet) != number + !is_read) {
                packet = dialogue.receive(); // repeated
            }
            if (!packet || opcode_of(*packet) == 5) {
                EXPECT_EQ(packet ? block_of(*packet) : ~0U, 0U);
                return;
            }
            if (number > 0) {
                clock.advance(5s);
            }
            dialogue.send(is_read ? data(number + 1, std::string(octets, 'x')) : ack(number + 1));
        }
        clock.hurry();
    };
}

} // namespace

class TftpErrorCode : public TftpTest, public testing::WithParamInterface<unsigned> {
  protected:
    static int expected() {
        return GetParam() == 0 || GetParam() > 99 ? system_result(EPROTO)
                                                  : -static_cast<int>(GetParam());
    }
};

TEST_P(TftpErrorCode, AsAnswerToTheRequest) {
    TestServer server(
        [](Dialogue &dialogue) { dialogue.send(error(GetParam(), "said\x1bthe server")); });
    connect(server);
    for (const int result :
         {session.get("remote", path("got")), session.put(write("local", "x"), "remote")}) {
        EXPECT_EQ(result, expected());
        EXPECT_NE(session.text(result).find("said?the server"), std::string::npos)
            << session.text(result);
    }
    EXPECT_EQ(entries(), 1U);
}

TEST_P(TftpErrorCode, InTheCourseOfATransfer) {
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(dialogue.request().opcode == 1 ? data(1, full_block()) : ack(0));
        dialogue.receive();
        dialogue.send(error(GetParam(), ""));
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), expected());
    EXPECT_EQ(entries(), 0U);
    EXPECT_EQ(session.put(write("local", std::string(5000, 'x')), "remote"), expected());
}

INSTANTIATE_TEST_SUITE_P(Codes, TftpErrorCode,
                         testing::Values(0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 99U, 100U, 101U,
                                         65535U));

TEST_F(TftpTest, SilentServerTimesOut) {
    host_test::TestClock clock;
    clock.hurry();
    session.set_timeout(1);
    TestServer server([](Dialogue &) {});
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), -210);
    EXPECT_EQ(clock.passed(), 1s);
    EXPECT_EQ(entries(), 0U);
    server.stop();
    EXPECT_GE(server.requests().size(), 2U); // repeated, at growing intervals
    EXPECT_LE(server.requests().size(), 4U);
    EXPECT_EQ(session.text(-210), "Connection timed out");
}

TEST_F(TftpTest, ServerThatFallsSilentTimesOut) {
    session.set_timeout(1);
    const std::string local = write("local", std::string(5000, 'x'));
    for (const bool putting : {false, true}) {
        host_test::TestClock clock;
        std::atomic<bool> given_up = false;
        unsigned heard = 0;
        TestServer server([&](Dialogue &dialogue) {
            dialogue.send(dialogue.request().opcode == 1 ? data(1, full_block()) : ack(0));
            EXPECT_TRUE(dialogue.receive());
            clock.hurry();
            given_up.wait(false);
            for (heard = 1; dialogue.receive(0); ++heard) {
            }
        });
        connect(server);
        EXPECT_EQ(putting ? session.put(local, "remote") : session.get("remote", path("got")),
                  -210);
        given_up = true;
        given_up.notify_all();
        server.stop();
        EXPECT_GE(heard, 2U); // repeated, at growing intervals
        EXPECT_LE(heard, 4U);
    }
    EXPECT_EQ(entries(), 1U);
}

// Packets without progress do not keep the transfer alive.
TEST_F(TftpTest, ServerThatOnlyRepeatsItselfTimesOut) {
    host_test::TestClock clock;
    session.set_timeout(1);
    std::atomic<bool> is_over = false;
    TestServer server([&](Dialogue &dialogue) {
        dialogue.send(data(1, full_block()));
        while (!is_over && clock.passed() < 3s) {
            if (dialogue.receive(1)) {
                clock.advance(100ms);
                dialogue.send(data(1, full_block()));
            }
        }
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), -210);
    is_over = true;
    EXPECT_LT(clock.passed(), 2s);
}

TEST_F(TftpTest, ServerThatSendsAFewOctetsNowAndThenIsGivenUp) {
    session.set_timeout(20);
    session.set_limits({.idle = 30s});
    for (const bool putting : {false, true}) {
        host_test::TestClock clock;
        TestServer server(trickle(clock, 8));
        connect(server);
        const int result = putting ? session.put(write("local", std::string(5000, 'x')), "remote")
                                   : session.get("remote", path("got"));
        EXPECT_EQ(result, -210);
        EXPECT_EQ(session.text(result),
                  "Connection timed out (only 48 octets have moved in 30 seconds)");
        EXPECT_EQ(clock.passed(), 30s);
    }
    EXPECT_EQ(entries(), 1U);
}

TEST_F(TftpTest, TransferHasToEndInItsTime) {
    session.set_timeout(20);
    session.set_limits({.idle = 30s, .total = 100s}); // several times the idle limit
    host_test::TestClock clock;
    TestServer server(trickle(clock, block));
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), -210);
    EXPECT_EQ(session.text(-210), "Connection timed out (not finished within 100 seconds)");
    EXPECT_EQ(clock.passed(), 100s);
    EXPECT_EQ(entries(), 0U);
}

TEST_F(TftpTest, NobodyListening) {
    int port = 0;
    {
        TestServer gone{Behaviour{}};
        port = gone.port();
    }
    for (const char *address : {"127.0.0.1", "::1", "::ffff:127.0.0.1"}) {
        ASSERT_EQ(session.connect(address, port), 0);
        host_test::TestClock clock;
        clock.hurry();
        EXPECT_EQ(session.get("remote", path("got")), system_result(ECONNREFUSED));
        EXPECT_LT(clock.passed(), 500ms); // the first repetition would come after a second
    }
    EXPECT_EQ(entries(), 0U);
}

TEST_F(TftpTest, ServerThatEndsInTheCourseOfATransfer) {
    // the socket is closed on return
    TestServer server([](Dialogue &dialogue) { dialogue.send(ack(0)); });
    connect(server);
    EXPECT_EQ(session.put(write("local", std::string(5000, 'x')), "remote"),
              system_result(ECONNREFUSED));
    EXPECT_EQ(session.text(system_result(ECONNREFUSED)), "Connection refused");
}

TEST_F(TftpTest, ServerThatEndsWithoutConfirmingTheLastBlock) {
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(ack(0));
        EXPECT_EQ(dialogue.receive(), data(1, "x"));
    });
    connect(server);
    EXPECT_EQ(session.put(write("local", "x"), "remote"), system_result(ECONNREFUSED));
    EXPECT_EQ(session.text(system_result(ECONNREFUSED)),
              "Connection refused (the server ended without confirming the last block: its file "
              "may be whole)");
}

// The server's reason counts, although the report about its closed port arrives first.
TEST_F(TftpTest, LastWordsOfAServerThatClosesItsPort) {
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(ack(0));
        dialogue.send(error(3, "Disk full"));
    });
    connect(server);
    EXPECT_EQ(session.put(write("local", std::string(5000, 'x')), "remote"), -3);
}

// In a network namespace with an "unreachable" route to the host (ip-route(8)).
TEST_F(TftpTest, UnreachableHostIsReportedAsNetworkUnreachable) {
    REQUIRE_SUPERUSER("makes a network namespace");
    int result = 0;
    int prepared = -1;
    std::thread([&] {
        prepared =
            ::unshare(CLONE_NEWNET) == 0 ? std::system("ip route add unreachable 192.0.2.1") : -1;
        session.connect("192.0.2.1", -1);
        result = session.get("remote", path("got"));
    }).join();
    ASSERT_EQ(prepared, 0) << "this test needs ip(8)";
    EXPECT_EQ(result, -201);
}

// In a network namespace without any route.
TEST_F(TftpTest, NoRouteIsNetworkUnreachable) {
    REQUIRE_SUPERUSER("makes a network namespace");
    int result = 0;
    int unshared = -1;
    std::thread([&] {
        unshared = ::unshare(CLONE_NEWNET);
        session.connect("192.0.2.1", -1);
        result = session.get("remote", path("got"));
    }).join();
    ASSERT_EQ(unshared, 0);
    EXPECT_EQ(result, -201);
    EXPECT_EQ(session.text(result), "Network is unreachable");
}

TEST_F(TftpTest, OptionsOtherThanAskedForAreRefused) {
    using Answer = std::vector<std::pair<std::string, std::string>>;
    for (const Answer &answer : {Answer{{"blksize", "65465"}}, Answer{{"windowsize", "7"}},
                                 Answer{{"timeout", "9"}}, Answer{{"multicast", "x"}}}) {
        TestServer server([&answer](Dialogue &dialogue) {
            dialogue.send(oack(answer));
            EXPECT_EQ(error_sent(dialogue), 8U);
        });
        connect(server);
        EXPECT_EQ(session.get("remote", path("got")), -8);
        EXPECT_EQ(session.put(write("local", "x"), "remote"), -8);
    }
}

TEST_F(TftpTest, FileOfAnotherSizeThanAnnouncedIsAnError) {
    for (const auto &[announced, sent] :
         {std::pair{"600", 512U}, {"600", 599U}, {"600", 601U}, {"0", 1U}, {"511", 512U}}) {
        TestServer server([announced = announced, sent = sent](Dialogue &dialogue) {
            dialogue.send(oack({{"tsize", announced}}));
            EXPECT_EQ(dialogue.receive(), ack(0));
            dialogue.send(data(1, std::string(std::min<std::size_t>(sent, block), 'x')));
            if (sent >= block && std::stoul(announced) >= block) {
                EXPECT_EQ(dialogue.receive(), ack(1));
                dialogue.send(data(2, std::string(sent - block, 'x')));
            }
            EXPECT_EQ(error_sent(dialogue), 0U);
        });
        connect(server);
        const int result = session.get("remote", path("got"));
        EXPECT_EQ(result, system_result(EPROTO));
        EXPECT_NE(session.text(result).find(announced), std::string::npos);
        EXPECT_EQ(entries(), 0U);
    }
}

TEST_F(TftpTest, AnnouncedFileThatIsTooLargeIsRefusedAtOnce) {
    session.set_limits({.received_octets = 1024});
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(oack({{"tsize", "1025"}}));
        const auto answer = dialogue.receive();
        ASSERT_TRUE(answer);
        EXPECT_EQ(opcode_of(*answer), 5U);
        EXPECT_EQ(block_of(*answer), 3U);
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), -127);
    EXPECT_EQ(session.text(-127), "File too large (more than 1024 octets, the most that is taken)");
    EXPECT_EQ(session.moved(), 0U);
    EXPECT_EQ(entries(), 0U);
}

TEST_F(TftpTest, FileThatTurnsOutTooLargeIsRefused) {
    session.set_limits({.received_octets = 1024});
    TestServer server([](Dialogue &dialogue) {
        for (unsigned number = 1; number <= 2; ++number) {
            dialogue.send(data(number, full_block()));
            EXPECT_EQ(dialogue.receive(), ack(number));
        }
        dialogue.send(data(3, "x"));
        EXPECT_EQ(error_sent(dialogue), 3U);
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), -127);
    EXPECT_EQ(session.moved(), 1024U);
    EXPECT_EQ(entries(), 0U);
}

TEST_F(TftpTest, FileOfTheLargestSizeIsTaken) {
    session.set_limits({.received_octets = 1024});
    const std::string content = content_of(1024);
    for (const bool announces : {false, true}) {
        TestServer server(Behaviour{.block_size = 512, .answer_size = announces});
        connect(server);
        server.offer("remote", content);
        EXPECT_EQ(session.get("remote", path("got")), 0);
        EXPECT_EQ(read("got"), content);
        EXPECT_EQ(session.put(write("longer", content_of(1025)), "longer"), 0);
    }
}

TEST_F(TftpTest, BlockLongerThanAgreedIsAnError) {
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(oack({{"blksize", "100"}}));
        dialogue.receive();
        dialogue.send(data(1, std::string(101, 'x')));
        EXPECT_EQ(error_sent(dialogue), 4U);
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), system_result(EPROTO));
    EXPECT_EQ(entries(), 0U);
}

TEST_F(TftpTest, LocalFileThatShrinksIsAnError) {
    const std::string local = write("local", std::string(5000, 'x'));
    TestServer server([&local](Dialogue &dialogue) {
        dialogue.send(ack(0));
        dialogue.receive();
        std::filesystem::resize_file(local, 600);
        dialogue.send(ack(1));
        EXPECT_EQ(error_sent(dialogue), 0U);
    });
    connect(server);
    EXPECT_EQ(session.put(local, "remote"), system_result(EIO));
}

TEST_F(TftpTest, FullDiskIsToldToTheServer) {
    REQUIRE_SUPERUSER("mounts a small disk");
    int mounted = -1;
    int result = 0;
    std::size_t left = 0;
    TestServer server([](Dialogue &dialogue) {
        unsigned number = 0;
        dialogue.send(data(++number, full_block()));
        auto answer = dialogue.receive();
        while (answer == ack(number)) {
            dialogue.send(data(++number, full_block()));
            answer = dialogue.receive();
        }
        ASSERT_TRUE(answer);
        EXPECT_EQ(opcode_of(*answer), 5U);
        EXPECT_EQ(block_of(*answer), 3U);
    });
    connect(server);
    std::thread([&] { // only this thread sees the mount, which ends with it
        if (get_own_mounts()) {
            mounted = ::mount("tmpfs", directory.c_str(), "tmpfs", 0, "size=64k");
        }
        if (mounted == 0) {
            result = session.get("remote", path("got"));
            left = entries();
        }
    })
        .join();
    ASSERT_EQ(mounted, 0);
    EXPECT_EQ(result, -128);
    EXPECT_EQ(left, 0U);
}

TEST_F(TftpTest, LimitOfFileSizeIsToldToTheServerAsFullDisk) {
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(data(1, full_block()));
        EXPECT_EQ(dialogue.receive(), ack(1));
        dialogue.send(data(2, full_block()));
        EXPECT_EQ(error_sent(dialogue), 3U);
    });
    connect(server);
    rlimit limits{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limits), 0);
    const rlimit small{block, limits.rlim_max};
    auto *const handler = ::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    const int result = session.get("remote", path("got"));
    ::setrlimit(RLIMIT_FSIZE, &limits);
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(result, system_result(EFBIG));
    EXPECT_EQ(entries(), 0U);
}

TEST_F(TftpTest, LocalNamesThatCannotBe) {
    TestServer server{Behaviour{}};
    connect(server);
    EXPECT_EQ(session.put(path("missing"), "remote"), system_result(ENOENT));
    EXPECT_EQ(session.put(directory.string(), "remote"), system_result(EISDIR));
    EXPECT_EQ(session.get("remote", path("missing/got")), system_result(ENOENT));
    EXPECT_EQ(session.get("remote", directory.string()), system_result(EISDIR));
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(session.put(path("pipe"), "remote"), system_result(EINVAL));
    EXPECT_EQ(session.get("remote", path("pipe")), system_result(EINVAL));
    // no file can be created there
    EXPECT_EQ(session.get("remote", "/proc/got"), system_result(ENOENT));
    server.stop();
    EXPECT_TRUE(server.requests().empty()); // found before anything was sent
}

TEST_F(TftpTest, LocalFileSurvivesAFailedRead) {
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(data(1, full_block()));
        dialogue.receive();
        dialogue.send(error(2, ""));
    });
    connect(server);
    const std::string local = write("got", "old");
    EXPECT_EQ(session.get("remote", local), -2);
    EXPECT_EQ(read("got"), "old");
    EXPECT_EQ(entries(), 1U);
}

TEST_F(TftpTest, RemoteNamesThatCannotBe) {
    TestServer server{Behaviour{}};
    connect(server);
    const std::string local = write("local", "x");
    EXPECT_EQ(session.put(local, std::string(504, 'n')), system_result(ENAMETOOLONG));
    EXPECT_EQ(session.put(local, ""), system_result(EINVAL));
    EXPECT_EQ(session.get(std::string("a\0b", 3), path("got")), system_result(EINVAL));
    EXPECT_EQ(session.put(local, std::string(503, 'n')), 0);
}

TEST_F(TftpTest, ServerIsAnAddressInTextForm) {
    for (const char *good :
         {"10.0.0.1", "::1", "fe80::1%lo", "fe80::1%1", "2001:db8::1", "::ffff:10.0.0.1"}) {
        EXPECT_EQ(session.connect(good, -1), 0) << good;
    }
    for (const char *bad : {"", "localhost", "10.0.0", "10.0.0.1 ", "0x7f.1", "::1%nowhere",
                            "fe80::1%", "10.0.0.1%lo", "[::1]"}) {
        EXPECT_EQ(session.connect(bad, -1), system_result(EINVAL)) << bad;
    }
    for (const int port : {0, -2, 65536}) {
        EXPECT_EQ(session.connect("10.0.0.1", port), system_result(EINVAL)) << port;
    }
    EXPECT_EQ(session.get("remote", path("got")), system_result(ENOTCONN));
}

TEST_F(TftpTest, UnknownDeviceToBindTo) {
    TestServer server{Behaviour{}};
    connect(server);
    session.bind_to_device("no-such-device");
    EXPECT_EQ(session.get("remote", path("got")), system_result(ENODEV));
    session.bind_to_device("lo");
    EXPECT_EQ(session.get("remote", path("got")), 0);
}

// The C interface.
class TftpClient : public TftpTest {};

TEST_F(TftpClient, CopiesBothWays) {
    TestServer server{Behaviour{}};
    ASSERT_EQ(tftp_timeout_set(5), 0);
    ASSERT_EQ(tftp_connect(server.address(), server.port()), 0);
    const std::string local = write("local", "content");
    EXPECT_EQ(tftp_put2(local.c_str(), "remote", 0), 0);
    EXPECT_EQ(server.stored("remote"), "content");
    server.offer("other", "thing");
    EXPECT_EQ(tftp_get2("other", path("got").c_str(), 0), 0);
    EXPECT_EQ(read("got"), "thing");
}

TEST_F(TftpClient, KeepsToTheSettings) {
    const Scratch scratch;
    ASSERT_EQ(tftp_timeout_set(20), 0);
    for (const auto &[setting, reason] :
         {std::pair{"transfer_idle_limit = 10\n", "only 16 octets have moved in 10 seconds"},
          std::pair{"transfer_time_limit = 15\n", "not finished within 15 seconds"}}) {
        scratch.configure(setting);
        host_test::TestClock clock;
        TestServer server(trickle(clock, 8));
        ASSERT_EQ(tftp_connect(server.address(), server.port()), 0);
        EXPECT_EQ(tftp_get2("remote", path("got").c_str(), 0), -210);
        EXPECT_EQ(tftp_strerror(-210), "Connection timed out (" + std::string(reason) + ")");
    }
}

TEST_F(TftpClient, RefusesWrongArguments) {
    EXPECT_EQ(tftp_timeout_set(0), system_result(EINVAL));
    EXPECT_EQ(tftp_timeout_set(256), system_result(EINVAL));
    EXPECT_EQ(tftp_timeout_set(1), 0);
    EXPECT_EQ(tftp_timeout_set(255), 0);
    EXPECT_EQ(tftp_connect(nullptr, -1), system_result(EINVAL));
    EXPECT_EQ(tftp_connect("127.0.0.1", -1), 0);
    EXPECT_EQ(tftp_put2(nullptr, "remote", 0), system_result(EINVAL));
    EXPECT_EQ(tftp_put2("local", nullptr, 0), system_result(EINVAL));
    EXPECT_EQ(tftp_get2("remote", "local", 1), system_result(EINVAL));
    EXPECT_EQ(tftp_get2(nullptr, "local", 0), system_result(EINVAL));
}

TEST_F(TftpClient, TextsTellTheFamiliesApart) {
    EXPECT_STREQ(tftp_strerror(0), "Success");
    EXPECT_STREQ(tftp_strerror(-1), "File not found");
    EXPECT_STREQ(tftp_strerror(-2), "Access violation");
    EXPECT_STREQ(tftp_strerror(-3), "Disk full or allocation exceeded");
    EXPECT_STREQ(tftp_strerror(-4), "Illegal TFTP operation");
    EXPECT_STREQ(tftp_strerror(-5), "Unknown transfer ID");
    EXPECT_STREQ(tftp_strerror(-6), "File already exists");
    EXPECT_STREQ(tftp_strerror(-7), "No such user");
    EXPECT_STREQ(tftp_strerror(-8), "Options refused");
    EXPECT_STREQ(tftp_strerror(-9), "TFTP error 9");
    EXPECT_STREQ(tftp_strerror(-102), "No such file or directory");
    EXPECT_STREQ(tftp_strerror(-128), "No space left on device");
    EXPECT_STREQ(tftp_strerror(-210), "Connection timed out");
    EXPECT_NE(tftp_strerror(-100000), nullptr);
    EXPECT_NE(tftp_strerror(-2147483647 - 1), nullptr);
}
