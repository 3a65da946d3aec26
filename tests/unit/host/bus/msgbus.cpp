#include "platform/msgbus.h"
#include "base/folders.h"
#include "platform/host/bus/server.h"
#include "platform/host/history/log.h"

#include "tests/unit/host/bus/support.h"
#include "tests/unit/superuser.h"
#include "tests/unit/test_clock.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;
using host_test::exit_status_of;
using host_test::start_child;
using ulmo::Incoming;
using ulmo::MsgbusServer;

constexpr uint32_t sap = 3;

class HostMsgbus : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(ask(0), -1)
            << "without a server, asking only ends the exchange that the test left open";
        msgbus_drop(msgbus_response_q, &answer_);
    }

    int32_t ask(uint32_t opcode, const std::string &payload = "") {
        msgbus_drop(msgbus_response_q, &request_);
        return msgbus_send(msgbus_response_q, MSGBUS_NODE_LOCAL, sap, opcode, payload.data(),
                           static_cast<uint32_t>(payload.size()), &request_, 0, 0);
    }

    static int32_t tell(uint32_t opcode, const std::string &payload = "") {
        return msgbus_send(msgbus_response_q, MSGBUS_NODE_LOCAL, sap, opcode, payload.data(),
                           static_cast<uint32_t>(payload.size()), nullptr, 0, 0);
    }

    // Returns 0 if a process of another user could send the message, otherwise its errno.
    static int tell_as_nobody(uint32_t opcode) {
        return host_test::in_child([opcode] {
            if (::setresuid(host_test::nobody, host_test::nobody, host_test::nobody) != 0) {
                return 255;
            }
            return tell(opcode) == 0 ? 0 : errno;
        });
    }

    // Takes away the file modes by which the kernel keeps other users out.
    static void open_to_everybody() {
        ASSERT_EQ(::chmod(ulmo::msgbus_dir().c_str(), 0755), 0);
        ASSERT_EQ(::chmod(ulmo::sap_path(sap).c_str(), 0666), 0);
    }

    // Receives once. Returns 0 if a message came, otherwise errno.
    int listen(uint32_t wait) {
        msgbus_recv_options options{};
        options.wait = wait;
        msgbus_drop(msgbus_response_q, &answer_);
        errno = 0;
        return msgbus_recv(msgbus_response_q, &answer_, &options) == 0 ? 0 : errno;
    }

    void serve(MsgbusServer &server) {
        server.serve([this](Incoming incoming) { received_.push_back(std::move(incoming)); });
    }

    // A connection without the msgbus protocol.
    static ulmo::UniqueFd connect_raw() {
        ulmo::UniqueFd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        const ulmo::SocketAddress address(ulmo::sap_path(sap));
        EXPECT_EQ(::connect(socket.get(), address.get(), address.length()), 0)
            << std::strerror(errno);
        return socket;
    }

    static bool readable(int descriptor, std::chrono::milliseconds within = 0ms) {
        pollfd wanted{descriptor, POLLIN, 0};
        return ::poll(&wanted, 1, static_cast<int>(within.count())) == 1;
    }

    host_test::TemporaryDirectory directory_;
    host_test::Platform platform_{directory_.path()};
    std::deque<Incoming> received_;
    msgbus_msg request_ = nullptr;
    msgbus_msg answer_ = nullptr;
};

std::string payload_of(msgbus_msg message) {
    return std::string(static_cast<const char *>(msgbus_payload_get(message, 0)), message->length);
}

