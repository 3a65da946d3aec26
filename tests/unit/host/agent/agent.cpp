#include "platform/agent_extension.h"

#include "base/folders.h"
#include "platform/host/agent/clock.h"
#include "platform/host/agent/copies.h"
#include "platform/host/agent/request.h"
#include "platform/host/agent/workers.h"
#include "platform/host/bus/server.h"
#include "platform/host/fabric/status.h"
#include "platform/system_manager.h"
#include "platform/utilities.h"

#include "tests/unit/host/agent/current_request.h"
#include "tests/unit/host/bus/support.h"

#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

netsnmp_agent_session *host_test::current_session = nullptr;

// Replaces the agent library's function of the same name.
extern "C" netsnmp_agent_session *netsnmp_get_current_agent_session(void) {
    return host_test::current_session;
}

namespace {

using host_test::current_session;
using namespace std::chrono_literals;
using host_test::exit_status_of;
using host_test::start_child;
using Clock = std::chrono::steady_clock;

struct Delivery {
    uint32_t opcode;
    uint32_t outcome;               // what *oid_length held
    std::optional<int32_t> payload; // its first word
};

std::vector<Delivery> deliveries;
netsnmp_variable_list *next_notification = nullptr;
uint32_t next_send_flag = 0;

constexpr std::array<oid, 3> notification_oid{1, 3, 7};

netsnmp_variable_list *record_delivery(msgbus_msg message, oid *oid_buffer, uint32_t *oid_length,
                                       uint32_t *send_flag) {
    Delivery delivery{msgbus_opc_get(message), *oid_length, std::nullopt};
    if (const void *payload = msgbus_payload_get(message, sizeof(int32_t)); payload != nullptr) {
        delivery.payload.emplace();
        std::memcpy(&*delivery.payload, payload, sizeof(int32_t));
    }
    deliveries.push_back(delivery);
    std::copy(notification_oid.begin(), notification_oid.end(), oid_buffer);
    *oid_length = notification_oid.size();
    *send_flag = next_send_flag;
    return std::exchange(next_notification, nullptr);
}

// One round of the agent's loop.
void turn_loop(std::chrono::milliseconds longest) {
    int descriptors = 0;
    fd_set readable, writable, exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_ZERO(&exceptional);
    netsnmp_external_event_info(&descriptors, &readable, &writable, &exceptional);
    timeval timeout{0, static_cast<suseconds_t>(std::chrono::microseconds(longest).count())};
    int count = ::select(descriptors, &readable, &writable, &exceptional, &timeout);
    if (count > 0) {
        netsnmp_dispatch_external_events(&count, &readable, &writable, &exceptional);
    }
    run_alarms();
}

template <typename Condition> bool loop_until(Condition condition) {
    for (const auto end = Clock::now() + 30s; Clock::now() < end;) {
        if (condition()) {
            return true;
        }
        turn_loop(20ms);
    }
    return condition();
}

// Long enough for anything still under way to arrive.
void settle() {
    for (int round = 0; round < 5; ++round) {
        turn_loop(10ms);
    }
}

bool delivered(size_t count) {
    return loop_until([count] { return deliveries.size() >= count; });
}

int send_status(const void *payload, uint32_t length, uint32_t opcode = AGENT_OPC_WORKER_STATUS) {
    const msgbus_address address{{1, 0, 1024, 0, 0, 15}};
    const int32_t handle = msgbus_bind(1, -1, &address, "config_copy_task");
    const int32_t sent = msgbus_send(handle, MSGBUS_NODE_LOCAL, MSGBUS_SAP_AGENT, opcode, payload,
                                     length, nullptr, 0, 0);
    msgbus_unbind(handle, 0);
    return sent == 0 ? 0 : errno;
}

int send_status(int32_t status) {
    return send_status(&status, sizeof status);
}

template <typename Work> pid_t start_worker(Work work) {
    const pid_t worker = __wrap_fork();
    if (worker == 0) {
        work();
        ::_exit(0);
    }
    return worker;
}

bool is_reaped(pid_t child) {
    return ::waitpid(child, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

std::string text_of(const std::filesystem::path &file) {
    std::ostringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

// The agent's side starts once in a process and never ends, so its folders stay as long.
const host_test::TemporaryDirectory &agent_directory() {
    static const host_test::TemporaryDirectory directory;
    return directory;
}

class HostAgentExtension : public testing::Test {
  protected:
    void SetUp() override {
        deliveries.clear();
        next_send_flag = 0;
        for (const uint32_t opcode : {1391U, 1361U, AGENT_OPC_WORKER_STATUS}) {
            ASSERT_EQ(register_for_notification(opcode, record_delivery), 0);
        }
    }

    void TearDown() override {
        settle();
        current_session = nullptr;
        for (const uint32_t opcode : {1391U, 1361U, AGENT_OPC_WORKER_STATUS}) {
            unregister_for_notification(opcode);
        }
    }

    host_test::Platform platform_{agent_directory().path()};
};

TEST_F(HostAgentExtension, WorkerReportsOnce) {
    const pid_t worker = start_worker([] { send_status(7); });
    ASSERT_GT(worker, 0);
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    settle();
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].opcode, AGENT_OPC_WORKER_STATUS);
    EXPECT_EQ(deliveries[0].outcome, 0U);
    EXPECT_EQ(deliveries[0].payload, 7);
}

// The copy's report says more than the worker's status can.
TEST_F(HostAgentExtension, CauseInTheReportReplacesTheStatusOfAFailure) {
    for (const auto &[status, cause] : {std::pair{1, 5}, {4, 5}, {0, 0}}) {
        deliveries.clear();
        const pid_t worker = start_worker([status = status] { send_status(status); });
        ulmo::CopyWatch::Copy copy;
        copy.began = Clock::now();
        copy.report = agent_directory().path() / "report";
        std::ofstream(copy.report) << "reason more than enough\ncause 5\n";
        ulmo::copy_watch().follow(worker, copy);
        siginfo_t information{};
        ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(worker), &information, WEXITED | WNOWAIT), 0);
        ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
        ASSERT_EQ(deliveries.size(), 1U);
        EXPECT_EQ(deliveries[0].payload, cause);
        const std::string line = ulmo::kept_copy_lines();
        EXPECT_NE(line.find(cause != 0
                                ? "outcome=failed cause=badConfig reason=\"more than enough\""
                                : "outcome=successful"),
                  std::string::npos)
            << line;
    }
}

