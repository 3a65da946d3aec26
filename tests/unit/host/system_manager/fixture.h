// The real system manager as a child of the test, which asks it for actions.
#pragma once

#include "base/state_file.h"
#include "platform/host/bus/server.h"
#include "platform/host/device/device.h"
#include "platform/host/system_manager/status.h"
#include "platform/msgbus.h"
#include "platform/system_manager.h"
#include "tests/unit/child.h"
#include "tests/unit/host/device/fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace host_test {

using namespace std::chrono_literals;

// Polls until the condition holds, for at most some seconds.
inline bool comes_true(const std::function<bool()> &condition,
                       std::chrono::milliseconds within = 30s) {
    const auto deadline = std::chrono::steady_clock::now() + within;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// Sends a signal to one process. Refuses numbers that are not a process id, such as a failed
// look-up's, which kill(2) takes for many processes.
inline void send_signal(pid_t pid, int number) {
    ASSERT_GT(pid, 1);
    ASSERT_EQ(::kill(pid, number), 0) << std::strerror(errno);
}

// Runs a program from the folder of the tests; killed with the object, and with the test.
class Program {
  public:
    // Its standard output goes to the file `output`, its standard error to the end of the file
    // `errors`.
    Program(const std::string &name, const std::vector<std::string> &arguments,
            const std::filesystem::path &output, const std::filesystem::path &errors) {
        const std::string path = program(name);
        std::vector<char *> argv{const_cast<char *>(path.c_str())};
        for (const std::string &argument : arguments) {
            argv.push_back(const_cast<char *>(argument.c_str()));
        }
        argv.push_back(nullptr);
        constexpr mode_t readable = 0644;
        const ulmo::UniqueFd out(
            ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, readable));
        const ulmo::UniqueFd err(
            ::open(errors.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, readable));
        pid_ = ::fork();
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
            ::dup2(out.get(), STDOUT_FILENO);
            ::dup2(err.get(), STDERR_FILENO);
            ::execv(path.c_str(), argv.data());
            ::_exit(127);
        }
    }
    ~Program() {
        if (pid_ > 0) {
            signal(SIGKILL);
            wait();
        }
    }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    pid_t pid() const { return pid_; }
    void signal(int number) const { send_signal(pid_, number); }

    // The exit status, or minus the signal; nothing while the program runs.
    std::optional<int> ended() {
        int status = 0;
        if (pid_ <= 0 || ::waitpid(pid_, &status, WNOHANG) != pid_) {
            return std::nullopt;
        }
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
    int wait() {
        std::optional<int> status;
        return comes_true([&] { return (status = ended()).has_value(); }) ? *status : -1000;
    }

  private:
    pid_t pid_ = -1;
};

inline std::vector<pid_t> children_of(pid_t pid) {
    std::ifstream list("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) +
                       "/children");
    std::vector<pid_t> children;
    for (pid_t child; list >> child;) {
        children.push_back(child);
    }
    return children;
}

// The value of a line of /proc/PID/status (proc(5)); empty if the process has gone.
inline std::string status_of(pid_t pid, const std::string &name) {
    std::ifstream lines("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(name + ":\t", 0) == 0) {
            return line.substr(name.size() + 2);
        }
    }
    return "";
}

inline bool is_gone(pid_t pid) {
    const std::string state = status_of(pid, "State");
    return state.empty() || state.front() == 'Z';
}

// How often the process has slept: a busy loop never does.
inline unsigned long rests_of(pid_t pid) {
    return std::stoul("0" + status_of(pid, "voluntary_ctxt_switches"));
}

// A request to the system manager on a connection of its own.
class Request {
  public:
    Request(std::uint32_t opcode, const std::string &payload, std::uint32_t token = 1)
        : token_(token) {
        int error = 0;
        connection_ = ulmo::connect_to(MSGBUS_SAP_WARDEN, error);
        EXPECT_EQ(error, 0) << std::strerror(error);
        EXPECT_EQ(ulmo::send_packet(connection_.get(), opcode, token, payload.data(),
                                    static_cast<std::uint32_t>(payload.size())),
                  0);
    }

    // The status word of the next message, which must have that opcode; 0xFFFFFFFF if the
    // connection was closed instead.
    std::uint32_t status(std::uint32_t opcode) {
        pollfd readable{connection_.get(), POLLIN, 0};
        if (::poll(&readable, 1, 30000) != 1) {
            ADD_FAILURE() << "no answer";
            return none;
        }
        std::unique_ptr<msgbus_message> message;
        if (ulmo::receive_packet(connection_.get(), message) != ulmo::Receipt::message) {
            return none;
        }
        EXPECT_EQ(message->opcode, opcode);
        EXPECT_EQ(message->token, token_);
        EXPECT_GE(message->length, sizeof(std::uint32_t));
        text_.assign(reinterpret_cast<const char *>(message->words.data() + 1),
                     message->length - sizeof(std::uint32_t));
        return ntohl(message->words[0]);
    }
    std::uint32_t answer() { return status(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION); }
    // Whether the next message reports the beginning.
    bool begins() {
        pollfd readable{connection_.get(), POLLIN, 0};
        std::unique_ptr<msgbus_message> message;
        return ::poll(&readable, 1, 30000) == 1 &&
               ulmo::receive_packet(connection_.get(), message) == ulmo::Receipt::message &&
               message->opcode == MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN && message->length == 0;
    }
    std::uint32_t end() { return status(MSGBUS_OPC_WARDEN_CFG_ACTION_END); }
    bool is_closed_without_answer() { return answer() == none; }
    const std::string &text() const { return text_; } // of the last one

