// The program itself: what it gives up, when it ends, what it says about the port. Built without
// sanitizers, which need system calls that the program has given up.
#ifndef CCM_SANITIZE

#include "receiver/confinement.h"
#include "receiver/local_file.h"

#include "tests/unit/child.h"
#include "tests/unit/receiver/peers.h"
#include "tests/unit/superuser.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <list>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using namespace receiver_test;

namespace {

// A port that no other program has, for now.
int free_port() {
    const UniqueFd probe(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0)); // of both families
    sockaddr_storage address = address_of("::");
    socklen_t octets = sizeof address;
    EXPECT_EQ(::bind(probe.get(), reinterpret_cast<sockaddr *>(&address), octets_of(address)), 0);
    EXPECT_EQ(::getsockname(probe.get(), reinterpret_cast<sockaddr *>(&address), &octets), 0);
    return ntohs(reinterpret_cast<sockaddr_in &>(address).sin_port);
}

class ReceiverProgram : public WithOrders {
  protected:
    ~ReceiverProgram() override {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    // Runs the program, after `before` in its process.
    void start(
        int given_port, const std::function<void()> &before = [] {}) {
        port = given_port;
        const std::string path = host_test::program("config-copy-receiver");
        const std::string argument = std::to_string(port);
        pid = ::fork();
        if (pid == 0) {
            before();
            ::dup2(service_end.get(), STDIN_FILENO);
            ::execl(path.c_str(), path.c_str(), argument.c_str(), nullptr);
            ::_exit(127);
        }
        service_end.reset();
    }
    void start() {
        start(free_port());
        ASSERT_EQ(report().kind, Report::Kind::ready);
    }
    // The exit status; -1 if the program goes on for two seconds, or a signal has ended it.
    int exit_status() {
        int status = 0;
        for (int turn = 0; turn < 200; ++turn) {
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            std::this_thread::sleep_for(10ms);
        }
        return -1;
    }
    void expect_not_ready(int error, const std::string &text) {
        const Report refused = report();
        EXPECT_EQ(refused.kind, Report::Kind::failed);
        EXPECT_EQ(refused.error, error);
        EXPECT_EQ(std::string(refused.text.data()), text);
        EXPECT_EQ(exit_status(), 1);
    }

    pid_t pid = -1;
    int port = 0;
};

std::map<std::string, std::string> status_of(const std::filesystem::path &process) {
    std::map<std::string, std::string> lines;
    std::ifstream file(process / "status");
    for (std::string line; std::getline(file, line);) {
        const auto colon = line.find(":\t");
        lines[line.substr(0, colon)] = line.substr(colon + 2);
    }
    return lines;
}

void expect_no_rights(const std::filesystem::path &process) {
    auto status = status_of(process);
    for (const char *set : {"CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"}) {
        EXPECT_EQ(status[set], "0000000000000000") << process << " " << set;
    }
    EXPECT_EQ(status["NoNewPrivs"], "1") << process;
    EXPECT_EQ(status["Seccomp"], "2") << process;
}

} // namespace

TEST_F(ReceiverProgram, NoThreadHasAnyRight) {
    REQUIRE_SUPERUSER("looks at the superuser's capabilities");
    start();
    const UniqueFd file = file_in_memory("content");
    sends("name", file);
    Client client;
    client.send_to(address_of("127.0.0.1", port), request(1, "name"));
    ASSERT_EQ(client.receive(), data(1, "content")); // and its thread waits for us
    int threads = 0;
    for (const auto &thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        expect_no_rights(thread.path());
        ++threads;
    }
    EXPECT_EQ(threads, 2);
}