TEST_F(HostMsgbus, WithoutAServerNothingIsSent) {
    EXPECT_EQ(tell(1391), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(ask(1381), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(request_, nullptr);
    EXPECT_EQ(listen(1), ENOMSG);
}

TEST_F(HostMsgbus, OneWayMessageArrivesWithItsSender) {
    MsgbusServer server(sap);
    ASSERT_EQ(tell(1391, "abcdefg"), 0);
    EXPECT_TRUE(readable(server.fd()));
    serve(server);
    ASSERT_EQ(received_.size(), 1U);
    const msgbus_msg message = received_[0].message.get();
    EXPECT_EQ(msgbus_opc_get(message), 1391U);
    EXPECT_EQ(msgbus_rr_token_get(message), 0U);
    EXPECT_EQ(payload_of(message), "abcdefg");
    EXPECT_EQ(msgbus_payload_get(message, 8), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(msgbus_payload_get(message, 7)) % alignof(uint32_t), 0U);
    EXPECT_EQ(received_[0].peer.pid, ::getpid());
    EXPECT_EQ(received_[0].peer.uid, ::geteuid());
    EXPECT_EQ(received_[0].peer.gid, ::getegid());
    EXPECT_FALSE(readable(server.fd()));
}

TEST_F(HostMsgbus, MessagesKeepTheirOrder) {
    MsgbusServer server(sap);
    for (uint32_t opcode = 1; opcode <= 100; ++opcode) {
        ASSERT_EQ(tell(opcode), 0);
    }
    serve(server);
    ASSERT_EQ(received_.size(), 100U);
    for (uint32_t opcode = 1; opcode <= 100; ++opcode) {
        EXPECT_EQ(received_[opcode - 1].message->opcode, opcode);
    }
}

TEST_F(HostMsgbus, AnswerComesBackWithTheToken) {
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381, "please"), 0);
    EXPECT_EQ(payload_of(request_), "please");
    const uint32_t token = msgbus_rr_token_get(request_);
    EXPECT_NE(token, 0U);
    EXPECT_EQ(listen(0), ETIME);
    serve(server);
    ASSERT_EQ(received_.size(), 1U);
    EXPECT_EQ(received_[0].message->token, token);
    EXPECT_EQ(received_[0].reply(1381, "yes", 3), 0);
    ASSERT_EQ(listen(0), 0);
    EXPECT_EQ(msgbus_opc_get(answer_), 1381U);
    EXPECT_EQ(msgbus_rr_token_get(answer_), token);
    EXPECT_EQ(payload_of(answer_), "yes");
    // One answer ends the exchange.
    EXPECT_EQ(received_[0].reply(1381, "again", 5), EPIPE);
    EXPECT_EQ(listen(0), ENOMSG);
}

TEST_F(HostMsgbus, DroppingTheRequestDoesNotEndTheExchange) {
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    msgbus_drop(msgbus_response_q, &request_);
    EXPECT_EQ(request_, nullptr);
    msgbus_drop(msgbus_response_q, &request_);
    serve(server);
    ASSERT_EQ(received_.at(0).reply(1381, "yes", 3), 0);
    EXPECT_EQ(listen(1), 0);
}

TEST_F(HostMsgbus, WaitIsShort) {
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    host_test::TestClock clock;
    clock.hurry();
    EXPECT_EQ(listen(0), ETIME);
    EXPECT_EQ(clock.passed(), 0ms);
    EXPECT_EQ(listen(1), ETIME);
    EXPECT_EQ(clock.passed(), 100ms);
}

TEST_F(HostMsgbus, WaitEndsWithTheAnswer) {
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    serve(server);
    const host_test::TestClock clock;
    const pid_t child = start_child([this] { return received_.at(0).reply(1381, "yes", 3); });
    EXPECT_EQ(listen(1), 0);
    EXPECT_EQ(clock.passed(), 0ms);
    EXPECT_EQ(exit_status_of(child), 0);
}

TEST_F(HostMsgbus, PeerThatClosesIsReportedAtOnce) {
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    serve(server);
    received_.clear();
    EXPECT_EQ(listen(1), ECONNRESET);
    EXPECT_EQ(listen(1), ENOMSG);
}

TEST_F(HostMsgbus, SilenceHasALimit) {
    platform_.set("msgbus_answer_limit = 150");
    host_test::TestClock clock;
    clock.hurry();
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    serve(server);
    EXPECT_EQ(listen(1), ETIME);
    EXPECT_EQ(listen(1), ETIMEDOUT);
    EXPECT_EQ(clock.passed(), 150ms);
    EXPECT_EQ(received_.at(0).reply(1381, "late", 4), EPIPE);
    EXPECT_EQ(listen(1), ENOMSG);
}