TEST_F(HostAgentExtension, SecondReportIsDropped) {
    const pid_t worker = start_worker([] {
        send_status(0);
        send_status(4);
    });
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, 0);
}

TEST_F(HostAgentExtension, KilledWorkerIsReportedOnce) {
    const pid_t worker = start_worker([] { ::pause(); });
    settle();
    EXPECT_TRUE(deliveries.empty());
    ::kill(worker, SIGKILL);
    ASSERT_TRUE(delivered(1));
    settle();
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].opcode, AGENT_OPC_WORKER_STATUS);
    EXPECT_EQ(deliveries[0].payload, 1);
    EXPECT_TRUE(is_reaped(worker));
    EXPECT_FALSE(std::filesystem::exists(ulmo::worker_directory(worker)));
}

TEST_F(HostAgentExtension, NoCopyBeginsUnderSettingsThatCantBeUsed) {
    const auto copy_fails = [] {
        deliveries.clear();
        start_worker([] { send_status(0); });
        ASSERT_TRUE(delivered(1));
        EXPECT_EQ(deliveries[0].payload, 1);
    };
    std::filesystem::create_directory(platform_.conf);
    copy_fails();
    std::filesystem::remove(platform_.conf);
    platform_.set("chassis_type = x");
    copy_fails();
    platform_.set("chassis_type = 10");
    deliveries.clear();
    start_worker([] { send_status(0); });
    ASSERT_TRUE(delivered(1));
    EXPECT_EQ(deliveries[0].payload, 0);
}

TEST_F(HostAgentExtension, WorkerKilledAfterItsReport) {
    const pid_t worker = start_worker([] {
        send_status(0);
        ::raise(SIGKILL);
    });
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    settle();
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, 0);
}

// The worker has sent its report and ended before the agent looks.
TEST_F(HostAgentExtension, ReportComesBeforeTheEnd) {
    const pid_t worker = start_worker([] { send_status(3); });
    siginfo_t information{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(worker), &information, WEXITED | WNOWAIT), 0);
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    settle();
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, 3);
}

TEST_F(HostAgentExtension, SeveralWorkers) {
    std::vector<pid_t> workers;
    for (int32_t status = 10; status < 14; ++status) {
        workers.push_back(start_worker([=] {
            if (status != 12) {
                send_status(status);
            }
        }));
    }
    ASSERT_TRUE(loop_until([&] { return std::all_of(workers.begin(), workers.end(), is_reaped); }));
    std::vector<int32_t> statuses;
    for (const auto &delivery : deliveries) {
        statuses.push_back(delivery.payload.value());
    }
    std::sort(statuses.begin(), statuses.end());
    EXPECT_EQ(statuses, (std::vector<int32_t>{1, 10, 11, 13}));
}

TEST_F(HostAgentExtension, OtherChildrenAreLeftAlone) {
    const pid_t other = start_child([] { return 7; });
    const pid_t worker = start_worker([] { send_status(0); });
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    settle();
    EXPECT_EQ(exit_status_of(other), 7);
}

TEST_F(HostAgentExtension, StatusOfAnotherProcessIsDropped) {
    const pid_t other = start_child([] { return send_status(0); });
    EXPECT_EQ(exit_status_of(other), 0);
    EXPECT_EQ(send_status(0), 0) << "the agent itself is not a worker";
    settle();
    EXPECT_TRUE(deliveries.empty());
    // The system manager's messages come from any process of a trusted user.
    EXPECT_EQ(exit_status_of(start_child([] { return send_status("", 0, 1391); })), 0);
    ASSERT_TRUE(delivered(1));
    EXPECT_EQ(deliveries[0].opcode, 1391U);
}

TEST_F(HostAgentExtension, ShortStatusOfAWorkerIsDelivered) {
    const pid_t worker = start_worker([] { send_status("ab", 2); });
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, std::nullopt);
}

TEST_F(HostAgentExtension, OutcomeOfTheSystemManagersAction) {
    const std::array<uint32_t, 2> words{htonl(0x00050000), htonl(9)};
    const uint32_t success = 0;
    ASSERT_EQ(send_status(words.data(), sizeof words, 1361), 0);
    ASSERT_EQ(send_status(&success, sizeof success, 1361), 0);
    ASSERT_EQ(send_status("abc", 3, 1361), 0);
    ASSERT_EQ(send_status(words.data(), sizeof words, 1391), 0);
    ASSERT_TRUE(delivered(4));
    EXPECT_EQ(deliveries[0].outcome, 0x00050000U);
    EXPECT_EQ(deliveries[1].outcome, 0U);
    EXPECT_EQ(deliveries[2].outcome, 1U) << "a missing outcome is a failure";
    EXPECT_EQ(deliveries[3].outcome, 0U);
}

TEST_F(HostAgentExtension, SubscriptionsComeAndGo) {
    EXPECT_EQ(unregister_for_notification(1391), 0);
    EXPECT_EQ(unregister_for_notification(1391), ENOENT);
    EXPECT_EQ(register_for_notification(1391, nullptr), EINVAL);
    ASSERT_EQ(send_status("", 0, 1391), 0);
    ASSERT_EQ(send_status("", 0, 1361), 0);
    ASSERT_TRUE(delivered(1));
    settle();
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].opcode, 1361U);
    EXPECT_EQ(register_for_notification(1391, record_delivery), 0);
    ASSERT_EQ(send_status("", 0, 1391), 0);
    EXPECT_TRUE(delivered(2));
}

// What a reload of the modules does while a worker runs.
TEST_F(HostAgentExtension, WorkerOutlivesAReload) {
    const pid_t worker = start_worker([] { send_status(2); });
    siginfo_t information{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(worker), &information, WEXITED | WNOWAIT), 0);
    ASSERT_EQ(unregister_for_notification(AGENT_OPC_WORKER_STATUS), 0);
    ASSERT_EQ(register_for_notification(AGENT_OPC_WORKER_STATUS, record_delivery), 0);
    ASSERT_TRUE(delivered(1));
    EXPECT_EQ(deliveries[0].payload, 2);
    EXPECT_TRUE(loop_until([=] { return is_reaped(worker); }));
}

