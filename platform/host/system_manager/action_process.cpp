#include "platform/host/system_manager/action_process.h"

#include "base/posix.h"
#include "platform/host/system_manager/status.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

namespace ulmo {
namespace {

// A report is one write of at most PIPE_BUF octets (pipe(7)): the status word and the text.
constexpr std::size_t longest_text = 1024;

sigset_t only(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    return set;
}

[[noreturn]] void run(const std::function<ActionOutcome(int stop)> &work, int report,
                      pid_t parent) {
    // The parent may have ended before this call.
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) {
        ::_exit(1);
    }
    constexpr int first_free = STDERR_FILENO + 1;
    if (report != first_free && ::dup2(report, first_free) < 0) {
        ::_exit(1);
    }
    ::closefrom(first_free + 1);
    // The parent handles an interrupt from the terminal.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    const sigset_t inherited = only({SIGINT, SIGCHLD});
    ::sigprocmask(SIG_UNBLOCK, &inherited, nullptr);
    const sigset_t stop = only({SIGTERM});
    const UniqueFd stopped(::signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!stopped) {
        ::_exit(1);
    }
    const ActionOutcome outcome = work(stopped.get());
    std::string octets(sizeof outcome.status, '\0');
    std::memcpy(octets.data(), &outcome.status, sizeof outcome.status);
    octets.append(outcome.text, 0, longest_text);
    ::_exit(::write(first_free, octets.data(), octets.size()) == static_cast<ssize_t>(octets.size())
                ? 0
                : 1);
}

} // namespace

ActionProcess::ActionProcess(const std::function<ActionOutcome(int stop)> &work) {
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), "pipe");
    report_ = UniqueFd(ends[0]);
    const UniqueFd to_child(ends[1]);
    const pid_t parent = ::getpid();
    process_ = check(::fork(), "fork");
    if (process_ == 0) {
        run(work, to_child.get(), parent);
    }
}

ActionProcess::~ActionProcess() {
    if (process_ > 0) {
        ::kill(process_, SIGKILL);
        while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
}

void ActionProcess::give_up(std::chrono::milliseconds timeout) {
    if (process_ > 0 && !overdue_) {
        ::kill(process_, SIGTERM);
        overdue_ = std::chrono::steady_clock::now() + timeout;
    }
}

void ActionProcess::kill_if_overdue() {
    if (process_ > 0 && overdue_ && std::chrono::steady_clock::now() >= *overdue_) {
        ::kill(process_, SIGKILL);
    }
}

std::optional<ActionOutcome> ActionProcess::outcome() {
    int status = 0;
    if (process_ <= 0 || ::waitpid(process_, &status, WNOHANG) != process_) {
        return std::nullopt;
    }
    process_ = -1;
    return reported(status);
}

ActionOutcome ActionProcess::reported(int status) {
    ActionOutcome outcome{};
    std::array<char, sizeof outcome.status + longest_text> octets;
    const ssize_t length = ::read(report_.get(), octets.data(), octets.size());
    if (length >= static_cast<ssize_t>(sizeof outcome.status)) {
        std::memcpy(&outcome.status, octets.data(), sizeof outcome.status);
        outcome.text.assign(octets.data() + sizeof outcome.status, octets.data() + length);
        return outcome;
    }
    if (overdue_) {
        return {warden_err_given_up, "given up, killed"};
    }
    return {warden_err_store, WIFSIGNALED(status)
                                  ? "the process of the action was ended by signal " +
                                        std::to_string(WTERMSIG(status))
                                  : "the process of the action could not run"};
}

} // namespace ulmo