    std::uint32_t token() const { return token_; }

    static constexpr std::uint32_t none = 0xFFFFFFFF;

  private:
    std::uint32_t token_;
    ulmo::UniqueFd connection_;
    std::string text_;
};

enum class Scope { startup, fabric, all };

inline std::string
action_payload(Scope scope = Scope::startup, const std::string &user = "operator",
               const std::string &session = "7",
               const std::function<void(warden_cfg_action &)> &change = nullptr) {
    warden_cfg_action request{};
    request.word0 = htonl(WARDEN_CFG_ACTION_WORD0);
    request.word1 = htonl(WARDEN_CFG_ACTION_WORD1);
    request.byte10 = 1;
    request.fabric = htonl(scope == Scope::fabric ? 1 : 0);
    request.all = htonl(scope == Scope::all ? 1 : 0);
    std::memcpy(request.user, user.data(), std::min(user.size(), sizeof request.user));
    std::memcpy(request.session, session.data(), std::min(session.size(), sizeof request.session));
    if (change) {
        change(request);
    }
    return {reinterpret_cast<const char *>(&request), sizeof request};
}

inline Request ask(Scope scope = Scope::startup, std::uint32_t token = 1) {
    return {MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, action_payload(scope), token};
}

inline std::string abort_payload(std::uint32_t token) {
    const warden_cfg_abort request{htonl(token), 0};
    return {reinterpret_cast<const char *>(&request), sizeof request};
}

inline void abort_action(std::uint32_t token) {
    Request(MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT, abort_payload(token), 0);
}

class WardenTest : public DeviceTest {
  protected:
    void SetUp() override {
        // The log without time stamps, to be compared whole.
        ::setenv("JOURNAL_STREAM", "8:1", 1);
        std::filesystem::permissions(directory_, std::filesystem::perms(0755));
    }
    void TearDown() override { ::unsetenv("JOURNAL_STREAM"); }

    // Running "new", startup "old".
    void prepare() const {
        file("state/system.cfg", old_text);
        file("state/running.cfg", new_text);
        file("run/started", boot_id());
    }
    void start() {
        const auto ready_before = count("ready");
        warden_ = std::make_unique<Program>("wardend", std::vector<std::string>{},
                                            directory_ / "stdout", log_file());
        ASSERT_TRUE(comes_true([&] { return count("ready") > ready_before || warden_->ended(); }));
        ASSERT_GT(count("ready"), ready_before) << testing::PrintToString(log());
    }
    void prepare_and_start() {
        prepare();
        start();
    }
    // Ends it as an operator does.
    void stop() {
        warden_->signal(SIGTERM);
        EXPECT_EQ(warden_->wait(), 0);
    }

    // No save gets past this lock.
    std::unique_ptr<ulmo::FileLock> hold_device() const {
        return std::make_unique<ulmo::FileLock>(state() / "configuration.lock",
                                                ulmo::FileLock::Mode::exclusive, 1s);
    }
    // Waits until the process of the action, the only child, waits for the held device. It starts
    // some time after the answer.
    pid_t action() const {
        std::vector<pid_t> children;
        EXPECT_TRUE(comes_true([&] {
            children = children_of(warden_->pid());
            return children.size() == 1 &&
                   has_open(children.front(), state() / "configuration.lock");
        }));
        return children.empty() ? -1 : children.front();
    }
    static bool has_open(pid_t pid, const std::filesystem::path &path) {
        std::error_code gone;
        for (const auto &entry :
             std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", gone)) {
            if (std::filesystem::read_symlink(entry.path(), gone) == path) {
                return true;
            }
        }
        return false;
    }
    // Whether a SIGTERM is pending for the process, which blocks it.
    static bool is_told_to_stop(pid_t pid) {
        const std::string pending = status_of(pid, "ShdPnd");
        return !pending.empty() && (std::stoull(pending, nullptr, 16) & 1ULL << (SIGTERM - 1)) != 0;
    }

    std::filesystem::path log_file() const { return directory_ / "log"; }
    std::vector<std::string> log() const {
        std::ifstream file(log_file());
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }
    // Counts the lines that match `wanted`: a '#' in it matches any number, a '*' at its end any
    // text.
    std::size_t count(const std::string &wanted) const {
        const auto lines = log();
        return static_cast<std::size_t>(
            std::count_if(lines.begin(), lines.end(),
                          [&](const std::string &line) { return matches(line, wanted); }));
    }
    bool logs(const std::string &line) const {
        return comes_true([&] { return count(line) > 0; });
    }
    static bool matches(const std::string &line, const std::string &wanted) {
        std::size_t at = 0;
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            if (wanted[i] == '#') {
                const std::size_t end = line.find_first_not_of("0123456789", at);
                if (end == at || at >= line.size()) {
                    return false;
                }
                at = std::min(end, line.size());
            } else if (wanted[i] == '*' && i + 1 == wanted.size()) {
                return true;
            } else if (at >= line.size() || line[at++] != wanted[i]) {
                return false;
            }
        }
        return at == line.size();
    }
    static std::string boot_id() {
        std::string id;
        std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
        return id;
    }

    const std::string old_text = "hostname old\nend\n";
    const std::string new_text = "hostname new\nend\n";
    std::unique_ptr<Program> warden_;
};

} // namespace host_test