// Counts the process's descriptors that the predicate picks by their number and their link in
// /proc.
template <typename Predicate> int count_descriptors(Predicate predicate) {
    int count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        count += predicate(std::stoi(entry.path().filename()),
                           std::filesystem::read_symlink(entry, gone).string())
                     ? 1
                     : 0;
    }
    return count;
}

TEST_F(HostAgentExtension, WorkerHoldsNoSocketAndNothingOfTheAgents) {
    const ulmo::UniqueFd inet(::socket(AF_INET, SOCK_DGRAM, 0));
    const ulmo::UniqueFd local(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const int inet_number = inet.get();
    const pid_t running = start_worker([] { ::pause(); });
    const pid_t worker = start_worker([=] {
        const int foreign = count_descriptors([](int number, const std::string &what) {
            return number > STDERR_FILENO &&
                   (what.starts_with("socket:") || what.starts_with("anon_inode:") ||
                    what.ends_with(".lock"));
        });
        const int kept_number = count_descriptors([=](int number, const std::string &what) {
            return number == inet_number && what == "/dev/null";
        });
        send_status(foreign * 10 + kept_number);
    });
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, 1)
        << "tens: foreign descriptors; ones: whether the number is now that of the null device";
    EXPECT_EQ(count_descriptors([=](int number, const std::string &what) {
                  return number == inet_number && what.starts_with("socket:");
              }),
              1)
        << "the agent keeps its socket";
    ::kill(running, SIGKILL);
    EXPECT_TRUE(loop_until([=] { return is_reaped(running); }));
}

TEST_F(HostAgentExtension, StandardStreamsKeepTheJournalOnly) {
    std::array<int, 2> journal{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, journal.data()), 0);
    const ulmo::UniqueFd network(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const ulmo::UniqueFd in(::dup(STDIN_FILENO)), err(::dup(STDERR_FILENO));
    ::dup2(network.get(), STDIN_FILENO);
    ::dup2(journal[1], STDERR_FILENO);
    const pid_t worker = start_worker([] {
        struct stat stream {};
        const bool replaced = ::fstat(STDIN_FILENO, &stream) == 0 && S_ISCHR(stream.st_mode);
        send_status(replaced && ::write(STDERR_FILENO, "traced", 6) == 6 ? 0 : 99);
    });
    ::dup2(in.get(), STDIN_FILENO);
    ::dup2(err.get(), STDERR_FILENO);
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    EXPECT_EQ(deliveries.at(0).payload, 0);
    std::array<char, 8> text{};
    EXPECT_EQ(::read(journal[0], text.data(), text.size()), 6);
    ::close(journal[0]);
    ::close(journal[1]);
}

TEST_F(HostAgentExtension, WorkerHasAPrivateDirectory) {
    const pid_t worker = start_worker([] {
        struct stat status {};
        const auto own = ulmo::worker_directory(::getpid());
        const char *const temporary = std::getenv("TMPDIR");
        const bool there = std::filesystem::equivalent(".", own) && ::stat(".", &status) == 0 &&
                           (status.st_mode & 07777U) == 0700 && temporary != nullptr &&
                           std::filesystem::equivalent(temporary, own);
        std::filesystem::create_directory("sub");
        std::ofstream("sub/file") << "temporary";
        std::filesystem::create_symlink("/etc", "link");
        send_status(there ? 0 : 99);
        ::pause();
    });
    ASSERT_TRUE(delivered(1));
    EXPECT_EQ(deliveries[0].payload, 0);
    const auto directory = ulmo::worker_directory(worker);
    const ulmo::UniqueFd descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(::flock(descriptor.get(), LOCK_EX | LOCK_NB), -1);
    EXPECT_EQ(errno, EWOULDBLOCK);
    ulmo::sweep_worker_directories();
    EXPECT_EQ(text_of(directory / "sub" / "file"), "temporary")
        << "a living worker's folder is not swept";
    ::kill(worker, SIGTERM);
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    EXPECT_FALSE(std::filesystem::exists(directory));
    EXPECT_TRUE(std::filesystem::exists("/etc/passwd"));
}

TEST_F(HostAgentExtension, WorkerWithoutAPrivateDirectoryCopiesNothing) {
    const host_test::ScopedVariable nowhere("ULMO_STATE_DIR", "/proc/self/nowhere");
    const pid_t worker = start_worker([] { send_status(0); });
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, 1);
}

TEST_F(HostAgentExtension, FoldersOfEndedWorkersAreSwept) {
    const auto stale = ulmo::worker_directory(4000001);
    const auto root = stale.parent_path();
    const auto outside = agent_directory().path() / "outside";
    std::filesystem::create_directories(stale / "sub");
    std::filesystem::create_directories(outside);
    std::ofstream(outside / "precious") << "kept";
    std::filesystem::create_directory_symlink(outside, stale / "link");
    std::filesystem::create_directory_symlink(outside, root / "4000002");
    ulmo::sweep_worker_directories();
    EXPECT_FALSE(std::filesystem::exists(stale));
    EXPECT_EQ(text_of(outside / "precious"), "kept");
    EXPECT_TRUE(std::filesystem::remove(root / "4000002")) << "only folders are swept";
}

TEST_F(HostAgentExtension, WorkerHasNoSignalHandlersOfTheAgent) {
    std::vector<std::pair<int, sighandler_t>> former;
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD}) {
        former.emplace_back(number, std::signal(number, [](int) {}));
    }
    const pid_t worker = start_worker([] {
        int32_t handled = 0;
        for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM}) {
            handled += std::signal(number, SIG_DFL) != SIG_DFL ? 1 : 0;
        }
        send_status(handled * 10 + (std::signal(SIGCHLD, SIG_DFL) != SIG_DFL ? 1 : 0));
    });
    for (const auto &[number, handler] : former) {
        std::signal(number, handler);
    }
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    EXPECT_EQ(deliveries.at(0).payload, 1);
}

bool is_gone(pid_t process) {
    const std::string stat = text_of("/proc/" + std::to_string(process) + "/stat");
    const auto name_end = stat.rfind(") ");
    return name_end == std::string::npos || stat[name_end + 2] == 'Z';
}

// Runs a program that would take ten minutes, and writes its process id into the file.
void run_for_long(const std::filesystem::path &file) {
    execute_program_and_wait_redirect(-1, -1, -1, "/bin/sh", "-c",
                                      "echo $$ >\"$0\".new; mv \"$0\".new \"$0\"; exec sleep 600",
                                      file.c_str(), nullptr);
}