TEST_F(HostMsgbus, SilenceLimitNeedsAPositiveNumber) {
    platform_.set("msgbus_answer_limit = -5");
    host_test::TestClock clock;
    clock.hurry();
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    EXPECT_EQ(listen(1), ETIME);
}

TEST_F(HostMsgbus, NewRequestAbandonsTheFormer) {
    MsgbusServer server(sap);
    std::set<uint32_t> tokens;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(ask(1381), 0);
        tokens.insert(msgbus_rr_token_get(request_));
    }
    EXPECT_EQ(tokens.size(), 3U);
    serve(server);
    ASSERT_EQ(received_.size(), 3U);
    EXPECT_EQ(received_[0].reply(1381, "old", 3), EPIPE);
    EXPECT_EQ(received_[2].reply(1381, "new", 3), 0);
    ASSERT_EQ(listen(1), 0);
    EXPECT_EQ(payload_of(answer_), "new");
}

TEST_F(HostMsgbus, RequestThatCantBeSentAbandonsTheFormerToo) {
    auto server = std::make_unique<MsgbusServer>(sap);
    ASSERT_EQ(ask(1381), 0);
    serve(*server);
    ASSERT_EQ(received_.at(0).reply(1381, "old", 3), 0);
    server.reset();
    ASSERT_EQ(ask(1381), -1);
    EXPECT_EQ(listen(1), ENOMSG);
}

TEST_F(HostMsgbus, AnswerToAnotherRequestIsDropped) {
    host_test::TestClock clock;
    clock.hurry();
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    serve(server);
    received_.at(0).message->token += 1;
    ASSERT_EQ(received_.at(0).reply(1381, "wrong", 5), 0);
    EXPECT_EQ(listen(1), ETIME);
    received_.at(0).message->token -= 1;
    ASSERT_EQ(received_.at(0).reply(1381, "right", 5), 0);
    ASSERT_EQ(listen(1), 0);
    EXPECT_EQ(payload_of(answer_), "right");
}

