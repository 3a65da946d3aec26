// Successful transfers: the options agreed on, and what the network may do to packets.
#include "tests/unit/test_clock.h"
#include "tests/unit/tftp/fixture.h"

#include "tftp/transfer.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <tuple>

using namespace std::chrono_literals;
using namespace tftp_test;

namespace {

using OptionHandling = Behaviour::OptionHandling;

Behaviour small_blocks(unsigned block_size, unsigned window_size) {
    return {.block_size = block_size, .window_size = window_size};
}

} // namespace

// Each size in both directions, with options that are agreed on, ignored or refused.
class TftpSizes : public TftpTest,
                  public testing::WithParamInterface<std::tuple<std::size_t, OptionHandling>> {};

TEST_P(TftpSizes, ArriveWhole) {
    const auto &[size, handling] = GetParam();
    TestServer server(Behaviour{.options = handling, .block_size = 512});
    connect(server);
    expect_there_and_back(server, content_of(size));
    EXPECT_TRUE(std::filesystem::exists(path("got")));
    EXPECT_EQ(entries(), 2U);
    // Refused options cost a second request, without options.
    ASSERT_EQ(server.requests().size(), handling == OptionHandling::refuse ? 4U : 2U);
    EXPECT_EQ(server.requests().back().options.empty(), handling == OptionHandling::refuse);
}

INSTANTIATE_TEST_SUITE_P(AllWays, TftpSizes,
                         testing::Combine(testing::Values(0U, 1U, 511U, 512U, 513U, 1024U, 20000U),
                                          testing::Values(OptionHandling::agree,
                                                          OptionHandling::ignore,
                                                          OptionHandling::refuse)));

TEST_F(TftpTest, AsksForWhatThePathAllows) {
    TestServer server{Behaviour{}};
    connect(server);
    session.set_timeout(20);
    ASSERT_EQ(session.put(write("local", "five!"), "remote"), 0);
    ASSERT_EQ(session.get("nothing", path("got")), 0);
    server.stop();
    const auto requests = server.requests();
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(requests[0].opcode, 2U);
    EXPECT_EQ(requests[0].mode, "octet");
    EXPECT_EQ(requests[0].options,
              (std::map<std::string, std::string>{
                  {"blksize", "65464"}, {"timeout", "4"}, {"tsize", "5"}, {"windowsize", "2"}}));
    EXPECT_EQ(requests[1].opcode, 1U);
    EXPECT_EQ(requests[1].options.at("tsize"), "0");
}

TEST_F(TftpTest, WindowFollowsTheBlockSize) {
    ulmo::tftp::Endpoint loopback;
    auto &address = reinterpret_cast<sockaddr_in &>(loopback.address);
    address.sin_family = AF_INET;
    address.sin_port = htons(69);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    loopback.address_octets = sizeof address;
    loopback.block_size = 1468; // of Ethernet
    ulmo::tftp::Options options{
        .block_size = 1468, .timeout = 4, .transfer_size = 7, .window_size = 65};
    EXPECT_EQ(ulmo::tftp::options_for(loopback, ulmo::tftp::Opcode::write_request, 7), options);
    options.window_size = 170; // our own buffer is larger than what a server surely has
    EXPECT_EQ(ulmo::tftp::options_for(loopback, ulmo::tftp::Opcode::read_request, 7), options);
}

TEST_F(TftpTest, SpeaksIpv6) {
    TestServer server(small_blocks(1000, 4), "::1");
    connect(server);
    expect_there_and_back(server, content_of(12345));
}

TEST_F(TftpTest, ReachesAnIpv4MappedAddressAsIpv4) {
    TestServer server(small_blocks(512, 1));
    ASSERT_EQ(session.connect("::ffff:127.0.0.1", server.port()), 0);
    EXPECT_EQ(session.put(write("local", "x"), "remote"), 0);
}

TEST_F(TftpTest, TakesPartOfTheOptions) {
    for (const Behaviour &behaviour :
         {Behaviour{.answer_block_size = false}, Behaviour{.answer_window_size = false},
          Behaviour{.answer_size = false}, Behaviour{.block_size = 8, .window_size = 1}}) {
        TestServer server(behaviour);
        connect(server);
        expect_there_and_back(server, content_of(3000));
    }
}

TEST_F(TftpTest, BlockNumbersGoOnWithZeroAfter65535) {
    TestServer server(small_blocks(8, 50)); // 65536 is not a multiple, so a window spans the wrap
    connect(server);
    session.limit(8, 50);
    const std::string content = content_of(8 * 65590 + 3);
    EXPECT_EQ(session.put(write("local", content), "remote"), 0);
    server.offer("other", content);
    EXPECT_EQ(session.get("other", path("got")), 0);
    server.stop();
    EXPECT_TRUE(server.stored("remote") == content);
    EXPECT_TRUE(read("got") == content);
}