pid_t process_in(const std::filesystem::path &file) {
    for (const auto end = Clock::now() + 30s; Clock::now() < end; ::usleep(1000)) {
        if (pid_t process = 0; std::ifstream(file) >> process) {
            return process;
        }
    }
    return -1;
}

template <typename Condition> bool comes_true(Condition condition) {
    for (const auto end = Clock::now() + 30s; !condition() && Clock::now() < end;) {
        ::usleep(1000);
    }
    return condition();
}

TEST_F(HostAgentExtension, CopyBeyondItsTimeIsEnded) {
    platform_.set("copy_time_limit = 2");
    const auto began = Clock::now();
    const auto file = agent_directory().path() / "program-of-one-beyond";
    const pid_t worker = start_worker([&] { run_for_long(file); });
    const pid_t program = process_in(file);
    const pid_t stopped = start_worker([] { ::raise(SIGSTOP); });
    ASSERT_GT(program, 0);
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker) && is_reaped(stopped); }));
    EXPECT_GE(Clock::now() - began, 2s);
    EXPECT_LT(Clock::now() - began, 15s);
    ASSERT_EQ(deliveries.size(), 2U);
    EXPECT_EQ(deliveries[0].payload, 3) << "a timeout";
    EXPECT_EQ(deliveries[1].payload, 3);
    EXPECT_TRUE(comes_true([=] { return is_gone(program); }));
    EXPECT_FALSE(std::filesystem::exists(ulmo::worker_directory(worker)));
    EXPECT_FALSE(std::filesystem::exists(ulmo::worker_directory(stopped)));
}

TEST_F(HostAgentExtension, OutcomeThatArrivedInTimeCountsEvenIfReadLater) {
    platform_.set("copy_time_limit = 1");
    const pid_t worker = start_worker([] {
        send_status(0);
        ::pause();
    });
    ::sleep(2); // the agent is busy
    ASSERT_TRUE(delivered(1));
    settle();
    ASSERT_EQ(deliveries.size(), 1U);
    EXPECT_EQ(deliveries[0].payload, 0);
    EXPECT_TRUE(loop_until([=] { return is_reaped(worker); })) << "it does not end by itself";
}

// A killed agent takes its worker and the worker's program with it. The next copy removes what they
// leave behind.
TEST_F(HostAgentExtension, WorkerDiesWithItsAgent) {
    const auto file = agent_directory().path() / "program-of-an-orphan";
    const auto worker_file = agent_directory().path() / "orphan";
    const pid_t agent = start_child([&] {
        const pid_t worker = start_worker([&] { run_for_long(file); });
        std::ofstream(worker_file) << worker << std::endl;
        ::pause();
        return 0;
    });
    const pid_t program = process_in(file);
    const pid_t orphan = process_in(worker_file);
    ASSERT_GT(program, 0);
    ASSERT_GT(orphan, 0);
    EXPECT_FALSE(is_gone(orphan));
    ::kill(agent, SIGKILL);
    EXPECT_EQ(exit_status_of(agent), -1);
    EXPECT_TRUE(comes_true([=] { return is_gone(orphan) && is_gone(program); }));
    EXPECT_TRUE(std::filesystem::exists(ulmo::worker_directory(orphan)));
    const pid_t next = start_worker([] { send_status(0); });
    ASSERT_TRUE(loop_until([=] { return is_reaped(next); }));
    EXPECT_FALSE(std::filesystem::exists(ulmo::worker_directory(orphan)));
}

TEST_F(HostAgentExtension, CopiesGiveWayToTheAgent) {
    const auto file = agent_directory().path() / "program-of-a-batch-job";
    const pid_t worker = start_worker([&] { run_for_long(file); });
    const pid_t program = process_in(file);
    ASSERT_GT(program, 0);
    for (const pid_t process : {worker, program}) {
        EXPECT_EQ(::sched_getscheduler(process), SCHED_BATCH);
        EXPECT_GT(::getpriority(PRIO_PROCESS, static_cast<id_t>(process)),
                  ::getpriority(PRIO_PROCESS, 0));
    }
    ::kill(worker, SIGKILL);
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
}

// The agent died before the worker asked the kernel to end it together with the agent.
TEST_F(HostAgentExtension, WorkerOfADeadAgentDoesNothing) {
    EXPECT_EQ(exit_status_of(start_child([] {
                  ulmo::become_worker(::getpid(), {}); // not its parent's id
                  return 0;
              })),
              EXIT_FAILURE);
}

// Without a descriptor for the worker's end, the agent polls.
TEST_F(HostAgentExtension, WorkerIsFollowedWithoutADescriptor) {
    const ulmo::UniqueFd lowest_free(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none_left{static_cast<rlim_t>(lowest_free.get()) + 1, limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none_left), 0);
    const pid_t worker = start_worker([] {});
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GT(worker, 0);
    ASSERT_TRUE(delivered(1));
    EXPECT_EQ(deliveries[0].payload, 1);
    EXPECT_TRUE(is_reaped(worker));
}

TEST_F(HostAgentExtension, FailedForkEndsTheCopy) {
    const pid_t agent = start_child([] {
        const rlimit no_process{0, 0}; // holds for every user except the superuser
        if (::setrlimit(RLIMIT_NPROC, &no_process) != 0 ||
            (::geteuid() == 0 &&
             ::setresuid(host_test::nobody, host_test::nobody, host_test::nobody) != 0)) {
            return 255;
        }
        errno = 0;
        if (__wrap_fork() != -1 || errno != EAGAIN) {
            return 1;
        }
        if (!deliveries.empty()) {
            return 2; // the request is not over yet
        }
        for (int round = 0; round < 200 && deliveries.empty(); ++round) {
            ::usleep(1000);
            run_alarms();
        }
        ::usleep(20000);
        run_alarms();
        return deliveries.size() == 1 && deliveries[0].payload == 1 ? 0 : 3;
    });
    EXPECT_EQ(exit_status_of(agent), 0);
}

