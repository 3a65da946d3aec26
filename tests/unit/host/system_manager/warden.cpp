// The system manager's daemon: what it does when it is asked for a configuration action, and when
// it starts and ends.
#include "tests/unit/copy_client/scripted_agent.h"
#include "tests/unit/host/system_manager/fixture.h"
#include "tests/unit/superuser.h"

#include <sys/stat.h>

using namespace host_test;
using namespace copy_client_test;

namespace {

class Warden : public WardenTest {
  protected:
    // Takes away the file modes by which the kernel keeps other users out.
    static void open_to_everybody() {
        std::filesystem::permissions(ulmo::msgbus_dir(), std::filesystem::perms(0755));
        std::filesystem::permissions(ulmo::sap_path(MSGBUS_SAP_WARDEN),
                                     std::filesystem::perms(0666));
    }
    // Does the work in a child process, which has a process id of its own.
    static void elsewhere(const std::function<void()> &work) {
        const pid_t child = ::fork();
        if (child == 0) {
            work();
            ::_exit(0);
        }
        int status = 0;
        EXPECT_EQ(::waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
};

// --- a save ---

TEST_F(Warden, AnswersThenTellsTheEnd) {
    prepare_and_start();
    auto held = hold_device();
    Request request = ask(Scope::startup, 77);
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(content(startup()), old_text);
    held.reset();
    EXPECT_EQ(request.end(), 0U) << "its beginning is not reported";
    EXPECT_EQ(request.text(), "saved");
    EXPECT_TRUE(request.is_closed_without_answer()) << "nothing more comes";
    EXPECT_EQ(content(startup()), new_text);
    EXPECT_EQ(content(running()), new_text);
    stop();
    EXPECT_EQ(count("save to the startup configuration of this switch asked by user \"operator\", "
                    "session \"7\", process " +
                    std::to_string(::getpid())),
              1U);
    EXPECT_EQ(count("saved, # ms"), 1U);
    EXPECT_EQ(log().back(), "ended");
}

TEST_F(Warden, TheBeginningIsToldUnderASetting) {
    prepare();
    file("platform.conf", "announce_begin = yes\n");
    start();
    auto held = hold_device();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_TRUE(request.begins());
    held.reset();
    EXPECT_EQ(request.end(), 0U);
}

// The agent did not ask for this save; it would take a report for the end of a save of its own.
TEST_F(Warden, OnlyTheRequesterIsNotified) {
    ulmo::MsgbusServer agent(MSGBUS_SAP_AGENT);
    prepare();
    file("platform.conf", "announce_begin = yes\n");
    start();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_TRUE(request.begins());
    EXPECT_EQ(request.end(), 0U);
    stop();
    std::vector<uint32_t> heard;
    agent.serve([&](const ulmo::Incoming &incoming) { heard.push_back(incoming.message->opcode); });
    EXPECT_EQ(heard, std::vector<uint32_t>{});
}

TEST_F(Warden, ASaveThatFailsLeavesTheOldStartupConfiguration) {
    prepare();
    file("state/running.cfg", "hostname new\nbogus\n");
    start();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), ulmo::warden_err_store);
    const std::string reason =
        running().string() + " is not valid: line 2: unknown statement 'bogus'";
    EXPECT_EQ(request.text(), reason);
    stop();
    EXPECT_EQ(content(startup()), old_text);
    EXPECT_EQ(count("not saved to the startup configuration of this switch, # ms: " + reason), 1U);
}

TEST_F(Warden, OneActionAtATime) {
    prepare_and_start();
    auto held = hold_device();
    Request first = ask(Scope::startup, 1);
    EXPECT_EQ(first.answer(), WARDEN_CFG_ACTION_INITIATED);
    Request second = ask(Scope::all, 2);
    EXPECT_EQ(second.answer(), ulmo::warden_err_busy);
    EXPECT_TRUE(second.is_closed_without_answer());
    held.reset();
    EXPECT_EQ(first.end(), 0U);
    EXPECT_EQ(ask().answer(), WARDEN_CFG_ACTION_INITIATED) << "the next one is not refused";
    stop();
    EXPECT_EQ(count("refused: another action is in progress"), 1U);
    EXPECT_FALSE(std::filesystem::exists(state() / "backup.cfg"));
}

// --- which files ---

TEST_F(Warden, TheStartupScopeWritesOneFile) {
    prepare();
    file("platform.conf", "startup_copy = more.cfg\n");
    start();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), 0U);
    EXPECT_EQ(content(startup()), new_text);
    EXPECT_FALSE(std::filesystem::exists(state() / "more.cfg"));
}

