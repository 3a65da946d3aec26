// Finding out which of many agents are there.
#include "config-copy/agents/scout.h"

#include "base/posix.h"
#include "config-copy/copy_table.h"
#include "tests/unit/config-copy/support.h"
#include "tests/unit/copy_client/scripted_agent.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <utility>

namespace config_copy {
namespace {

using copy_client_test::Script;
using copy_client_test::ScriptedAgent;

// The messages as any other decoder reads them: by the library.
TEST(Scout, ItsRequestsAreThoseOfTheLibrary) {
    std::string message = read_request(SNMP_VERSION_2c, "public", 0x12345678);
    auto *octets = reinterpret_cast<u_char *>(message.data());
    std::size_t length = message.size();
    std::array<u_char, 64> community{};
    std::size_t community_length = community.size();
    long version = -1;
    u_char *rest =
        ::snmp_comstr_parse(octets, &length, community.data(), &community_length, &version);
    ASSERT_NE(nullptr, rest);
    EXPECT_EQ(SNMP_VERSION_2c, version);
    EXPECT_EQ("public", std::string(community.begin(), community.begin() + community_length));
    netsnmp_pdu *pdu = ::snmp_pdu_create(SNMP_MSG_GET);
    ASSERT_EQ(0, ::snmp_pdu_parse(pdu, rest, &length));
    EXPECT_EQ(0x12345678, pdu->reqid);
    const Oid name = copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index);
    ASSERT_NE(nullptr, pdu->variables);
    EXPECT_EQ(0, ::snmp_oid_compare(name.data(), name.size(), pdu->variables->name,
                                    pdu->variables->name_length));
    ::snmp_free_pdu(pdu);
}

TEST(Scout, LongCommunitiesAndLargeNumbers) {
    const std::string community(300, 'x');
    const std::string message = read_request(SNMP_VERSION_1, community, 0x3FFFFFFF);
    EXPECT_EQ(0x3FFFFFFFU, id_of_answer(message)); // an answer has the same head
    EXPECT_EQ(0x80U, id_of_answer(read_request(SNMP_VERSION_1, "", 0x80)));
    EXPECT_EQ(0U, id_of_answer(discovery_request(0)));
    EXPECT_EQ(0x3FFFFFFFU, id_of_answer(discovery_request(0x3FFFFFFF)));
}

TEST(Scout, AnswersThatAreCutOffOrSomethingElse) {
    for (const std::string &whole :
         {discovery_request(1234567), read_request(SNMP_VERSION_2c, "public", 1234567)}) {
        for (std::size_t length = 0; length < whole.size(); ++length) {
            EXPECT_FALSE(id_of_answer(whole.substr(0, length))) << length;
        }
    }
    EXPECT_FALSE(id_of_answer("GET / HTTP/1.1\r\n"));
    EXPECT_FALSE(id_of_answer(std::string("\x30\x84\xFF\xFF\xFF\xFF", 6)));
}

class ScoutTest : public testing::Test {
  protected:
    ScoutTest() {
        ::setenv("SNMPCONFPATH", "/nonexistent", 1);
        copy_client::set_up_library("scout-test");
    }

    // Of SNMPv2c.
    static std::shared_ptr<netsnmp_session> settings(long timeout_ms = 200, int retries = 1) {
        static char community[] = "private";
        auto settings = std::make_shared<netsnmp_session>();
        ::snmp_sess_init(settings.get());
        settings->version = SNMP_VERSION_2c;
        settings->community = reinterpret_cast<u_char *>(community);
        settings->community_len = sizeof community - 1;
        settings->timeout = timeout_ms * 1000;
        settings->retries = retries;
        return settings;
    }

    void run(std::size_t room = 1000) {
        Scout scout(agents_, std::chrono::seconds(10), false);
        found_.clear();
        missing_.clear();
        scout.run(
            {[=] { return room; },
             [&](std::size_t agent, const std::string &address) { found_[agent] = address; },
             [&](std::size_t agent, const Failure &failure) { missing_[agent] = failure.what(); }});
    }

    std::vector<Agent> agents_;
    std::map<std::size_t, std::string> found_;
    std::map<std::size_t, std::string> missing_;
};

// Takes requests and answers none.
class Silent {
  public:
    Silent() : socket_(ulmo::check(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ulmo::check(::bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), length));
        ulmo::check(::getsockname(socket_.get(), reinterpret_cast<sockaddr *>(&address), &length));
        name_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    }

    [[nodiscard]] const std::string &name() const { return name_; }