// In a process of its own, because the agent's side starts once.
int follow_workers_next_to_another_agent() {
    const host_test::TemporaryDirectory directory;
    const host_test::Platform platform(directory.path());
    const auto stale = ulmo::worker_directory(4000001);
    std::filesystem::create_directory(stale);
    auto other_agent = std::make_unique<ulmo::MsgbusServer>(MSGBUS_SAP_AGENT);
    if (register_for_notification(AGENT_OPC_WORKER_STATUS, record_delivery) != EADDRINUSE) {
        return 1;
    }
    if (std::filesystem::exists(stale)) {
        return 4;
    }
    start_worker([] { send_status(5); });
    if (!delivered(1) || deliveries[0].payload != 1) {
        return 2; // the report went to the other agent; this one saw only the worker's end
    }
    other_agent.reset();
    start_worker([] { send_status(5); });
    return delivered(2) && deliveries[1].payload == 5 ? 0 : 3;
}

TEST(HostAgentExtensionDeathTest, AccessPointOfAnotherAgent) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(std::exit(follow_workers_next_to_another_agent()), testing::ExitedWithCode(0), "");
}

// --- notifications ---

constexpr std::array<oid, 4> trap_name{1, 3, 9, 1};

struct SentTrap {
    std::vector<std::vector<oid>> names;
    u_long up_time = 0;
    std::vector<oid> trap;
};
std::vector<SentTrap> sent_traps;

int record_trap(int, int, void *argument, void *) {
    SentTrap trap;
    for (auto *one = static_cast<netsnmp_pdu *>(argument)->variables; one != nullptr;
         one = one->next_variable) {
        trap.names.emplace_back(one->name, one->name + one->name_length);
        if (one->type == ASN_OBJECT_ID) {
            trap.trap.assign(one->val.objid, one->val.objid + one->val_len / sizeof(oid));
        } else if (one->type == ASN_TIMETICKS) {
            trap.up_time = static_cast<u_long>(*one->val.integer);
        }
    }
    sent_traps.push_back(trap);
    return 0;
}

class HostAgentNotification : public HostAgentExtension {
  protected:
    void SetUp() override {
        HostAgentExtension::SetUp();
        sent_traps.clear();
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, record_trap,
                               nullptr);
    }
    void TearDown() override {
        snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP2, record_trap,
                                 nullptr, 0);
        HostAgentExtension::TearDown();
    }
    static netsnmp_variable_list *one_binding() {
        const int32_t value = 3;
        return build_varbind(nullptr, &value, ASN_INTEGER, sizeof value, trap_name.data(),
                             trap_name.size());
    }
};