TEST_F(Warden, TheScopeOfAllWritesTheFilesOfTheSetting) {
    prepare_and_start();
    const auto save_all = [] {
        Request request = ask(Scope::all);
        EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
        EXPECT_EQ(request.end(), 0U) << request.text();
    };
    save_all();
    EXPECT_EQ(content(startup()), new_text);
    EXPECT_EQ(content(state() / "backup.cfg"), new_text);

    // A change of the setting takes effect at once.
    file("platform.conf",
         "startup_copy = one.cfg\nstartup_copy = " + (directory_ / "two.cfg").string() + "\n");
    file("state/running.cfg", old_text);
    save_all();
    EXPECT_EQ(content(startup()), old_text);
    EXPECT_EQ(content(state() / "one.cfg"), old_text);
    EXPECT_EQ(content(directory_ / "two.cfg"), old_text);
    EXPECT_EQ(content(state() / "backup.cfg"), new_text) << "no longer one of them";

    file("platform.conf", "startup_copy =\n");
    file("state/running.cfg", new_text);
    save_all();
    EXPECT_EQ(content(startup()), new_text);
    EXPECT_EQ(content(state() / "one.cfg"), old_text);
    EXPECT_EQ(count("save to the startup configurations of this switch asked by *"), 3U);
}

TEST_F(Warden, NothingIsSavedUnderSettingsThatCantBeRead) {
    prepare_and_start();
    const auto settings = directory_ / "platform.conf";
    std::filesystem::remove(settings);
    std::filesystem::create_directory(settings);
    const std::string why =
        settings.string() + " can't be read: Is a directory; copies and saves fail";
    for (const Scope scope : {Scope::startup, Scope::all, Scope::fabric}) {
        Request request = ask(scope);
        EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
        EXPECT_EQ(request.end(), ulmo::warden_err_store);
        EXPECT_EQ(request.text(), why);
    }
    EXPECT_EQ(content(startup()), old_text);
    EXPECT_EQ(count("not saved to the startup configuration of this switch, # ms: " + why), 1U);
    EXPECT_GE(count("settings: " + why), 1U);
}

TEST_F(Warden, OneFileThatCantBeWrittenStopsAllOfThem) {
    prepare();
    file("platform.conf", "startup_copy = first.cfg\nstartup_copy = none/second.cfg\n");
    start();
    Request request = ask(Scope::all);
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), ulmo::warden_err_store);
    EXPECT_EQ(request.text(), "cannot make " + (state() / "none" / "second.cfg").string() +
                                  ": No such file or directory");
    EXPECT_EQ(content(startup()), old_text);
    EXPECT_FALSE(std::filesystem::exists(state() / "first.cfg"));
    EXPECT_FALSE(std::filesystem::exists(state() / "first.cfg.new"));
    EXPECT_FALSE(std::filesystem::exists(state() / "system.cfg.new"));
}

// --- giving up ---