// Many at a time, both ways, over both families: all of that goes on without what was given up.
TEST_F(ReceiverProgram, ServesConfined) {
    start();
    const std::string content = random_octets(200'000);
    const UniqueFd source = file_in_memory(content);
    std::list<UniqueFd> files;
    std::list<std::thread> clients;
    constexpr int many = 60;
    for (int count = 0; count < many; ++count) {
        const std::string name = "name" + std::to_string(count);
        const std::string server = count % 2 == 0 ? "127.0.0.1" : "::1";
        const bool reads = count % 3 == 0;
        files.push_back(file_in_memory(""));
        if (reads) {
            sends(name, source, server);
        } else {
            takes(name, files.back(), server);
        }
        clients.emplace_back([this, name, server, reads, &content] {
            ulmo::tftp::Session own;
            EXPECT_EQ(own.connect(server, port), 0);
            if (reads) {
                EXPECT_EQ(own.get(name, path(name)), 0) << own.text(-1);
                EXPECT_TRUE(read(name) == content);
            } else {
                EXPECT_EQ(own.put(write(name, content), name), 0) << own.text(-1);
            }
        });
    }
    for (std::thread &client : clients) {
        client.join();
    }
    for (int count = 0; count < many; ++count) {
        const Report ended = report();
        EXPECT_EQ(ended.kind, Report::Kind::ended);
        EXPECT_EQ(ended.octets, content.size()) << ended.text.data();
    }
    for (int count = 0; count < many; ++count, files.pop_front()) {
        EXPECT_TRUE(content_of(files.front()) == (count % 3 == 0 ? "" : content));
    }
}

TEST_F(ReceiverProgram, RefusesAFolder) {
    start();
    const UniqueFd folder(::open("/", O_RDONLY | O_CLOEXEC));
    expect_failed(sends("name", folder), EINVAL, "not a regular file: Invalid argument");
}

TEST_F(ReceiverProgram, EndsWithItsOrders) {
    start();
    orders.reset();
    EXPECT_EQ(exit_status(), 0);
}

// The socket stays open here.
TEST_F(ReceiverProgram, EndsWithItsParent) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    const pid_t parent = host_test::start_child([&] {
        start(free_port());
        const pid_t child = std::exchange(pid, -1);
        EXPECT_EQ(::write(writing.get(), &child, sizeof child), static_cast<ssize_t>(sizeof child));
        ::pause();
        return 0;
    });
    pid_t child = -1;
    ASSERT_EQ(::read(reading.get(), &child, sizeof child), static_cast<ssize_t>(sizeof child));
    EXPECT_EQ(report().kind, Report::Kind::ready);
    const auto is_there = [child] { return status_of("/proc/" + std::to_string(child)); };
    EXPECT_EQ(is_there()["Name"], "config-copy-rec");
    ::kill(parent, SIGKILL);
    ::waitpid(parent, nullptr, 0);
    const auto is_running = [&is_there] {
        auto status = is_there(); // it may wait for the parent that it has now
        return !status.empty() && status["State"][0] != 'Z';
    };
    for (int turn = 0; turn < 200 && is_running(); ++turn) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_FALSE(is_running());
}

TEST_F(ReceiverProgram, TerminalsSignalsDoNotEndIt) {
    start();
    for (const int number : {SIGINT, SIGHUP, SIGQUIT}) {
        ::kill(pid, number);
    }
    const UniqueFd file = file_in_memory("content");
    const auto id = sends("name", file);
    ASSERT_EQ(session.connect("127.0.0.1", port), 0);
    EXPECT_EQ(session.get("name", path("got")), 0);
    expect_complete(id, 7);
}