const std::vector<oid> sys_up_time{1, 3, 6, 1, 2, 1, 1, 3, 0};
const std::vector<oid> snmp_trap_oid{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

TEST_F(HostAgentNotification, HasUpTimeAndTrapOidInFront) {
    netsnmp_set_agent_uptime(123400);
    ASSERT_EQ(
        enqueue_notification(6, notification_oid.data(), notification_oid.size(), one_binding()),
        0);
    ASSERT_EQ(sent_traps.size(), 1U);
    EXPECT_EQ(sent_traps[0].names,
              (std::vector<std::vector<oid>>{
                  sys_up_time, snmp_trap_oid, {trap_name.begin(), trap_name.end()}}));
    EXPECT_EQ(sent_traps[0].trap,
              std::vector<oid>(notification_oid.begin(), notification_oid.end()));
    EXPECT_NEAR(static_cast<double>(sent_traps[0].up_time), 123400, 200);
}

TEST_F(HostAgentNotification, EmptyListIsSent) {
    EXPECT_EQ(enqueue_notification(6, notification_oid.data(), notification_oid.size(), nullptr),
              0);
    ASSERT_EQ(sent_traps.size(), 1U);
    EXPECT_EQ(sent_traps[0].names.size(), 2U);
}

TEST_F(HostAgentNotification, WrongArgumentsSendNothing) {
    EXPECT_EQ(
        enqueue_notification(5, notification_oid.data(), notification_oid.size(), one_binding()),
        EINVAL);
    EXPECT_EQ(enqueue_notification(6, nullptr, 3, one_binding()), EINVAL);
    EXPECT_EQ(enqueue_notification(6, notification_oid.data(), 0, one_binding()), EINVAL);
    EXPECT_EQ(enqueue_notification(6, notification_oid.data(), MAX_OID_LEN + 1, one_binding()),
              EINVAL);
    EXPECT_TRUE(sent_traps.empty());
}

TEST_F(HostAgentNotification, DispatcherSendsWhatTheHandlerReturns) {
    next_notification = one_binding();
    next_send_flag = 1;
    ASSERT_EQ(send_status("", 0, 1361), 0);
    ASSERT_TRUE(delivered(1));
    ASSERT_EQ(sent_traps.size(), 1U);
    EXPECT_EQ(sent_traps[0].trap,
              std::vector<oid>(notification_oid.begin(), notification_oid.end()));
    next_notification = one_binding();
    next_send_flag = 0;
    ASSERT_EQ(send_status("", 0, 1361), 0);
    ASSERT_TRUE(delivered(2));
    EXPECT_EQ(sent_traps.size(), 1U);
}

TEST_F(HostAgentNotification, BindingsAreAppended) {
    const int32_t negative = -2;
    const uint32_t ticks = 0x80000001;
    auto *first =
        build_varbind(nullptr, &negative, ASN_INTEGER, 4, trap_name.data(), trap_name.size());
    ASSERT_NE(first, nullptr);
    auto *third = build_varbind(first, &ticks, ASN_TIMETICKS, 4, trap_name.data(), 3);
    auto *second = build_varbind(first, "text", ASN_OCTET_STR, 4, trap_name.data(), 2);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(third, nullptr);
    EXPECT_EQ(first->next_variable, second);
    EXPECT_EQ(second->next_variable, third);
    EXPECT_EQ(third->next_variable, nullptr);
    EXPECT_EQ(*first->val.integer, -2);
    EXPECT_EQ(first->val_len, sizeof(long));
    EXPECT_EQ(std::string(reinterpret_cast<char *>(second->val.string), second->val_len), "text");
    EXPECT_EQ(static_cast<uint32_t>(*third->val.integer), ticks);
    EXPECT_EQ(first->name_length, 4U);
    snmp_free_varbind(first);
}

TEST_F(HostAgentNotification, BindingsThatCantBeBuilt) {
    auto *first = one_binding();
    const int64_t wide = 5;
    EXPECT_EQ(
        build_varbind(first, &wide, ASN_INTEGER, sizeof wide, trap_name.data(), trap_name.size()),
        nullptr);
    EXPECT_EQ(build_varbind(first, &wide, ASN_TIMETICKS, 2, trap_name.data(), trap_name.size()),
              nullptr);
    EXPECT_EQ(build_varbind(first, nullptr, ASN_INTEGER, 4, trap_name.data(), trap_name.size()),
              nullptr);
    EXPECT_EQ(build_varbind(first, &wide, ASN_INTEGER, 4, nullptr, 4), nullptr);
    EXPECT_EQ(build_varbind(first, &wide, ASN_INTEGER, 4, trap_name.data(), MAX_OID_LEN + 1),
              nullptr);
    EXPECT_EQ(build_varbind(first, &wide, ASN_IPADDRESS, 5, trap_name.data(), trap_name.size()),
              nullptr);
    EXPECT_EQ(first->next_variable, nullptr);
    snmp_free_varbind(first);
}

// --- the request being served ---

class HostAgentRequest : public HostAgentExtension {
  protected:
    void serve_request() {
        session_.pdu = &request_;
        current_session = &session_;
    }
    void set(char *&text, size_t &length, std::string &holder, const char *value) {
        holder = value;
        text = holder.data();
        length = holder.size();
    }

    netsnmp_pdu request_{};
    netsnmp_agent_session session_{};
    std::string user_, context_, community_;
};

TEST_F(HostAgentRequest, NoRequest) {
    int status = 0;
    EXPECT_STREQ(get_snmp_username(0), "");
    EXPECT_STREQ(get_snmp_sessionid(0), "");
    EXPECT_STREQ(snmp_get_ctx_vrf_for_current_req(&status), "");
    EXPECT_NE(status, 0);
}

TEST_F(HostAgentRequest, UserSessionAndContext) {
    set(request_.securityName, request_.securityNameLen, user_, "operator");
    set(request_.contextName, request_.contextNameLen, context_, "management");
    request_.version = SNMP_VERSION_3;
    request_.sessid = 42;
    serve_request();
    int status = 1;
    EXPECT_STREQ(get_snmp_username(0), "operator");
    EXPECT_STREQ(get_snmp_sessionid(0), "42");
    EXPECT_STREQ(snmp_get_ctx_vrf_for_current_req(&status), "management");
    EXPECT_EQ(status, 0);
    context_.assign(600, 'c');
    request_.contextName = context_.data();
    request_.contextNameLen = context_.size();
    EXPECT_EQ(std::string(snmp_get_ctx_vrf_for_current_req(&status)), std::string(255, 'c'));
}

TEST_F(HostAgentRequest, CommunityAndDefaultContext) {
    community_ = "public-and-more";
    request_.community = reinterpret_cast<u_char *>(community_.data());
    request_.community_len = 6;
    set(request_.contextName, request_.contextNameLen, context_, "");
    request_.version = SNMP_VERSION_2c;
    serve_request();
    int status = 0;
    EXPECT_STREQ(get_snmp_username(0), "public");
    EXPECT_STREQ(snmp_get_ctx_vrf_for_current_req(&status), "");
    EXPECT_NE(status, 0);
}

TEST_F(HostAgentRequest, WorkerStillKnowsTheContext) {
    set(request_.contextName, request_.contextNameLen, context_, "blue");
    serve_request();
    const pid_t worker = start_worker([] {
        int status = 1;
        send_status(std::string(snmp_get_ctx_vrf_for_current_req(&status)) == "blue" && status == 0
                        ? 0
                        : 99);
    });
    current_session = nullptr;
    ASSERT_TRUE(loop_until([=] { return is_reaped(worker); }));
    EXPECT_EQ(deliveries.at(0).payload, 0);
}

// --- small services ---

TEST_F(HostAgentExtension, HeartbeatGoesToTheServiceManager) {
    for (const bool abstract : {false, true}) {
        std::string target = (agent_directory().path() / "notify").string();
        if (abstract) {
            target = "@" + target;
        }
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, target.data(), target.size());
        address.sun_path[0] = abstract ? '\0' : '/';
        const ulmo::UniqueFd manager(
            ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        ASSERT_EQ(::bind(manager.get(), reinterpret_cast<sockaddr *>(&address),
                         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + target.size())),
                  0);
        {
            const host_test::ScopedVariable variable("NOTIFY_SOCKET", target);
            ulmo::remember_watchdog();
        }
        snmp_heartbeat_send(); // the agent has taken the variable away by now
        std::array<char, 32> text{};
        ASSERT_EQ(::recv(manager.get(), text.data(), text.size(), 0), 10);
        EXPECT_STREQ(text.data(), "WATCHDOG=1");
        ulmo::remember_watchdog();
        snmp_heartbeat_send();
        EXPECT_EQ(::recv(manager.get(), text.data(), text.size(), 0), -1)
            << "no watchdog, no heartbeat";
    }
}