TEST_F(Warden, AnActionIsGivenUpOnRequest) {
    prepare_and_start();
    auto held = hold_device();
    Request request = ask(Scope::startup, 4711);
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    abort_action(4711);
    ASSERT_TRUE(logs("to be given up on request of process " + std::to_string(::getpid())));
    held.reset();
    ASSERT_TRUE(logs("not saved to the startup configuration of this switch, # ms: given up"));
    EXPECT_TRUE(request.is_closed_without_answer());
    EXPECT_EQ(content(startup()), old_text);
    EXPECT_FALSE(std::filesystem::exists(state() / "system.cfg.new"));
    Request next = ask();
    EXPECT_EQ(next.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(next.end(), 0U);
    EXPECT_EQ(content(startup()), new_text);
    stop();
}

TEST_F(Warden, TheNextActionWaitsForTheEndOfOneThatIsGivenUp) {
    prepare_and_start();
    auto held = hold_device();
    Request first = ask(Scope::startup, 4711);
    EXPECT_EQ(first.answer(), WARDEN_CFG_ACTION_INITIATED);
    abort_action(4711);
    ASSERT_TRUE(logs("to be given up on request of process #"));
    const pid_t given_up = action();
    Request second = ask(Scope::startup, 4712);
    EXPECT_EQ(second.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(ask(Scope::startup, 4713).answer(), ulmo::warden_err_busy)
        << "only one request may wait";
    EXPECT_EQ(action(), given_up);
    held.reset();
    EXPECT_EQ(second.end(), 0U);
    EXPECT_EQ(content(startup()), new_text);
    stop();
}

TEST_F(Warden, AnActionThatWaitsIsGivenUpBeforeItBegins) {
    prepare_and_start();
    auto held = hold_device();
    Request first = ask(Scope::startup, 4711);
    EXPECT_EQ(first.answer(), WARDEN_CFG_ACTION_INITIATED);
    abort_action(4711);
    ASSERT_TRUE(logs("to be given up on request of process #"));
    Request second = ask(Scope::startup, 4712);
    EXPECT_EQ(second.answer(), WARDEN_CFG_ACTION_INITIATED);
    abort_action(4712);
    ASSERT_TRUE(
        logs("given up before it began, on request of process " + std::to_string(::getpid())));
    EXPECT_TRUE(second.is_closed_without_answer());
    held.reset();
    ASSERT_TRUE(logs("not saved to the startup configuration of this switch, # ms: given up"));
    stop();
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, AnAbortThatIsNotMeantForTheActionIsDropped) {
    prepare_and_start();
    abort_action(4711); // no action is running
    ASSERT_TRUE(logs("message 1383 of process " + std::to_string(::getpid()) +
                     ", 8 octets, dropped: no such action is in progress"));
    auto held = hold_device();
    Request request = ask(Scope::startup, 4711);
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    const pid_t process = action();
    abort_action(4710);
    abort_action(0);
    elsewhere([] { abort_action(4711); });
    ASSERT_TRUE(comes_true([this] {
        return count(
                   "message 1383 of process #, 8 octets, dropped: no such action is in progress") ==
               4;
    }));
    EXPECT_FALSE(is_told_to_stop(process));
    held.reset();
    EXPECT_EQ(request.end(), 0U);
    EXPECT_EQ(content(startup()), new_text);
    stop();
}

TEST_F(Warden, ARequestWithoutATokenCantBeGivenUp) {
    prepare_and_start();
    auto held = hold_device();
    Request request = ask(Scope::startup, 0);
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    abort_action(0);
    ASSERT_TRUE(
        logs("message 1383 of process #, 8 octets, dropped: no such action is in progress"));
    held.reset();
    EXPECT_EQ(request.end(), 0U);
}

// --- malformed messages ---

TEST_F(Warden, MessagesOfAWrongLengthAreDropped) {
    prepare_and_start();
    const std::string process = std::to_string(::getpid());
    const std::string request = action_payload();
    const std::string abort = abort_payload(1);
    struct Case {
        uint32_t opcode;
        std::string payload;
        const char *why;
    };
    const Case cases[] = {
        {1381, request.substr(0, 139), "wrong length"},
        {1381, request + "x", "wrong length"},
        {1381, "", "wrong length"},
        {1381, std::string(4096, 'x'), "wrong length"},
        {1383, abort.substr(0, 7), "wrong length"},
        {1383, abort + "x", "wrong length"},
        {1383, "", "wrong length"},
        {1391, "", "unknown opcode"},
        {0, request, "unknown opcode"},
        {0xFFFFFFFF, "", "unknown opcode"},
    };
    for (const Case &one : cases) {
        EXPECT_TRUE(Request(one.opcode, one.payload).is_closed_without_answer())
            << one.opcode << ", " << one.payload.size();
        const std::string line = "message " + std::to_string(one.opcode) + " of process " +
                                 process + ", " + std::to_string(one.payload.size()) +
                                 " octets, dropped: " + one.why;
        EXPECT_TRUE(logs(line)) << line;
    }
    stop();
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, MalformedPacketsAreDropped) {
    prepare_and_start();
    for (const std::string &octets : {std::string("x"), std::string(5000, 'x')}) {
        int error = 0;
        const ulmo::UniqueFd connection = ulmo::connect_to(MSGBUS_SAP_WARDEN, error);
        ASSERT_EQ(error, 0);
        ASSERT_EQ(::send(connection.get(), octets.data(), octets.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(octets.size()));
        pollfd readable{connection.get(), POLLIN, 0};
        ASSERT_EQ(::poll(&readable, 1, 5000), 1);
        char octet = 0;
        EXPECT_EQ(::recv(connection.get(), &octet, 1, MSG_DONTWAIT), 0) << "closed";
    }
    EXPECT_EQ(count("msgbus: access point 3: malformed message of process " +
                    std::to_string(::getpid()) + " dropped"),
              2U);
    EXPECT_EQ(ask().answer(), WARDEN_CFG_ACTION_INITIATED);
}

TEST_F(Warden, ARequestWithOtherFixedWordsIsRefused) {
    prepare_and_start();
    const std::function<void(warden_cfg_action &)> changes[] = {
        [](warden_cfg_action &request) { request.word0 = htonl(27); },
        [](warden_cfg_action &request) { request.word1 = 0; },
        [](warden_cfg_action &request) { request.fabric = request.all = htonl(1); },
    };
    for (const auto &change : changes) {
        Request request(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION,
                        action_payload(Scope::startup, "operator", "7", change));
        EXPECT_EQ(request.answer(), ulmo::warden_err_request);
        EXPECT_TRUE(request.is_closed_without_answer());
    }
    stop();
    EXPECT_EQ(count("refused: the request is not understood"), 3U);
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, NothingBeginsForARequesterThatIsGone) {
    prepare_and_start();
    warden_->signal(SIGSTOP);
    ASSERT_TRUE(
        comes_true([this] { return status_of(warden_->pid(), "State").rfind("T", 0) == 0; }));
    ask();
    warden_->signal(SIGCONT);
    EXPECT_TRUE(logs("not begun: the requester is gone"));
    stop();
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, AnotherUsersProcessIsRefused) {
    REQUIRE_SUPERUSER("acts as another user");
    prepare_and_start();
    open_to_everybody();
    const auto ask_as_nobody = [](int expected) {
        elsewhere([expected] {
            constexpr uid_t nobody = 65534;
            int error = 0;
            if (::setresuid(nobody, nobody, nobody) != 0) {
                ::_exit(1);
            }
            const ulmo::UniqueFd connection = ulmo::connect_to(MSGBUS_SAP_WARDEN, error);
            const std::string payload = action_payload();
            if (error == 0) {
                ulmo::send_packet(connection.get(), 1381, 1, payload.data(),
                                  static_cast<uint32_t>(payload.size()));
                pollfd readable{connection.get(), POLLIN, 0};
                std::unique_ptr<msgbus_message> message;
                if (::poll(&readable, 1, 5000) != 1 ||
                    ulmo::receive_packet(connection.get(), message) != ulmo::Receipt::closed) {
                    ::_exit(2);
                }
            }
            ::_exit(error == expected ? 0 : 3);
        });
    };
    ask_as_nobody(0); // that user trusts the superuser's server
    EXPECT_EQ(count("msgbus: access point 3: process # of user 65534 refused"), 1U);
    stop();
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, RefusedConnectionsDoNotFillTheLog) {
    REQUIRE_SUPERUSER("acts as another user");
    prepare_and_start();
    open_to_everybody();
    const auto began = std::chrono::steady_clock::now();
    elsewhere([] {
        constexpr uid_t nobody = 65534;
        constexpr int knocks = 300;
        if (::setresuid(nobody, nobody, nobody) != 0) {
            ::_exit(1);
        }
        for (int heard = 0; heard < knocks;) {
            int error = 0;
            const ulmo::UniqueFd connection = ulmo::connect_to(MSGBUS_SAP_WARDEN, error);
            if (error == 0) {
                ++heard;
            } else { // its queue is full
                std::this_thread::sleep_for(1ms);
            }
        }
        ::_exit(0);
    });
    stop();
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - began)
            .count();
    EXPECT_GE(count("msgbus: access point 3: process # of user 65534 refused; there may be more "
                    "within this second"),
              1U);
    const std::size_t lines = count("msgbus: access point 3: process # of user 65534 refused*");
    EXPECT_GE(lines, 10U);
    EXPECT_LE(lines, 10U * (static_cast<std::size_t>(seconds) + 2)) << "ten a second";
}

TEST_F(Warden, WhateverTextArrivesIsLoggedOnOneLine) {
    prepare_and_start();
    const auto lines_before = log().size();
    // The fields may be full to the last octet.
    const std::string user = "eve\nready\x1b[2J\x7f %s%n" + std::string(32, 'x');
    Request request(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION,
                    action_payload(Scope::startup, user, "\r\t"));
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), 0U);
    ASSERT_EQ(log().size(), lines_before + 2);
    EXPECT_EQ(
        log()[lines_before],
        "save to the startup configuration of this switch asked by user \"eve ready?[2J? %s%n" +
            std::string(32 - 19, 'x') + "\", session \"  \", process " +
            std::to_string(::getpid()));
    EXPECT_EQ(count("ready"), 1U);
}