    // Waits for a request, and answers it with that id more than it has. Returns false if none has
    // come within a second.
    bool answer_for_another(std::uint32_t more) const {
        constexpr int most_milliseconds = 1000;
        pollfd event{socket_.get(), POLLIN, 0};
        if (ulmo::check(::poll(&event, 1, most_milliseconds)) == 0) {
            return false;
        }
        std::array<char, 2048> buffer{};
        sockaddr_in manager{};
        socklen_t length = sizeof manager;
        const ssize_t octets =
            ulmo::check(::recvfrom(socket_.get(), buffer.data(), buffer.size(), 0,
                                   reinterpret_cast<sockaddr *>(&manager), &length));
        const auto id = id_of_answer({buffer.data(), static_cast<std::size_t>(octets)});
        const std::string answer = read_request(SNMP_VERSION_2c, "private", id.value() + more);
        ulmo::check(::sendto(socket_.get(), answer.data(), answer.size(), 0,
                             reinterpret_cast<sockaddr *>(&manager), length));
        return true;
    }

    std::size_t requests() const {
        std::array<char, 2048> buffer{};
        std::size_t count = 0;
        while (::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
            ++count;
        }
        return count;
    }

  private:
    ulmo::UniqueFd socket_;
    std::string name_;
};

TEST_F(ScoutTest, TellsWhichAgentsAreThere) {
    const ScriptedAgent agent{Script{}};
    const Silent silent;
    agents_ = {{silent.name(), "", settings(), ""},
               {agent.address(), "", settings(), ""},
               {"unix:/nonexistent", "", settings(), ""},
               {"tcp:127.0.0.1:9", "", settings(), ""},
               {"no-such-host.invalid", "", settings(), ""}};
    run();
    EXPECT_EQ((std::map<std::size_t, std::string>{{1, agent.address()}, {2, "unix:/nonexistent"}}),
              found_);
    ASSERT_EQ(3U, missing_.size());
    EXPECT_EQ(0U, missing_[0].find("no answer from " + silent.name() + " in 0.4 s: "));
    EXPECT_EQ(0U, missing_[3].find("no connection to tcp:127.0.0.1:9"));
    EXPECT_EQ(0U, missing_[4].find("the agent \"no-such-host.invalid\" can't be found"));
    EXPECT_EQ(2U, silent.requests());
}

TEST_F(ScoutTest, ALostRequestIsRepeated) {
    Script script;
    script.loses_request = 1;
    const ScriptedAgent agent(script);
    agents_ = {{agent.address(), "", settings(), ""}};
    run();
    EXPECT_EQ(1U, found_.size());
}

TEST_F(ScoutTest, TenThousandSilentAgentsWaitTogether) {
    const Silent silent;
    for (int number = 0; number < 10000; ++number) {
        agents_.push_back({"127.2." + std::to_string(number / 250) + '.' +
                               std::to_string(number % 250 + 1) + ":9",
                           "", settings(300, 0), ""});
    }
    const auto began = std::chrono::steady_clock::now();
    run();
    EXPECT_EQ(10000U, missing_.size());
    // Five lots of 2,048, not ten thousand times 0.3 s.
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(30));
}

TEST_F(ScoutTest, NobodyIsAskedWithoutRoom) {
    const Silent silent;
    agents_ = {{silent.name(), "", settings(), ""}};
    Scout scout(agents_, std::chrono::seconds(10), false);
    std::atomic<std::size_t> room = 0;
    std::jthread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(0U, silent.requests());
        room = 1;
        scout.wake();
    });
    std::size_t missing = 0;
    scout.run({[&] { return room.load(); }, [](std::size_t, const std::string &) { FAIL(); },
               [&](std::size_t, const Failure &) { ++missing; }});
    EXPECT_EQ(1U, missing);
}

TEST_F(ScoutTest, NoAgentAnswersForOneThatIsNotAskedYet) {
    // If the name is looked up before the run begins, it is asked first, and there is nothing to
    // see.
    bool is_forged = false;
    for (int attempt = 0; attempt < 10 && !is_forged; ++attempt) {
        const Silent forger;
        const Silent silent;
        const std::string port = silent.name().substr(silent.name().find(':'));
        agents_ = {{forger.name(), "", settings(1000, 0), ""},
                   {"localhost" + port, "", settings(100, 0), ""}};
        Scout scout(agents_, std::chrono::seconds(10), false);
        std::atomic<bool> is_later = false;
        std::jthread forging([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(300)); // the name is looked up
            is_forged = forger.answer_for_another(1);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            is_later = true;
            scout.wake();
        });
        std::vector<std::size_t> missing;
        bool is_first = true;
        scout.run({[&] { return std::exchange(is_first, false) || is_later ? 1U : 0U; },
                   [](std::size_t, const std::string &) { FAIL(); },
                   [&](std::size_t agent, const Failure &) { missing.push_back(agent); }});
        EXPECT_EQ((std::vector<std::size_t>{1, 0}), missing);
    }
    EXPECT_TRUE(is_forged);
}

} // namespace
} // namespace config_copy