TEST_F(HostAgentExtension, ChangeTimesAreKept) {
    const auto file = ulmo::state_dir() / "change-times";
    std::ofstream(file) << "2 5\n9 77\n";
    const auto before = std::time(nullptr);
    set_mgmt_conf_last_change_time_extended(MGMT_CONF_CHANGE_STARTUP);
    set_mgmt_conf_last_change_time_extended(MGMT_CONF_CHANGE_STARTUP_SAVED);
    const auto after = std::time(nullptr);
    std::ifstream text(file);
    long long kind = 0, when = 0;
    for (const int expected : {2, 3}) {
        ASSERT_TRUE(text >> kind >> when);
        EXPECT_EQ(kind, expected);
        EXPECT_GE(when, before);
        EXPECT_LE(when, after);
    }
    ASSERT_TRUE(text >> kind >> when);
    EXPECT_EQ(kind, 9);
    EXPECT_EQ(when, 77);
    EXPECT_FALSE(text >> kind);
    EXPECT_FALSE(std::filesystem::exists(file.native() + ".new"));
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(HostAgentExtension, DebugFile) {
    const auto file = agent_directory().path() / "agent.log";
    const auto link = agent_directory().path() / "link.log";
    ulmo::open_debug_file();
    EXPECT_EQ(ld_dbg_fp, nullptr) << "off unless asked for";
    std::filesystem::create_symlink(file, link);
    platform_.set("agent_debug_file = " + link.string());
    ulmo::open_debug_file();
    EXPECT_EQ(ld_dbg_fp, nullptr) << "a planted link is refused";
    EXPECT_FALSE(std::filesystem::exists(file));
    platform_.set("agent_debug_file = " + file.string());
    ulmo::open_debug_file();
    ASSERT_NE(ld_dbg_fp, nullptr);
    std::fputs("line\n", ld_dbg_fp);
    EXPECT_EQ(text_of(file), "line\n");
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
    std::fclose(std::exchange(ld_dbg_fp, nullptr));
    std::filesystem::remove(platform_.conf);
    std::filesystem::remove(link);
}

// --- clock ---

struct RaisedChange {
    uint32_t seconds;
    uint32_t direction;
    bool operator==(const RaisedChange &) const = default;
};
std::vector<RaisedChange> raised_changes;

int record_change(int, int, void *argument, void *) {
    const auto *change = static_cast<const agent_starttime_change *>(argument);
    raised_changes.push_back({*change->seconds, change->direction});
    return 0;
}

class HostAgentClock : public testing::Test {
  protected:
    void SetUp() override {
        raised_changes.clear();
        snmp_register_callback(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE,
                               record_change, nullptr);
        timeval start{1000000, 250000};
        netsnmp_set_agent_starttime(&start);
    }
    void TearDown() override {
        snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, AGENT_CALLBACK_STARTTIME_CHANGE,
                                 record_change, nullptr, 0);
        netsnmp_set_agent_starttime(nullptr);
    }
    // Shows the keeper both clocks 17 s later, the wall clock set `shift` ahead of its first
    // setting.
    void observe(std::chrono::nanoseconds shift) {
        passed_ += 17s;
        keeper_.observe({1500000s + passed_ + shift, 500s + passed_});
    }
    static timeval start() { return *static_cast<const timeval *>(netsnmp_get_agent_starttime()); }

    host_test::Platform platform_{agent_directory().path()};
    std::chrono::nanoseconds passed_{0};
    ulmo::StartTimeKeeper keeper_{{1500000s, 500s}};
};

TEST_F(HostAgentClock, TimePassing) {
    observe(0s);
    EXPECT_TRUE(raised_changes.empty());
    EXPECT_EQ(start().tv_sec, 1000000);
    EXPECT_EQ(start().tv_usec, 250000);
}

TEST_F(HostAgentClock, SetForwardAndBack) {
    timeval event{1000100, 0};
    const auto up_time = netsnmp_timeval_uptime(&event);
    observe(3600s);
    EXPECT_EQ(start().tv_sec, 1003600);
    event.tv_sec += 3600; // the same moment by the new clock
    EXPECT_EQ(netsnmp_timeval_uptime(&event), up_time);
    observe(-10s);
    EXPECT_EQ(start().tv_sec, 999990);
    EXPECT_EQ(raised_changes, (std::vector<RaisedChange>{{3600, AGENT_STARTTIME_ADDED},
                                                         {3610, AGENT_STARTTIME_SUBTRACTED}}));
}

TEST_F(HostAgentClock, ReadingsThatDifferALittle) {
    observe(3600s - 300ns);
    observe(500ns);
    observe(-400us);
    EXPECT_EQ(start().tv_sec, 1000000);
    EXPECT_EQ(start().tv_usec, 250000);
    EXPECT_EQ(raised_changes, (std::vector<RaisedChange>{{3600, AGENT_STARTTIME_ADDED},
                                                         {3600, AGENT_STARTTIME_SUBTRACTED}}));
}

TEST_F(HostAgentClock, FractionsAreReportedOnceTheyMakeASecond) {
    observe(600ms);
    EXPECT_EQ(start().tv_sec, 1000000);
    EXPECT_EQ(start().tv_usec, 850000);
    EXPECT_TRUE(raised_changes.empty());
    observe(1200ms);
    EXPECT_EQ(start().tv_sec, 1000001);
    EXPECT_EQ(start().tv_usec, 450000);
    EXPECT_EQ(raised_changes, (std::vector<RaisedChange>{{1, AGENT_STARTTIME_ADDED}}));
    observe(-900ms);
    EXPECT_EQ(start().tv_sec, 999999);
    EXPECT_EQ(start().tv_usec, 350000);
    EXPECT_EQ(raised_changes.size(), 2U);
    EXPECT_EQ(raised_changes.back(), (RaisedChange{1, AGENT_STARTTIME_SUBTRACTED}));
}

TEST_F(HostAgentClock, ReadingsAgree) {
    const auto first = ulmo::read_clocks();
    const auto second = ulmo::read_clocks();
    EXPECT_GT(second.running, first.running);
    EXPECT_LT(std::chrono::abs((second.wall - second.running) - (first.wall - first.running)), 5ms);
}

TEST_F(HostAgentClock, WatchIsQuietUntilTheClockIsSet) {
    ulmo::ClockWatch watch;
    const auto before = start();
    watch.handle_change();
    EXPECT_EQ(start().tv_sec, before.tv_sec);
    EXPECT_EQ(start().tv_usec, before.tv_usec);
}

// The agent, with the test in the place of the system manager.
class HostAgentSave : public HostAgentExtension {
  protected:
    void TearDown() override {
        system_manager_.reset();
        ask(); // gives up what the test left open
        HostAgentExtension::TearDown();
        msgbus_drop(msgbus_response_q, &request_);
    }