// --- its own end ---

TEST_F(Warden, ASaveIsGivenUpWhenItIsToldToEnd) {
    for (const int signal : {SIGTERM, SIGINT}) {
        prepare_and_start();
        auto held = hold_device();
        Request request = ask();
        EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
        const pid_t process = action();
        warden_->signal(signal);
        ASSERT_TRUE(comes_true([process] { return is_told_to_stop(process); }));
        EXPECT_FALSE(warden_->ended()) << "it waits for the action's end";
        held.reset();
        EXPECT_EQ(request.end(), ulmo::warden_err_given_up);
        EXPECT_EQ(request.text(), "given up");
        EXPECT_EQ(warden_->wait(), 0);
        EXPECT_EQ(content(startup()), old_text);
        EXPECT_TRUE(is_gone(process));
        EXPECT_EQ(log().back(), "ended");
        EXPECT_FALSE(std::filesystem::exists(ulmo::sap_path(MSGBUS_SAP_WARDEN)));
    }
}

TEST_F(Warden, WhileItEndsANewRequestIsLeftAlone) {
    prepare_and_start();
    auto held = hold_device();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    const pid_t process = action();
    warden_->signal(SIGTERM);
    ASSERT_TRUE(comes_true([process] { return is_told_to_stop(process); }));
    Request late = ask();
    const unsigned long rests = rests_of(warden_->pid());
    EXPECT_TRUE(comes_true([&] { return rests_of(warden_->pid()) >= rests + 3; })) << "a busy loop";
    held.reset();
    EXPECT_EQ(warden_->wait(), 0);
    EXPECT_TRUE(late.is_closed_without_answer());
}