TEST_F(TftpTest, NameTooLongForOptionsGoesWithoutThem) {
    TestServer server{Behaviour{}};
    connect(server);
    const std::string name(500, 'n');
    EXPECT_EQ(session.put(write("local", "x"), name), 0);
    EXPECT_TRUE(server.requests().at(0).options.empty());
    EXPECT_EQ(server.stored(name), "x");
}

TEST_F(TftpTest, RemoteNameIsSentAsItIs) {
    TestServer server{Behaviour{}};
    connect(server);
    const std::string name = "a b\"$(x)\n\xff/../c";
    EXPECT_EQ(session.put(write("local", "x"), name), 0);
    EXPECT_EQ(server.stored(name), "x");
}

TEST_F(TftpTest, LocalFileIsReplaced) {
    TestServer server{Behaviour{}};
    connect(server);
    server.offer("remote", "new");
    const std::string elsewhere = write("elsewhere", "keep");
    std::filesystem::create_symlink(elsewhere, path("got"));
    EXPECT_EQ(session.get("remote", path("got")), 0);
    EXPECT_FALSE(std::filesystem::is_symlink(path("got")));
    EXPECT_EQ(read("got"), "new");
    EXPECT_EQ(read("elsewhere"), "keep");
    struct stat status {};
    ASSERT_EQ(::stat(path("got").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

// What the line does to a transfer, with windows of one block and of several.
struct Line {
    const char *name;
    void (*spoil)(Behaviour &);
};

class TftpLine : public TftpTest, public testing::WithParamInterface<std::tuple<Line, unsigned>> {};

TEST_P(TftpLine, DoesNoHarm) {
    const auto &[line, window] = GetParam();
    Behaviour behaviour = small_blocks(600, window);
    line.spoil(behaviour);
    TestServer server(behaviour);
    connect(server);
    session.limit(600, 16);
    expect_there_and_back(server, content_of(600 * 20 + 5));
}

INSTANTIATE_TEST_SUITE_P(
    Troubles, TftpLine,
    testing::Combine(
        testing::Values(
            Line{"LosesFirstSent",
                 [](Behaviour &b) { b.lose_sent = [](unsigned n) { return n == 1; }; }},
            Line{"LosesSecondSent",
                 [](Behaviour &b) { b.lose_sent = [](unsigned n) { return n == 2; }; }},
            Line{"LosesSent",
                 [](Behaviour &b) { b.lose_sent = [](unsigned n) { return n % 9 == 0; }; }},
            Line{"LosesFirstReceived",
                 [](Behaviour &b) { b.lose_received = [](unsigned n) { return n == 1; }; }},
            Line{"LosesReceived",
                 [](Behaviour &b) { b.lose_received = [](unsigned n) { return n % 9 == 5; }; }},
            Line{"LosesBothWays",
                 [](Behaviour &b) {
                     b.lose_sent = [](unsigned n) { return n % 11 == 3; };
                     b.lose_received = [](unsigned n) { return n % 13 == 4; };
                 }},
            Line{"Doubles", [](Behaviour &b) { b.double_sent = [](unsigned) { return true; }; }},
            Line{"Swaps",
                 [](Behaviour &b) { b.swap_sent = [](unsigned n) { return n % 4 == 0; }; }}),
        testing::Values(1U, 5U)),
    [](const auto &instance) {
        return std::get<0>(instance.param).name + std::string("Window") +
               std::to_string(std::get<1>(instance.param));
    });

// Answering each duplicated acknowledgment would duplicate every block from then on.
TEST_F(TftpTest, DoubledAcknowledgmentsDoNotDoubleTheData) {
    for (const unsigned window : {1U, 4U}) {
        host_test::TestClock clock;
        Behaviour behaviour = small_blocks(600, window);
        behaviour.repeats = false;
        behaviour.double_sent = [&clock](unsigned) {
            // late enough to look like a loss, too early for a repetition
            clock.advance(20ms);
            return true;
        };
        TestServer server(behaviour);
        connect(server);
        session.limit(600, 4);
        ASSERT_EQ(session.put(write("local", content_of(600 * 40)), "remote"), 0);
        server.stop();
        // One may look like a loss, but not two in a row.
        EXPECT_LT(server.received(3), window == 1 ? 42U : 62U);
        EXPECT_GE(server.received(3), 41U);
    }
}

TEST_F(TftpTest, DoubledAcknowledgmentsLookLikeALossOnlyOnce) {
    host_test::TestClock clock;
    TestServer server([&clock](Dialogue &dialogue) {
        const auto expect_blocks = [&dialogue](unsigned first, unsigned last) {
            for (unsigned number = first; number <= last; ++number) {
                const auto packet = dialogue.receive();
                ASSERT_TRUE(packet);
                EXPECT_EQ(opcode_of(*packet), 3U);
                EXPECT_EQ(block_of(*packet), number);
            }
        };
        const auto acknowledge = [&](unsigned block, std::chrono::milliseconds after) {
            clock.advance(after);
            dialogue.send(ack(block));
        };
        constexpr auto round_trip = 1ms;
        constexpr auto late = 20ms;
        dialogue.send(oack({{"windowsize", "4"}}));
        expect_blocks(1, 4);
        acknowledge(4, round_trip);
        expect_blocks(5, 8);
        acknowledge(4, late);
        expect_blocks(5, 8);
        acknowledge(8, round_trip);
        expect_blocks(9, 12);
        acknowledge(8, late);
        acknowledge(12, round_trip);
        expect_blocks(13, 16);
        acknowledge(16, round_trip);
        expect_blocks(17, 17);
        acknowledge(17, round_trip);
    });
    connect(server);
    session.limit(512, 4);
    EXPECT_EQ(session.put(write("local", content_of(512 * 16)), "remote"), 0);
}

TEST_F(TftpTest, OneAcknowledgmentAWindow) {
    const host_test::TestClock clock; // a repeated packet would make another one
    TestServer server(small_blocks(600, 8));
    connect(server);
    session.limit(600, 8);
    server.offer("remote", content_of(600 * 80 - 1));
    ASSERT_EQ(session.get("remote", path("got")), 0);
    server.stop();
    EXPECT_EQ(server.received(4), 11U); // of the options, and of ten windows
}

// Either side reports a gap at once; only the loss of the last packet must wait for a repetition.
TEST_F(TftpTest, GapIsMendedWithoutWaiting) {
    const host_test::TestClock clock;
    Behaviour behaviour = small_blocks(600, 8);
    behaviour.lose_sent = [](unsigned n) { return n == 4 || n == 30; };
    behaviour.repeats = false;
    TestServer server(behaviour);
    connect(server);
    session.limit(600, 8);
    const std::string content = content_of(600 * 64 + 1);
    server.offer("remote", content);
    ASSERT_EQ(session.get("remote", path("got")), 0);
    EXPECT_EQ(clock.passed(), 0s);
    EXPECT_EQ(read("got"), content);
}

// What came after a gap is kept: of the window that the server then sends again, only the missing
// block counts. The gap is reported again only if the server has gone back without mending it.
TEST_F(TftpTest, BlocksBehindAGapNeedNotArriveTwice) {
    host_test::TestClock clock;
    const std::string content = content_of(8 * 9 + 1);
    TestServer server([&](Dialogue &dialogue) {
        const auto send = [&](std::initializer_list<unsigned> blocks) {
            for (const unsigned number : blocks) {
                dialogue.send(data(number, content.substr((number - 1) * 8, 8)));
            }
        };
        dialogue.send(oack({{"blksize", "8"}, {"windowsize", "4"}}));
        EXPECT_EQ(dialogue.receive(), ack(0));
        send({1, 3, 4});
        EXPECT_EQ(dialogue.receive(), ack(1));
        send({2, 5});
        EXPECT_EQ(dialogue.receive(), ack(5));
        send({7, 8, 9});
        EXPECT_EQ(dialogue.receive(), ack(5));
        EXPECT_FALSE(dialogue.receive(50)) << "one report of a gap";
        clock.advance(60ms); // more than half a round trip; too little for a repetition
        send({7});
        EXPECT_EQ(dialogue.receive(), ack(5)) << "the server went back and block 6 is still lost";
        send({6});
        EXPECT_EQ(dialogue.receive(), ack(9));
        send({7, 8, 9}); // the rest of that window
        EXPECT_FALSE(dialogue.receive(50)) << "it would be sent once more";
        send({10});
        EXPECT_EQ(dialogue.receive(), ack(10));
    });
    connect(server);
    session.limit(8, 4);
    ASSERT_EQ(session.get("remote", path("got")), 0);
    EXPECT_EQ(read("got"), content);
}

TEST_F(TftpTest, ForeignTransferIdIsRefusedAndForeignHostIgnored) {
    TestServer server([](Dialogue &dialogue) {
        Dialogue stranger(dialogue.request(), "127.0.0.1");
        Dialogue far_stranger(dialogue.request(), "127.0.0.2");
        far_stranger.send(data(1, "wrong from the start"));
        far_stranger.send(error(1, "wrong from the start"));
        dialogue.send(data(1, std::string(512, 'a')));
        EXPECT_EQ(dialogue.receive(), ack(1));
        stranger.send(data(2, "wrong"));
        const auto refusal = stranger.receive();
        ASSERT_TRUE(refusal);
        EXPECT_EQ(opcode_of(*refusal), 5U);
        EXPECT_EQ(block_of(*refusal), 5U);
        stranger.send(error(2, "an error is not answered"));
        far_stranger.send(data(2, "wrong"));
        far_stranger.send(error(2, "wrong"));
        dialogue.send(data(2, "b"));
        EXPECT_EQ(dialogue.receive(), ack(2));
        EXPECT_FALSE(stranger.receive(0));
        EXPECT_FALSE(far_stranger.receive(0));
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), 0);
    EXPECT_EQ(read("got"), std::string(512, 'a') + 'b');
}

TEST_F(TftpTest, MalformedAndStrayPacketsAreIgnored) {
    TestServer server([](Dialogue &dialogue) {
        const std::vector<std::string> strays = {"",
                                                 "\1",
                                                 number(3),
                                                 number(3) + "x",
                                                 number(6) + "blksize",
                                                 ack(7),
                                                 number(9) + "x",
                                                 number(1) + "f",
                                                 data(2, "no"),
                                                 data(40000, "no")};
        for (const std::string &stray : strays) {
            dialogue.send(stray);
        }
        dialogue.send(data(1, std::string(512, 'a')));
        EXPECT_EQ(dialogue.receive(), ack(1));
        for (const std::string &stray : strays) {
            if (stray != data(2, "no")) {
                dialogue.send(stray);
            }
        }
        dialogue.send(data(2, ""));
        auto answer = dialogue.receive();
        while (answer == ack(1)) { // an answer to what looked like a gap
            answer = dialogue.receive();
        }
        EXPECT_EQ(answer, ack(2));
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), 0);
    EXPECT_EQ(read("got"), std::string(512, 'a'));
}

TEST_F(TftpTest, RepeatsTheRequestToASlowServer) {
    host_test::TestClock clock;
    session.set_timeout(2);
    unsigned requests = 0;
    TestServer server([&](Dialogue &dialogue) {
        ++requests;
        if (requests < 3) {
            clock.advance(requests * 500ms); // the second wait is twice as long
        } else {
            dialogue.send(data(1, "late"));
            EXPECT_EQ(dialogue.receive(), ack(1));
        }
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), 0);
    EXPECT_EQ(read("got"), "late");
}

// The timeout is for silence, not for slowness.
TEST_F(TftpTest, SlowServerMayTakeLongerThanTheTimeout) {
    host_test::TestClock clock;
    session.set_timeout(10);
    TestServer server([&clock](Dialogue &dialogue) {
        dialogue.send(data(1, std::string(512, 'a')));
        for (unsigned number = 2; number <= 4; ++number) {
            EXPECT_EQ(dialogue.receive(), ack(number - 1));
            clock.advance(8s);
            EXPECT_EQ(dialogue.receive(), ack(number - 1)); // repeated
            dialogue.send(data(number, number < 4 ? std::string(512, 'a') : ""));
        }
        EXPECT_EQ(dialogue.receive(), ack(4));
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), 0) << session.text(-1);
    EXPECT_EQ(read("got").size(), 3 * 512U);
}

// A repeated last block means that its acknowledgment was lost; an earlier block is merely late.
TEST_F(TftpTest, RepeatedBlockIsAcknowledgedAgain) {
    const host_test::TestClock clock; // the client never repeats by itself
    TestServer server([](Dialogue &dialogue) {
        dialogue.send(data(1, std::string(512, 'a')));
        EXPECT_EQ(dialogue.receive(), ack(1));
        dialogue.send(data(1, std::string(512, 'a')));
        EXPECT_EQ(dialogue.receive(), ack(1));
        dialogue.send(data(2, std::string(512, 'b')));
        EXPECT_EQ(dialogue.receive(), ack(2));
        dialogue.send(data(1, std::string(512, 'a'))); // not answered
        dialogue.send(data(3, ""));
        EXPECT_EQ(dialogue.receive(), ack(3));
    });
    connect(server);
    EXPECT_EQ(session.get("remote", path("got")), 0);
    EXPECT_EQ(read("got"), std::string(512, 'a') + std::string(512, 'b'));
}