TEST_F(ReceiverProgram, PortInUse) {
    for (const char *address : {"127.0.0.1", "::1"}) {
        const int taken = free_port();
        const sockaddr_storage local = address_of(address, taken);
        const UniqueFd other(::socket(local.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(::bind(other.get(), reinterpret_cast<const sockaddr *>(&local), octets_of(local)),
                  0);
        start(taken);
        expect_not_ready(EADDRINUSE, "UDP port " + std::to_string(taken) +
                                         " is in use by another program, such as a TFTP server or "
                                         "another config-copy: end that first");
        std::tie(orders, service_end) = order_sockets();
    }
}

TEST_F(ReceiverProgram, PortOfTftpNeedsARight) {
    REQUIRE_SUPERUSER("gives a capability up");
    start(69, [] { ::prctl(PR_CAPBSET_DROP, CAP_NET_BIND_SERVICE, 0, 0, 0); });
    expect_not_ready(EACCES,
                     "UDP port 69 needs a right: run config-copy as root, or as a member of the "
                     "package's group config-copy, or 'setcap cap_net_bind_service=ep " +
                         host_test::program("config-copy-receiver") + "'");
}

TEST_F(ReceiverProgram, HasThatRightForNoOtherPort) {
    REQUIRE_SUPERUSER("has the capability");
    start(68);
    expect_not_ready(EACCES, "UDP port 68 can't be used: Permission denied");
}

TEST_F(ReceiverProgram, PortOfTftp) {
    REQUIRE_SUPERUSER("makes a network namespace");
    start(69, [] {
        if (::unshare(CLONE_NEWNET) != 0) {
            ::_exit(99);
        }
    });
    EXPECT_EQ(report().kind, Report::Kind::ready);
    expect_no_rights("/proc/" + std::to_string(pid));
}

TEST_F(ReceiverProgram, EndsAfterAMessageThatIsNoOrder) {
    start();
    ASSERT_EQ(::send(orders.get(), "x", 1, 0), 1);
    expect_not_ready(EPROTO, "a message of the wrong size: Protocol error");
}

TEST(ReceiverProgramAlone, NeedsASocket) {
    const std::string path = host_test::program("config-copy-receiver");
    EXPECT_EQ(host_test::in_child([&path] {
                  ::close(STDERR_FILENO);
                  ::dup2(::open("/dev/null", O_RDONLY), STDIN_FILENO);
                  return ::execl(path.c_str(), path.c_str(), nullptr);
              }),
              2);
}

namespace {

// Confines this process and tries what is then left. Returns 0, or which step was wrong.
int try_confined() {
    const UniqueFd file = file_in_memory("content");
    receiver::drop_capabilities();
    receiver::confine();
    struct stat status {};
    struct statx more {};
    int step = 0;
    int wrong = 0;
    const auto refused = [&](long result) {
        ++step;
        if (wrong == 0 && (result >= 0 || errno != ENOSYS)) {
            wrong = step;
        }
    };
    refused(::open("/etc/passwd", O_RDONLY));
    refused(::open("/tmp/new", O_WRONLY | O_CREAT, 0600));
    refused(::execl("/bin/true", "true", nullptr));
    refused(::stat("/etc/passwd", &status));
    refused(::statx(AT_FDCWD, "/etc/passwd", 0, STATX_SIZE, &more));
    refused(::statx(AT_FDCWD, "/etc", AT_EMPTY_PATH, STATX_SIZE, &more));
    refused(::unlink("/tmp/new"));
    refused(::kill(::getppid(), 0));
    refused(::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr));
    refused(::setuid(0));
    refused(::dup(0));
    refused(::ioctl(0, 0));
#if !defined(__i386__) && !defined(__s390x__) // see confine()
    refused(::socket(AF_UNIX, SOCK_STREAM, 0));
    refused(::socket(AF_NETLINK, SOCK_RAW, 0));
#endif
    bool has_run = false;
    std::thread([&has_run] { has_run = true; }).join();
    const UniqueFd udp(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return wrong != 0                           ? wrong
           : receiver::size_of(file.get()) != 7 ? 51
           : !has_run                           ? 52
           : !udp                               ? 53
                                                : 0;
}

} // namespace

// On every kind of machine.
TEST(ReceiverConfinement, LeavesNoFilesNoProgramsAndNoOtherSockets) {
    EXPECT_EQ(host_test::in_child(try_confined), 0);
}

#ifdef __x86_64__
namespace {

// Makes another process carry system calls out, as an attacker would who has taken it over.
class Inside {
  public:
    explicit Inside(pid_t pid) : pid_(pid) {
        EXPECT_EQ(::ptrace(PTRACE_ATTACH, pid_, nullptr, nullptr), 0);
        EXPECT_EQ(::waitpid(pid_, nullptr, 0), pid_);
        EXPECT_EQ(::ptrace(PTRACE_GETREGS, pid_, nullptr, &registers_), 0);
    }
    // The result: a negative errno value after a failure. The text is the argument that is -1.
    long call(long number, std::vector<long> arguments, const std::string &text = {}) {
        user_regs_struct registers = registers_;
        registers.rsp = (registers.rsp - 4096) & ~0xfULL; // below what is in use
        for (std::size_t at = 0; at <= text.size(); at += sizeof(long)) {
            long word = 0;
            std::memcpy(&word, text.data() + at, std::min(sizeof word, text.size() - at));
            EXPECT_EQ(::ptrace(PTRACE_POKEDATA, pid_, registers.rsp + at, word), 0);
        }
        std::replace(arguments.begin(), arguments.end(), -1L, static_cast<long>(registers.rsp));
        arguments.resize(4);
        registers.rip -= 2; // it waits in a system call: this is that instruction
        registers.orig_rax = ~0ULL;
        registers.rax = static_cast<unsigned long long>(number);
        registers.rdi = static_cast<unsigned long long>(arguments[0]);
        registers.rsi = static_cast<unsigned long long>(arguments[1]);
        registers.rdx = static_cast<unsigned long long>(arguments[2]);
        registers.r10 = static_cast<unsigned long long>(arguments[3]);
        EXPECT_EQ(::ptrace(PTRACE_SETREGS, pid_, nullptr, &registers), 0);
        EXPECT_EQ(::ptrace(PTRACE_SINGLESTEP, pid_, nullptr, nullptr), 0);
        int status = 0;
        EXPECT_EQ(::waitpid(pid_, &status, 0), pid_);
        EXPECT_TRUE(WIFSTOPPED(status));
        EXPECT_EQ(::ptrace(PTRACE_GETREGS, pid_, nullptr, &registers), 0);
        return static_cast<long>(registers.rax);
    }

  private:
    pid_t pid_;
    user_regs_struct registers_{};
};

} // namespace

TEST_F(ReceiverProgram, OpensNothingWhateverItRuns) {
    REQUIRE_SUPERUSER("traces a process");
    start();
    Inside inside(pid);
    EXPECT_EQ(inside.call(SYS_getpid, {}), pid); // that is how such a call succeeds
    EXPECT_GE(inside.call(SYS_socket, {AF_INET, SOCK_DGRAM}), 0);
    EXPECT_EQ(inside.call(SYS_openat, {AT_FDCWD, -1, O_RDONLY}, "/etc/passwd"), -ENOSYS);
    EXPECT_EQ(inside.call(SYS_open, {-1, O_RDONLY}, "/etc/passwd"), -ENOSYS);
    EXPECT_EQ(inside.call(SYS_execve, {-1, 0, 0}, "/bin/true"), -ENOSYS);
    EXPECT_EQ(inside.call(SYS_socket, {AF_UNIX, SOCK_STREAM}), -ENOSYS);
    EXPECT_EQ(inside.call(SYS_unlink, {-1}, "/tmp/none"), -ENOSYS);
}
#endif

#endif