TEST_F(Warden, AKilledOneLeavesTheOldStartupConfiguration) {
    prepare_and_start();
    auto held = hold_device();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    const pid_t process = action();
    warden_->signal(SIGKILL);
    EXPECT_EQ(warden_->wait(), -SIGKILL);
    EXPECT_TRUE(request.is_closed_without_answer());
    EXPECT_TRUE(comes_true([process] { return is_gone(process); })) << "the action ends with it";
    file("state/system.cfg.new",
         "hostname unfinished\n"); // as a save that was killed later would leave it
    held.reset();
    start();
    EXPECT_EQ(content(startup()), old_text);
    Request next = ask();
    EXPECT_EQ(next.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(next.end(), 0U);
    EXPECT_EQ(content(startup()), new_text);
    EXPECT_FALSE(std::filesystem::exists(state() / "system.cfg.new"));
    stop();
}

// The action itself must remove the row: the next system manager has no record of it.
TEST_F(Warden, AKilledOneLeavesNoRowAtAMember) {
    Script script;
    script.reads_until_end = -1;
    const ScriptedAgent member(script);
    prepare();
    file("platform.conf",
         "fabric_user = " + std::string(agent_user) +
             "\nfabric_auth_protocol = SHA-256\nfabric_auth_passphrase = " + agent_auth +
             "\nfabric_priv_protocol = AES\nfabric_priv_passphrase = " + agent_priv +
             "\nfabric_time_limit = 300\nfabric_member = 20:00:00:00:00:00:01:01 127.0.0.1:" +
             std::to_string(member.port()) + "\n");
    ASSERT_EQ(::chmod((directory_ / "platform.conf").c_str(), S_IRUSR | S_IWUSR), 0);
    start();
    Request request = ask(Scope::fabric);
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    ASSERT_TRUE(comes_true([&] { return member.seen().copies == 1 && member.seen().rows == 1; }));
    const auto children = children_of(warden_->pid());
    ASSERT_EQ(children.size(), 1U);
    warden_->signal(SIGKILL);
    EXPECT_EQ(warden_->wait(), -SIGKILL);
    EXPECT_TRUE(comes_true([&] { return member.seen().rows == 0; }));
    EXPECT_TRUE(comes_true([&] { return is_gone(children.front()); }));
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, AnActionWhoseProcessIsKilledHasFailed) {
    prepare_and_start();
    auto held = hold_device();
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    send_signal(action(), SIGKILL);
    EXPECT_EQ(request.end(), ulmo::warden_err_store);
    EXPECT_EQ(request.text(), "the process of the action was ended by signal 9");
    held.reset();
    stop();
    EXPECT_EQ(content(startup()), old_text);
}

// --- its start ---

TEST_F(Warden, TheSwitchStartsOnceABoot) {
    file("state/system.cfg", old_text);
    file("state/running.cfg", "hostname lost\n"); // not saved before the machine stopped
    file("state/system.cfg.new", "hostname unfinished\n");
    file("run/started", "another boot");
    start();
    EXPECT_EQ(content(running()), old_text);
    EXPECT_EQ(
        count("the switch starts: the startup configuration is the running configuration now"), 1U);
    ulmo::make_device()->apply("hostname new\n");
    stop();
    start();
    EXPECT_EQ(content(running()), new_text)
        << "a restarted system manager does not start the switch again";
    EXPECT_EQ(count("the switch has been started before: the running configuration stays"), 1U);
    stop();
    std::filesystem::remove(scratch_.run("started"));
    start();
    EXPECT_EQ(content(running()), old_text);
    EXPECT_EQ(content(startup()), old_text);
}

TEST_F(Warden, ADeviceMayStartByItself) {
    scratch_.configure("device_backend = command\n");
    start();
    EXPECT_EQ(count("the switch starts: its device starts by itself"), 1U);
    EXPECT_EQ(content(scratch_.run("started")), boot_id());
}

TEST_F(Warden, TheFirstStartIsFromTheFactoryDefault) {
    start();
    EXPECT_EQ(content(running()), "hostname switch\nend\n");
    EXPECT_EQ(content(scratch_.run("started")), boot_id());
}

TEST_F(Warden, ServesWithAStartupConfigurationThatIsNotValid) {
    file("state/system.cfg", "hostname a\nbogus\n");
    file("state/running.cfg", new_text);
    start();
    EXPECT_EQ(count("the startup configuration can't become the running configuration: " +
                    startup().string() + " is not valid: line 2: unknown statement 'bogus'"),
              1U);
    EXPECT_EQ(content(running()), new_text);
    EXPECT_FALSE(std::filesystem::exists(scratch_.run("started"))) << "the next one tries again";
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), 0U);
    EXPECT_EQ(content(startup()), new_text) << "the way out";
}