    int32_t ask(bool of_fabric = false) {
        msgbus_drop(msgbus_response_q, &request_);
        warden_cfg_action request{};
        request.fabric = htonl(of_fabric ? 1 : 0);
        return msgbus_send(msgbus_response_q, MSGBUS_NODE_LOCAL, MSGBUS_SAP_WARDEN,
                           MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, &request, sizeof request,
                           &request_, 0, 0);
    }
    // Waits for the answer as the module does. Returns errno of the end.
    static int answer() {
        msgbus_recv_options options{};
        options.wait = 1;
        msgbus_msg answer = nullptr;
        while (msgbus_recv(msgbus_response_q, &answer, &options) == -1) {
            if (errno != ETIME) {
                return errno;
            }
        }
        msgbus_drop(msgbus_response_q, &answer);
        return 0;
    }
    // The messages that the system manager has received.
    std::vector<ulmo::Incoming> &taken() {
        system_manager_->serve(
            [this](ulmo::Incoming incoming) { taken_.push_back(std::move(incoming)); });
        return taken_;
    }
    // Asks for a save, which the system manager begins.
    void begin() {
        ASSERT_EQ(ask(), 0);
        ASSERT_EQ(taken().size(), 1U);
        reply(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, WARDEN_CFG_ACTION_INITIATED);
        ASSERT_EQ(answer(), 0);
        settle();
        ASSERT_TRUE(deliveries.empty()) << "the save still runs";
    }
    void reply(uint32_t opcode, uint32_t status) {
        const uint32_t word = htonl(status);
        ASSERT_EQ(taken_.at(0).reply(opcode, &word, sizeof word), 0);
    }
    static void expect_end(uint32_t status) {
        ASSERT_TRUE(delivered(1));
        settle();
        ASSERT_EQ(deliveries.size(), 1U);
        EXPECT_EQ(deliveries[0].opcode, MSGBUS_OPC_WARDEN_CFG_ACTION_END);
        EXPECT_EQ(deliveries[0].outcome, status);
        EXPECT_EQ(deliveries[0].payload, static_cast<int32_t>(htonl(status)));
    }

    std::unique_ptr<ulmo::MsgbusServer> system_manager_ =
        std::make_unique<ulmo::MsgbusServer>(MSGBUS_SAP_WARDEN);
    std::vector<ulmo::Incoming> taken_;
    msgbus_msg request_ = nullptr;
};

TEST_F(HostAgentSave, TheEndIsDeliveredOnceWithItsStatus) {
    begin();
    reply(MSGBUS_OPC_WARDEN_CFG_ACTION_END, 0x401E0012);
    expect_end(0x401E0012);
    taken_.clear();
    settle();
    EXPECT_EQ(deliveries.size(), 1U) << "nothing more is expected of the system manager";
}

TEST_F(HostAgentSave, AnAnnouncedBeginIsDelivered) {
    begin();
    ASSERT_EQ(taken_.at(0).reply(MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, nullptr, 0), 0);
    reply(AGENT_OPC_WORKER_STATUS, 0); // only a worker may report this
    ASSERT_TRUE(delivered(1));
    EXPECT_EQ(deliveries[0].opcode, MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN);
    deliveries.clear();
    reply(MSGBUS_OPC_WARDEN_CFG_ACTION_END, 0);
    expect_end(0);
}

TEST_F(HostAgentSave, FailsWhenItCantBeAskedFor) {
    system_manager_.reset();
    ASSERT_EQ(ask(), -1);
    EXPECT_TRUE(deliveries.empty()) << "the request that asks is served first";
    const auto began = Clock::now();
    expect_end(1);
    EXPECT_LT(Clock::now() - began, 1s);
}

TEST_F(HostAgentSave, FailsAndIsWithdrawnWhenItIsNotAnswered) {
    const auto began = Clock::now();
    ASSERT_EQ(ask(), 0);
    const uint32_t token = msgbus_rr_token_get(request_);
    EXPECT_EQ(answer(), ETIMEDOUT);
    EXPECT_LT(Clock::now() - began, 1s) << "the agent answers no request meanwhile";
    EXPECT_TRUE(deliveries.empty());
    expect_end(1);
    ASSERT_EQ(taken().size(), 2U);
    const msgbus_message &abort = *taken_[1].message;
    EXPECT_EQ(abort.opcode, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT);
    ASSERT_EQ(abort.length, sizeof(warden_cfg_abort));
    EXPECT_EQ(ntohl(abort.words[0]), token);
    EXPECT_EQ(taken_[1].peer.pid, ::getpid());
}

TEST_F(HostAgentSave, FailsWhenTheSystemManagerEndsBeforeItsAnswer) {
    ASSERT_EQ(ask(), 0);
    ASSERT_EQ(taken().size(), 1U);
    taken_.clear();
    EXPECT_EQ(answer(), ECONNRESET);
    expect_end(1);
}

TEST_F(HostAgentSave, FailsWhenTheAnswerMakesNoSense) {
    ASSERT_EQ(ask(), 0);
    ASSERT_EQ(taken().size(), 1U);
    reply(77, 0);
    EXPECT_EQ(answer(), 0);
    expect_end(1);
}

TEST_F(HostAgentSave, FailsWhenTheSystemManagerEndsBeforeIt) {
    begin();
    taken_.clear();
    expect_end(1);
}

// What the system manager knows of an earlier save must not be told of this one.
TEST_F(HostAgentSave, OfTheFabricFailsWithoutEarlierOutcomes) {
    const std::vector<ulmo::FabricSwitchStatus> outcomes{
        {{1, 2, 3, 4, 5, 6, 7, 8}, true, {}, "saved"}};
    ulmo::write_fabric_status(outcomes);
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(ulmo::read_fabric_status().size(), 1U) << "it is about the fabric";
    ASSERT_EQ(ask(true), 0);
    EXPECT_TRUE(ulmo::read_fabric_status().empty());
    ulmo::write_fabric_status(outcomes);
    system_manager_.reset();
    ASSERT_EQ(ask(true), -1);
    EXPECT_TRUE(ulmo::read_fabric_status().empty());
    expect_end(1);
}

TEST_F(HostAgentSave, OneThatIsRefusedOrGivenUpHasNoEnd) {
    ASSERT_EQ(ask(), 0);
    ASSERT_EQ(taken().size(), 1U);
    reply(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, 0x401E0013);
    EXPECT_EQ(answer(), 0);
    taken_.clear();
    begin();
    const warden_cfg_abort abort{};
    ASSERT_EQ(msgbus_send(msgbus_response_q, MSGBUS_NODE_LOCAL, MSGBUS_SAP_WARDEN,
                          MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT, &abort, sizeof abort,
                          nullptr, 0, 0),
              0);
    taken_.clear();
    settle();
    EXPECT_TRUE(deliveries.empty());
}

// A save can't be asked for. Before the agent reports that failure, the next save is asked for.
TEST_F(HostAgentSave, AFailureDoesNotEndALaterSave) {
    system_manager_.reset();
    ASSERT_EQ(ask(), -1);
    system_manager_ = std::make_unique<ulmo::MsgbusServer>(MSGBUS_SAP_WARDEN);
    begin();
    reply(MSGBUS_OPC_WARDEN_CFG_ACTION_END, 0);
    expect_end(0);
}

} // namespace