TEST_F(HostMsgbus, EndpointsHaveTheirOwnExchanges) {
    MsgbusServer server(sap);
    const msgbus_address address{{1, 0, 1024, 0, 0, 15}};
    const int32_t other = msgbus_bind(4, -1, &address, "other");
    ASSERT_GT(other, 0);
    msgbus_msg request = nullptr;
    ASSERT_EQ(msgbus_send(other, MSGBUS_NODE_LOCAL, sap, 7, "", 0, &request, 0, 0), 0);
    ASSERT_EQ(ask(8), 0);
    serve(server);
    ASSERT_EQ(received_.at(0).reply(7, "", 0), 0);
    EXPECT_EQ(listen(0), ETIME);
    msgbus_msg answer = nullptr;
    EXPECT_EQ(msgbus_recv(other, &answer, nullptr), 0);
    msgbus_drop(other, &answer);
    msgbus_drop(other, &request);
    EXPECT_EQ(msgbus_unbind(other, 0), 0);
    EXPECT_EQ(msgbus_recv(other, &answer, nullptr), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(HostMsgbus, PayloadLengths) {
    MsgbusServer server(sap);
    const std::string longest(MSGBUS_PAYLOAD_MAX, 'x');
    ASSERT_EQ(tell(1, longest), 0);
    ASSERT_EQ(tell(2), 0);
    EXPECT_EQ(tell(3, longest + "x"), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    serve(server);
    ASSERT_EQ(received_.size(), 2U);
    EXPECT_EQ(payload_of(received_[0].message.get()), longest);
    EXPECT_EQ(msgbus_payload_get(received_[1].message.get(), 1), nullptr);
}

TEST_F(HostMsgbus, WrongArguments) {
    MsgbusServer server(sap);
    const msgbus_address address{{1, 0, 1024, 0, 0, 15}};
    EXPECT_LT(msgbus_bind(2, -1, &address, "x"), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(msgbus_bind(1, -1, nullptr, "x"), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_LT(msgbus_send(77, MSGBUS_NODE_LOCAL, sap, 1, "", 0, nullptr, 0, 0), 0);
    EXPECT_EQ(errno, EBADF);
    EXPECT_LT(msgbus_send(msgbus_response_q, 1, sap, 1, "", 0, nullptr, 0, 0), 0);
    EXPECT_EQ(errno, EHOSTUNREACH);
    const int32_t one_way = msgbus_bind(1, -1, &address, nullptr);
    ASSERT_GT(one_way, 0);
    EXPECT_LT(msgbus_send(one_way, MSGBUS_NODE_LOCAL, sap, 1, "", 0, &request_, 0, 0), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(msgbus_unbind(one_way, 0), 0);
    EXPECT_LT(msgbus_unbind(one_way, 0), 0);
}

TEST_F(HostMsgbus, EndpointsAreLimitedAndGivenBack) {
    const msgbus_address address{{1, 0, 1024, 0, 0, 15}};
    std::vector<int32_t> handles;
    for (int32_t handle; (handle = msgbus_bind(1, -1, &address, "many")) >= 0;) {
        handles.push_back(handle);
        ASSERT_LT(handles.size(), 1000U);
    }
    EXPECT_EQ(errno, EMFILE);
    for (const int32_t handle : handles) {
        EXPECT_EQ(msgbus_unbind(handle, 0), 0);
    }
    const int32_t handle = msgbus_bind(1, -1, &address, "one more");
    EXPECT_GE(handle, 0);
    msgbus_unbind(handle, 0);
}

TEST_F(HostMsgbus, BindNeedsTheRunDirectory) {
    const msgbus_address address{{1, 0, 1024, 0, 0, 15}};
    std::ofstream(directory_.path() / "run") << "no folder";
    EXPECT_LT(msgbus_bind(1, -1, &address, "config_copy_task"), 0);
    EXPECT_EQ(errno, ENOTDIR);
    std::filesystem::remove(directory_.path() / "run");
    std::filesystem::create_directory(directory_.path() / "run");
    std::ofstream(directory_.path() / "run" / "msgbus") << "no folder";
    EXPECT_LT(msgbus_bind(1, -1, &address, "config_copy_task"), 0);
    EXPECT_EQ(errno, ENOTDIR);
    const host_test::ScopedVariable far_away("ULMO_RUN_DIR",
                                             directory_.path() / std::string(150, 'd'));
    EXPECT_EQ(tell(1), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(HostMsgbus, ForkedChildBindsForItself) {
    MsgbusServer server(sap);
    const pid_t child = start_child([] {
        const msgbus_address address{{1, 0, 1024, 0, 0, 15}};
        const int32_t status = 5;
        const int32_t handle = msgbus_bind(1, -1, &address, "config_copy_task");
        const int32_t sent = msgbus_send(handle, MSGBUS_NODE_LOCAL, sap, 10273, &status,
                                         sizeof status, nullptr, 0, 0);
        return handle > 0 && sent == 0 && msgbus_unbind(handle, 0) == 0 ? 0 : 1;
    });
    EXPECT_EQ(exit_status_of(child), 0);
    serve(server);
    ASSERT_EQ(received_.size(), 1U);
    EXPECT_EQ(received_[0].peer.pid, child);
    int32_t status = 0;
    std::memcpy(&status, msgbus_payload_get(received_[0].message.get(), 4), sizeof status);
    EXPECT_EQ(status, 5);
}

TEST_F(HostMsgbus, MalformedPacketsAreDropped) {
    struct Header {
        uint32_t magic = 0x6d736762, version = 1, opcode = 9, token = 0, length = 0;
    };
    const auto packet = [](Header header, size_t payload) {
        std::string octets(reinterpret_cast<const char *>(&header), sizeof header);
        return octets + std::string(payload, 'p');
    };
    Header bad_magic, bad_version, too_few, too_many, over_limit;
    bad_magic.magic = 1;
    bad_version.version = 2;
    too_few.length = 5;
    too_many.length = 3;
    over_limit.length = MSGBUS_PAYLOAD_MAX + 1;
    MsgbusServer server(sap);
    for (const std::string &bad :
         {std::string("x"), packet({}, 0).substr(0, 19), packet(bad_magic, 0),
          packet(bad_version, 0), packet(too_few, 4), packet(too_many, 4),
          packet(over_limit, MSGBUS_PAYLOAD_MAX + 1)}) {
        const auto connection = connect_raw();
        ASSERT_EQ(::send(connection.get(), bad.data(), bad.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bad.size()));
        serve(server);
        EXPECT_TRUE(received_.empty());
        EXPECT_EQ(server.pending(), 0U);
        EXPECT_TRUE(readable(connection.get())) << "the connection is closed";
    }
    const auto connection = connect_raw();
    const std::string good = packet({}, 0);
    ASSERT_EQ(::send(connection.get(), good.data(), good.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(good.size()));
    serve(server);
    EXPECT_EQ(received_.size(), 1U);
}

TEST_F(HostMsgbus, MalformedAnswerIsDropped) {
    MsgbusServer server(sap);
    ASSERT_EQ(ask(1381), 0);
    serve(server);
    ASSERT_EQ(::send(received_.at(0).connection.get(), "junk", 4, MSG_NOSIGNAL), 4);
    EXPECT_EQ(listen(1), ETIME);
    ASSERT_EQ(received_.at(0).reply(1381, "yes", 3), 0);
    EXPECT_EQ(listen(1), 0);
}

TEST_F(HostMsgbus, OneServerAnAccessPoint) {
    auto server = std::make_unique<MsgbusServer>(sap);
    const auto second_server_error = [] {
        try {
            MsgbusServer second(sap);
        } catch (const std::system_error &failure) {
            return failure.code().value();
        }
        return 0;
    };
    EXPECT_EQ(second_server_error(), EADDRINUSE);
    EXPECT_EQ(tell(1), 0) << "the first server is unharmed";
    EXPECT_EQ(exit_status_of(start_child(second_server_error)), EADDRINUSE);
    server.reset();
    EXPECT_EQ(tell(1), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(second_server_error(), 0);
}

TEST_F(HostMsgbus, ALinkInPlaceOfTheLockIsNotFollowed) {
    const auto elsewhere = directory_.path() / "elsewhere";
    std::filesystem::create_symlink(elsewhere,
                                    ulmo::msgbus_dir() / (std::to_string(sap) + ".lock"));
    EXPECT_THROW(MsgbusServer{sap}, std::system_error);
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
}

TEST_F(HostMsgbus, SocketOfADeadServerIsReplaced) {
    EXPECT_EQ(exit_status_of(start_child([] {
                  new MsgbusServer(sap); // ends without removing the socket
                  return 0;
              })),
              0);
    EXPECT_EQ(tell(1), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    MsgbusServer server(sap);
    EXPECT_EQ(tell(1), 0);
    serve(server);
    EXPECT_EQ(received_.size(), 1U);
}

TEST_F(HostMsgbus, ItsFilesAreTheOwnersOnly) {
    std::filesystem::create_directories(ulmo::run_dir() / "msgbus");
    ASSERT_EQ(::chmod(ulmo::msgbus_dir().c_str(), 0755), 0) << "as an earlier version made it";
    const MsgbusServer server(sap);
    const auto mode_of = [](const std::filesystem::path &path) {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
        return status.st_mode & 07777U;
    };
    EXPECT_EQ(mode_of(ulmo::sap_path(sap)), 0600U);
    EXPECT_EQ(mode_of(ulmo::msgbus_dir()), 0700U);
}

// A user who can't connect can't fill the queue either.
TEST_F(HostMsgbus, OtherUsersCanNotEvenConnect) {
    REQUIRE_SUPERUSER("acts as another user");
    MsgbusServer server(sap);
    EXPECT_EQ(tell_as_nobody(1391), EACCES);
    EXPECT_FALSE(readable(server.fd()));
}

TEST_F(HostMsgbus, OtherUsersAreRefused) {
    REQUIRE_SUPERUSER("acts as another user");
    MsgbusServer server(sap);
    open_to_everybody();
    EXPECT_EQ(tell_as_nobody(1391), 0);
    serve(server);
    EXPECT_TRUE(received_.empty());
    EXPECT_EQ(server.pending(), 0U);
    EXPECT_EQ(exit_status_of(start_child([] { return tell(1391) == 0 ? 0 : errno; })), 0);
    serve(server);
    EXPECT_EQ(received_.size(), 1U);
}

TEST_F(HostMsgbus, TheOwnerOfTheRunDirectoryIsTrusted) {
    REQUIRE_SUPERUSER("acts as another user");
    ASSERT_EQ(::chown(ulmo::run_dir().c_str(), host_test::nobody, host_test::nobody), 0);
    MsgbusServer server(sap);
    EXPECT_EQ(tell_as_nobody(1391), 0);
    serve(server);
    ASSERT_EQ(received_.size(), 1U);
    EXPECT_EQ(received_[0].peer.uid, host_test::nobody);
}

TEST_F(HostMsgbus, AUserTrustsHimself) {
    REQUIRE_SUPERUSER("acts as another user");
    ASSERT_EQ(::chmod(ulmo::msgbus_dir().c_str(), 0777), 0); // in the superuser's run directory
    EXPECT_EQ(host_test::in_child([] {
                  if (::setresuid(host_test::nobody, host_test::nobody, host_test::nobody) != 0) {
                      return 255;
                  }
                  MsgbusServer server(sap);
                  if (tell(1391) != 0) {
                      return errno;
                  }
                  int received = 0;
                  server.serve([&received](const Incoming &) { ++received; });
                  return received == 1 ? 0 : 254;
              }),
              0);
}

TEST_F(HostMsgbus, ServesOnWithoutTheRunDirectory) {
    REQUIRE_SUPERUSER("acts as another user");
    const auto above = directory_.path() / "above";
    const host_test::ScopedVariable run_variable("ULMO_RUN_DIR", above / "run");
    ulmo::log_error("a process makes the history, and the run directory with it, when it logs for "
                    "the first time");
    for (const bool can_be_made : {true, false}) {
        MsgbusServer server(sap);
        open_to_everybody();
        EXPECT_EQ(tell_as_nobody(1391), 0);
        EXPECT_EQ(tell(1361), 0);
        std::filesystem::remove_all(above);
        if (!can_be_made) {
            std::ofstream(above).close();
        }
        received_.clear();
        EXPECT_NO_THROW(serve(server)) << can_be_made;
        ASSERT_EQ(received_.size(), 1U) << can_be_made;
        EXPECT_EQ(received_[0].message->opcode, 1361U)
            << "another user is not trusted, even without the run directory";
        EXPECT_EQ(std::filesystem::is_socket(ulmo::run_path() / "msgbus" / std::to_string(sap)),
                  can_be_made);
        std::filesystem::remove_all(above);
    }
}

TEST_F(HostMsgbus, ServerOfAnotherUserIsNotTrusted) {
    REQUIRE_SUPERUSER("acts as another user");
    ASSERT_EQ(::chmod(ulmo::msgbus_dir().c_str(), 0777), 0);
    std::array<int, 2> ready{};
    ASSERT_EQ(::pipe(ready.data()), 0);
    const pid_t child = start_child([&] {
        if (::setresuid(host_test::nobody, host_test::nobody, host_test::nobody) != 0) {
            return 255;
        }
        MsgbusServer server(sap);
        return ::write(ready[1], "r", 1) == 1 ? ::pause() : 1;
    });
    ::close(ready[1]); // so that the test does not wait for a child that fails
    char token = 0;
    ASSERT_EQ(::read(ready[0], &token, 1), 1);
    EXPECT_EQ(tell(1), -1);
    EXPECT_EQ(errno, EPERM);
    ::kill(child, SIGKILL);
    EXPECT_EQ(exit_status_of(child), -1);
    ::close(ready[0]);
}

TEST_F(HostMsgbus, SilentConnectionsEndAfterAWhile) {
    MsgbusServer server(sap, {.pending = 8, .timeout = 60ms});
    const auto silent = connect_raw();
    serve(server);
    EXPECT_EQ(server.pending(), 1U);
    ASSERT_EQ(tell(1), 0);
    serve(server);
    EXPECT_EQ(received_.size(), 1U) << "no sender waits for the silent one";
    EXPECT_FALSE(readable(silent.get()));
    ASSERT_TRUE(readable(server.fd(), 2s)) << "the deadline wakes the server by itself";
    serve(server);
    EXPECT_EQ(server.pending(), 0U);
    EXPECT_TRUE(readable(silent.get()));
    EXPECT_FALSE(readable(server.fd()));
}

TEST_F(HostMsgbus, SilentConnectionsAreLimited) {
    MsgbusServer server(sap, {.pending = 3, .timeout = 60s});
    std::vector<ulmo::UniqueFd> silent;
    for (int i = 0; i < 5; ++i) {
        silent.push_back(connect_raw());
    }
    serve(server);
    EXPECT_EQ(server.pending(), 3U);
    EXPECT_TRUE(readable(silent[0].get())) << "the oldest go first";
    EXPECT_TRUE(readable(silent[1].get()));
    EXPECT_FALSE(readable(silent[2].get()));
    ASSERT_EQ(tell(1), 0);
    serve(server);
    EXPECT_EQ(received_.size(), 1U);
}

TEST_F(HostMsgbus, LateMessageOfASilentConnection) {
    MsgbusServer server(sap);
    auto late = connect_raw();
    serve(server);
    EXPECT_FALSE(readable(server.fd()));
    ASSERT_EQ(ulmo::send_packet(late.get(), 9, 4, "late", 4), 0);
    ASSERT_TRUE(readable(server.fd()));
    serve(server);
    ASSERT_EQ(received_.size(), 1U);
    EXPECT_EQ(payload_of(received_[0].message.get()), "late");
    EXPECT_EQ(server.pending(), 0U);
    EXPECT_EQ(received_[0].reply(9, "ok", 2), 0);
    late.reset();
    EXPECT_FALSE(readable(server.fd()))
        << "a connection that was handed over does not wake the server";
}

TEST_F(HostMsgbus, FullQueueIsAnErrorAfterAWhile) {
    MsgbusServer server(sap);
    int sent = 0;
    auto began = std::chrono::steady_clock::now();
    while (tell(1) == 0) {
        ASSERT_LT(++sent, 10000);
        began = std::chrono::steady_clock::now();
    }
    EXPECT_EQ(errno, EAGAIN);
    const auto waited = std::chrono::steady_clock::now() - began;
    EXPECT_GE(waited, 200ms);
    EXPECT_LT(waited, 2s) << "the agent answers no request meanwhile";
    EXPECT_GE(sent, 100);
    serve(server);
    EXPECT_EQ(static_cast<int>(received_.size()), sent) << "one round takes all that was sent";
    EXPECT_EQ(tell(1), 0);
}

TEST_F(HostMsgbus, AFullQueueIsTriedAgain) {
    platform_.set("msgbus_answer_limit = 10000");
    MsgbusServer server(sap);
    std::vector<ulmo::UniqueFd> filling;
    int error = 0;
    while (error == 0) {
        filling.push_back(ulmo::connect_to(sap, error));
    }
    ASSERT_EQ(error, EAGAIN);
    filling.clear();
    std::thread busy([this, &server] {
        std::this_thread::sleep_for(50ms);
        serve(server); // may already receive the message
    });
    EXPECT_EQ(tell(1), 0);
    busy.join();
    serve(server);
    EXPECT_EQ(received_.size(), 1U);
}

TEST_F(HostMsgbus, APeerThatIsAwayForAMomentIsTriedAgain) {
    platform_.set("msgbus_answer_limit = 10000");
    for (const bool left_its_socket : {false, true}) {
        if (left_its_socket) {
            EXPECT_EQ(exit_status_of(start_child([] {
                          new MsgbusServer(sap);
                          return 0;
                      })),
                      0);
        }
        std::unique_ptr<MsgbusServer> server;
        std::thread starting([&server] {
            std::this_thread::sleep_for(50ms);
            server = std::make_unique<MsgbusServer>(sap);
        });
        EXPECT_EQ(tell(1), 0);
        starting.join();
        received_.clear();
        serve(*server);
        EXPECT_EQ(received_.size(), 1U);
    }
}

TEST_F(HostMsgbus, WhatIsDeletedIsThereAgainWithinASecond) {
    MsgbusServer server(sap);
    const auto folder = ulmo::msgbus_dir();
    const std::vector<std::filesystem::path> all{ulmo::sap_path(sap), folder, ulmo::run_dir()};
    for (const auto &deleted : all) {
        ASSERT_EQ(tell(2), 0);
        std::filesystem::remove_all(deleted);
        ASSERT_TRUE(readable(server.fd()));
        received_.clear();
        serve(server);
        EXPECT_EQ(received_.size(), 1U) << "the message sent before is not lost";
        std::filesystem::remove_all(deleted);
        EXPECT_FALSE(readable(server.fd()));
        ASSERT_TRUE(readable(server.fd(), 2s)) << "the server looks by itself";
        serve(server);
        EXPECT_EQ(tell(3), 0) << deleted;
        received_.clear();
        serve(server);
        EXPECT_EQ(received_.size(), 1U) << deleted;
    }
    EXPECT_THROW(MsgbusServer{sap}, std::system_error) << "the lock is there again, too";
}

TEST_F(HostMsgbus, AnotherServersSocketIsLeftAlone) {
    MsgbusServer first(sap);
    std::filesystem::remove_all(ulmo::msgbus_dir());
    auto second = std::make_unique<MsgbusServer>(sap); // with a lock of its own
    serve(first);
    ASSERT_EQ(tell(1), 0);
    serve(*second);
    EXPECT_EQ(received_.size(), 1U);
    second.reset();
    serve(first);
    EXPECT_EQ(tell(1), 0) << "now the socket is the first server's";
}

TEST_F(HostMsgbus, ShortageOfDescriptorsPasses) {
    MsgbusServer server(sap);
    ASSERT_EQ(tell(1), 0);
    const ulmo::UniqueFd highest(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none_left{static_cast<rlim_t>(highest.get()) + 1, limit.rlim_max};
    size_t handed_over = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none_left), 0);
    // the sanitizer needs descriptors to look at this test's object
    server.serve([&handed_over](const Incoming &) { ++handed_over; });
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    EXPECT_EQ(handed_over, 0U);
    EXPECT_FALSE(readable(server.fd())) << "the server does not loop";
    ASSERT_TRUE(readable(server.fd(), 3s));
    serve(server);
    EXPECT_EQ(received_.size(), 1U);
    EXPECT_FALSE(readable(server.fd()));
}

TEST_F(HostMsgbus, NoDescriptorIsLeftOpen) {
    const auto count = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = count();
    {
        MsgbusServer server(sap);
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(ask(1381), 0);
            serve(server);
            ASSERT_EQ(received_.at(0).reply(1381, "yes", 3), 0);
            EXPECT_EQ(listen(1), 0);
            received_.clear();
        }
        msgbus_drop(msgbus_response_q, &answer_);
    }
    EXPECT_EQ(count(), before);
}

} // namespace