TEST_F(Warden, OneAtATime) {
    prepare_and_start();
    Program second("wardend", {}, directory_ / "stdout2", directory_ / "log2");
    EXPECT_EQ(second.wait(), 1);
    EXPECT_EQ(content(directory_ / "log2"), "can't serve: another system manager runs\n");
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED) << "the first one is unharmed";
    EXPECT_EQ(request.end(), 0U);
}

TEST_F(Warden, CantServeWithoutItsDirectories) {
    std::filesystem::remove_all(directory_ / "run");
    const auto in_the_way = file("run", "no folder");
    Program program("wardend", {}, directory_ / "stdout", log_file());
    EXPECT_EQ(program.wait(), 1);
    ASSERT_EQ(log().size(), 1U);
    EXPECT_EQ(log().front().rfind("can't serve: ", 0), 0U) << testing::PrintToString(log());
    EXPECT_NE(log().front().find("Not a directory"), std::string::npos)
        << testing::PrintToString(log());
}

TEST_F(Warden, AWrongCallIs2) {
    Program program("wardend", {"--help"}, directory_ / "stdout", log_file());
    EXPECT_EQ(program.wait(), 2);
    EXPECT_EQ(log(), std::vector<std::string>{"usage: wardend"});
}

TEST_F(Warden, ItsFilesAreTheOwnersOnly) {
    const mode_t old = ::umask(0);
    prepare();
    std::filesystem::remove(scratch_.run("started"));
    start();
    ::umask(old);
    Request request = ask();
    EXPECT_EQ(request.answer(), WARDEN_CFG_ACTION_INITIATED);
    EXPECT_EQ(request.end(), 0U);
    EXPECT_EQ(permissions(startup()), 0600U);
    EXPECT_EQ(permissions(running()), 0600U);
    for (const auto &entry : std::filesystem::recursive_directory_iterator(directory_ / "run")) {
        EXPECT_EQ(permissions(entry.path()) & 022U, 0U) << entry.path();
    }
}

} // namespace
