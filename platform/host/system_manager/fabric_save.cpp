#include "platform/host/system_manager/fabric_save.h"

#include "base/unique_fd.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/member_save.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <string_view>

namespace ulmo {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::chrono::seconds ending_time{2}; // from SIGTERM to a process's end, its own or by SIGKILL
constexpr const char *internal_error = "internal error";

// --- in a member's process ---

volatile std::sig_atomic_t is_terminated = 0;

void terminate(int) {
    is_terminated = 1;
    ::alarm(static_cast<unsigned>(ending_time.count())); // also when nobody is left to see to the end
}

// Leaves the process nothing of its parent's but the standard streams and the pipe.
void leave_parent(int pipe, pid_t parent) {
    for (int number = 1; number < NSIG; ++number) {
        std::signal(number, SIG_DFL);
    }
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = terminate; // without SA_RESTART: a wait ends at once
    ::sigaction(SIGTERM, &action, nullptr);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) {
        ::_exit(1);
    }
    const auto number = static_cast<unsigned>(pipe);
    if (number > STDERR_FILENO + 1) {
        ::close_range(STDERR_FILENO + 1, number - 1, 0);
    }
    ::close_range(number + 1, ~0U, 0);
}

[[noreturn]] void run_child(const FabricMember &member, std::chrono::seconds limit, MemberSave save, int pipe, pid_t parent) noexcept {
    leave_parent(pipe, parent);
    int status = 1;
    try {
        const std::string line = save(member, limit, [] { return is_terminated != 0; }) + '\n';
        if (::write(pipe, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
            status = 0;
        }
    } catch (const std::exception &error) {
        log_error("saving %s: %s", wwn_to_text(member.wwn).c_str(), error.what());
    }
    ::_exit(status); // nothing of the parent's is flushed or destroyed
}

// --- in the calling process ---

class Child {
  public:
    Child(const FabricMember &member, std::chrono::seconds limit, MemberSave save) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            log_error("saving the fabric: no pipe: %s", std::strerror(errno));
            return;
        }
        pipe_.reset(ends[0]);
        UniqueFd write_end(ends[1]);
        // No signal meets the child before it has handlers of its own.
        sigset_t all;
        sigset_t old;
        ::sigfillset(&all);
        ::sigprocmask(SIG_SETMASK, &all, &old);
        const pid_t parent = ::getpid();
        pid_ = ::fork();
        if (pid_ == 0) {
            run_child(member, limit, save, write_end.get(), parent);
        }
        const int error = errno;
        ::sigprocmask(SIG_SETMASK, &old, nullptr);
        if (pid_ < 0) {
            log_error("saving the fabric: no process: %s", std::strerror(error));
            pipe_.reset();
        }
    }
    Child(Child &&other) noexcept = default;
    Child &operator=(Child &&) = delete;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() = default;

    // Its end of the pipe; -1 once it has ended, as poll() takes it.
    int descriptor() const { return pipe_.get(); }

    // Takes what has arrived; sees to the end of the process when that is all.
    void read() {
        std::array<char, 512> octets;
        const ssize_t count = ::read(pipe_.get(), octets.data(), octets.size());
        if (count > 0) {
            line_.append(octets.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            pipe_.reset();
            reap();
        }
    }

    void send(int signal) const {
        if (pipe_) {
            ::kill(pid_, signal);
        }
    }

    // Nothing when the process died before it could tell.
    std::string words() const { return line_.ends_with('\n') ? line_.substr(0, line_.size() - 1) : std::string(); }

  private:
    void reap() {
        int status = 0;
        pid_t ended = 0;
        do {
            ended = ::waitpid(pid_, &status, 0);
        } while (ended < 0 && errno == EINTR);
        if (status != 0) {
            log_error("saving the fabric: process %d ended with status 0x%x", pid_, static_cast<unsigned>(status));
        }
    }

    UniqueFd pipe_;
    pid_t pid_ = -1;
    std::string line_;
};

class Children {
  public:
    explicit Children(std::size_t count) { children_.reserve(count); }
    void add(Child child) { children_.push_back(std::move(child)); }
    const Child &operator[](std::size_t i) const { return children_[i]; }

    // Until all have ended or `end` comes. False as soon as `stop` is readable.
    bool await(Clock::time_point end, int stop) {
        while (is_any_left() && Clock::now() < end) {
            std::vector<pollfd> polled{{stop, POLLIN, 0}};
            for (const Child &child : children_) {
                polled.push_back({child.descriptor(), POLLIN, 0});
            }
            const auto left = std::min<std::chrono::milliseconds>(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()), 1s);
            if (::poll(polled.data(), polled.size(), static_cast<int>(left.count())) < 0) {
                continue; // interrupted; nothing else can fail here
            }
            for (std::size_t i = 0; i < children_.size(); ++i) {
                if (polled[i + 1].revents != 0) {
                    children_[i].read();
                }
            }
            if (polled[0].revents != 0) {
                return false;
            }
        }
        return true;
    }

    void send(int signal) const {
        for (const Child &child : children_) {
            child.send(signal);
        }
    }

  private:
    bool is_any_left() const {
        return std::any_of(children_.begin(), children_.end(), [](const Child &child) { return child.descriptor() >= 0; });
    }

    std::vector<Child> children_;
};

} // namespace

std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members, std::chrono::seconds limit, int stop,
                                             MemberSave save) {
    Children children(members.size());
    for (const FabricMember &member : members) {
        children.add(Child(member, limit, save));
    }
    // A process keeps its limit by itself; one that does not is lost.
    const bool is_given_up = !children.await(Clock::now() + limit + ending_time, stop);
    if (is_given_up) {
        children.send(SIGTERM);
        children.await(Clock::now() + ending_time, -1);
    }
    children.send(SIGKILL);
    children.await(Clock::time_point::max(), -1);

    std::vector<FabricSwitchStatus> outcomes;
    for (std::size_t i = 0; i < members.size(); ++i) {
        std::string words = children[i].words();
        if (words.empty()) {
            words = is_given_up ? std::string(save_given_up) : internal_error;
        }
        outcomes.push_back({members[i].wwn, false, members[i].address, std::move(words)});
    }
    return outcomes;
}

std::vector<FabricSwitchStatus> save_members(const std::vector<FabricMember> &members, std::chrono::seconds limit, int stop) {
    return save_members(members, limit, stop, save_member);
}

} // namespace ulmo
