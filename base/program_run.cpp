#include "base/program_run.h"

#include "base/posix.h"
#include "base/process.h"
#include "base/state_file.h"
#include "base/text.h"
#include "base/unique_fd.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

namespace ulmo {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t longest_complaint = 200;

class AllSignalsBlocked {
  public:
    AllSignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &former_);
    }
    AllSignalsBlocked(const AllSignalsBlocked &) = delete;
    AllSignalsBlocked &operator=(const AllSignalsBlocked &) = delete;
    ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &former_, nullptr); }

  private:
    sigset_t former_{};
};

// A file, unlike a pipe, needs nobody that fills it, and does not complain if nobody reads it.
UniqueFd file_of(std::string_view text) {
    UniqueFd file(check(::memfd_create("input", MFD_CLOEXEC), "cannot create a file in memory"));
    write_whole(file.get(), text, "a file in memory");
    check(::lseek(file.get(), 0, SEEK_SET), "a file in memory");
    return file;
}

// The guard: a process between the caller and the program. It outlives the caller for the moment
// that it takes to kill the program and all that this has started. The calls up to its end are safe
// after a fork(2) in a process with threads.

// What the guard writes to the caller's pipe when the program has ended. An errno value of the same
// size precedes it if the program could not be run.
using WaitStatus = int;

// Kills the children of the guard, or only those in a session. The orphans of a killed child become
// children of the guard, so this goes on until nothing is left.
void kill_children(std::optional<pid_t> session) {
    for (bool is_more = true; is_more;) {
        is_more = false;
        std::array<char, 4096> text{};
        const int file = ::open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
        const ssize_t length = file < 0 ? 0 : ::read(file, text.data(), text.size());
        ::close(file);
        const char *const end = text.data() + std::max<ssize_t>(length, 0);
        for (const char *at = text.data(); at < end;) {
            pid_t child = 0;
            const auto number = std::from_chars(at, end, child);
            // A number that is not followed by a blank has been cut.
            if (number.ptr < end && child > 0 && (!session || ::getsid(child) == *session) &&
                ::kill(child, SIGKILL) == 0) {
                ::waitpid(child, nullptr, 0);
                is_more = true;
            }
            at = number.ptr + 1;
        }
    }
}

// Closes all descriptors but the standard streams and those given, which are in ascending order.
void close_all_but(const std::vector<int> &kept) {
    int first = first_other_descriptor;
    for (const int file : kept) {
        if (file > first) {
            ::close_range(static_cast<unsigned>(first), static_cast<unsigned>(file - 1), 0);
        }
        first = std::max(first, file + 1);
    }
    ::close_range(static_cast<unsigned>(first), ~0U, 0);
}

struct User {
    uid_t user;
    gid_t group;
    std::vector<gid_t> groups;
};

// The owner of the folder, if the caller is the superuser and the owner is not.
std::optional<User> other_owner(const std::filesystem::path &folder) {
    struct stat owned {};
    if (::geteuid() != 0 || ::stat(folder.c_str(), &owned) != 0 || owned.st_uid == 0) {
        return std::nullopt;
    }
    User owner{owned.st_uid, owned.st_gid, {owned.st_gid}};
    passwd entry{};
    passwd *found = nullptr;
    std::array<char, 16384> texts{}; // another thread may use the buffer of getpwuid(3)
    if (::getpwuid_r(owned.st_uid, &entry, texts.data(), texts.size(), &found) == 0 && found) {
        owner.group = entry.pw_gid;
        int count = NGROUPS_MAX;
        owner.groups.resize(static_cast<std::size_t>(count));
        ::getgrouplist(entry.pw_name, entry.pw_gid, owner.groups.data(), &count);
        owner.groups.resize(static_cast<std::size_t>(count));
    }
    return owner;
}

bool become_user(const User &user) {
    return ::setgroups(user.groups.size(), user.groups.data()) == 0 &&
           ::setresgid(user.group, user.group, user.group) == 0 &&
           ::setresuid(user.user, user.user, user.user) == 0;
}

struct Start {
    std::array<int, 3> streams;
    char *const *argv;
    char *const *environment;
    std::optional<User> user;
    std::vector<int> kept; // descriptors that the guard keeps open, in ascending order
};

// Programs expect no more than this. Some close all descriptors that they could have, which takes
// long if that is a million, and select(2) fails with higher ones.
void limit_descriptors() {
    constexpr rlim_t usual = 1024;
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur > usual) {
        limit.rlim_cur = usual;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

[[noreturn]] void guard(const Start &start, pid_t parent, int report) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::signal(SIGCHLD, SIG_DFL); // if it were ignored, there would be no status to wait for
    if (::getppid() != parent || ::chdir("/") != 0) {
        ::_exit(EXIT_FAILURE);
    }
    ::umask(077);
    const pid_t self = ::getpid();
    const pid_t program = ::fork();
    if (program == 0) {
        ::setsid();
        limit_descriptors();
        if (start.user && !become_user(*start.user)) {
            const int error = errno;
            [[maybe_unused]] const ssize_t told = ::write(report, &error, sizeof error);
            ::_exit(EXIT_FAILURE);
        }
        become(start.streams, start.argv, start.environment, self, report);
    }
    if (program < 0) {
        const std::array<int, 2> failure{errno, 0};
        [[maybe_unused]] const ssize_t told = ::write(report, failure.data(), sizeof failure);
        ::_exit(EXIT_FAILURE);
    }
    close_all_but(start.kept);

    sigset_t expected;
    ::sigemptyset(&expected);
    ::sigaddset(&expected, SIGCHLD);
    ::sigaddset(&expected, SIGTERM);
    siginfo_t ended{};
    do {
        if (::sigwaitinfo(&expected, nullptr) == SIGTERM) {
            ::kill(-program, SIGKILL); // all at once, so that none starts more
            kill_children({});
            ::_exit(EXIT_FAILURE);
        }
        // An orphan that has ended is reaped by the process that adopts it next.
        ::waitid(P_PID, static_cast<id_t>(program), &ended, WEXITED | WNOHANG | WNOWAIT);
    } while (ended.si_pid == 0);
    // Before it is reaped: until then the number of its group is not given to others.
    ::kill(-program, SIGKILL);
    WaitStatus status = 0;
    ::waitpid(program, &status, 0);
    kill_children(program);
    ::_exit(::write(report, &status, sizeof status) == sizeof status ? EXIT_SUCCESS : EXIT_FAILURE);
}

std::vector<char *> pointers_to(const std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string &text : texts) {
        // execve(2) declares the vectors as writable but does not write to them.
        pointers.push_back(const_cast<char *>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

// Reads what is there, at most a buffer. False if nothing is.
template <typename Take> bool read_some(const UniqueFd &file, const Take &take) {
    std::array<char, 65536> buffer;
    const ssize_t length = ::read(file.get(), buffer.data(), buffer.size());
    if (length > 0) {
        take(std::string_view(buffer.data(), static_cast<std::size_t>(length)));
    }
    return length > 0;
}

// The same after poll(2). Closes the file at its end.
template <typename Take> void read_ready(UniqueFd &file, const pollfd &found, const Take &take) {
    if ((found.revents & POLLIN) != 0) {
        read_some(file, take);
    } else if (found.revents != 0) {
        file.reset();
    }
}

// Collects the first line of a text that is not blank.
class FirstLine {
  public:
    void add(std::string_view text) {
        constexpr std::string_view blanks = " \t\r\n";
        if (line_.empty()) {
            text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
        }
        if (!is_whole_) {
            const std::string_view rest = text.substr(0, text.find('\n'));
            line_.append(rest, 0, longest_complaint - line_.size());
            is_whole_ = rest.size() < text.size() || line_.size() == longest_complaint;
        }
    }
    [[nodiscard]] std::string text() const { return one_line(trimmed(line_), longest_complaint); }

  private:
    std::string line_;
    bool is_whole_ = false;
};

} // namespace

// A program under its guard, with the caller's ends of its streams.
class RunningProgram {
  public:
    // `speaking` is the other end of the input, if that is a socket.
    RunningProgram(const ProgramCall &call, UniqueFd input, UniqueFd speaking = {});

    // Says the question and takes what the program prints, up to and with the mark. Without a mark,
    // or if the mark does not come, until the program ends.
    ProgramEnd take(std::string_view question, std::string_view mark);

  private:
    struct Pipe {
        UniqueFd reading;
        UniqueFd writing;

        explicit Pipe() {
            std::array<int, 2> ends{};
            check(::pipe2(ends.data(), O_CLOEXEC), "pipe");
            reading.reset(ends[0]);
            writing.reset(ends[1]);
        }
    };

    // The running guard, as its caller sees it.
    class Guard {
      public:
        explicit Guard(pid_t process) : process_(process) {}
        Guard(const Guard &) = delete;
        Guard &operator=(const Guard &) = delete;
        ~Guard() {
            if (process_ > 0) {
                stop();
                wait();
            }
        }

        void stop() const { ::kill(process_, SIGTERM); }
        void wait() {
            while (::waitpid(process_, nullptr, 0) < 0 && errno == EINTR) {
            }
            process_ = -1;
        }

      private:
        pid_t process_;
    };

    void say(std::string_view &question) const;
    void finish(ProgramEnd &end) const;

    std::string name_;
    std::chrono::milliseconds time_limit_;
    std::size_t output_limit_;
    UniqueFd speaking_;
    Pipe output_;
    Pipe errors_;
    Pipe report_;
    std::string rest_;           // what it has printed after the last mark
    std::string outcome_;        // what the guard has reported
    std::optional<Guard> guard_; // ends before the streams do
};

RunningProgram::RunningProgram(const ProgramCall &call, UniqueFd input, UniqueFd speaking)
    : name_(call.words.at(0)), time_limit_(call.time_limit), output_limit_(call.output_limit),
      speaking_(std::move(speaking)) {
    std::vector<std::string> variables = {
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
    variables.insert(variables.end(), call.environment.begin(), call.environment.end());
    const std::vector<char *> argv = pointers_to(call.words);
    const std::vector<char *> environment = pointers_to(variables);

    // Its end may be where a standard stream is closed, which it is not to become.
    const UniqueFd told(
        check(::fcntl(report_.writing.get(), F_DUPFD_CLOEXEC, first_other_descriptor), "pipe"));
    report_.writing.reset();

    Start start{{input.get(), output_.writing.get(), errors_.writing.get()},
                argv.data(),
                environment.data(),
                other_owner(call.as_owner_of),
                FileLock::held()};
    start.kept.push_back(told.get());
    std::sort(start.kept.begin(), start.kept.end());

    const pid_t self = ::getpid();
    {
        const AllSignalsBlocked blocked; // no handler of the caller runs in the guard
        const pid_t process = check(::fork(), "fork");
        if (process == 0) {
            guard(start, self, told.get());
        }
        guard_.emplace(process);
    }
    output_.writing.reset();
    errors_.writing.reset();
    for (const UniqueFd *file : {&output_.reading, &errors_.reading}) {
        check(::fcntl(file->get(), F_SETFL, O_NONBLOCK), "pipe");
    }
}

// Writes what the socket takes of the question. A program that has closed its input needs none.
void RunningProgram::say(std::string_view &question) const {
    const ssize_t length =
        ::send(speaking_.get(), question.data(), question.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (length >= 0) {
        question.remove_prefix(static_cast<std::size_t>(length));
    } else if (errno != EAGAIN && errno != EINTR) {
        question = {};
    }
}

ProgramEnd RunningProgram::take(std::string_view question, std::string_view mark) {
    const auto deadline = Clock::now() + time_limit_;
    ProgramEnd end;
    FirstLine complaint;
    bool is_answered = false;
    std::size_t searched = 0; // before this, no mark begins
    const auto take_output = [&](std::string_view text) {
        const std::size_t room = output_limit_ - end.output.size();
        end.output.append(text, 0, room);
        if (text.size() > room) {
            end.limit = ProgramEnd::Limit::output;
        } else if (const std::size_t at = end.output.find(mark, searched);
                   !mark.empty() && at != std::string::npos) {
            rest_ = end.output.substr(at + mark.size());
            end.output.resize(at + mark.size());
            is_answered = true;
        }
        searched = end.output.size() - std::min(end.output.size(), mark.size());
    };
    const auto take_error = [&](std::string_view text) { complaint.add(text); };
    const auto take_report = [&](std::string_view text) { outcome_.append(text); };
    take_output(std::exchange(rest_, {}));
    while (report_.reading && !is_answered && end.limit == ProgramEnd::Limit::none) {
        constexpr std::chrono::milliseconds longest_wait = std::chrono::hours(1);
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            end.limit = ProgramEnd::Limit::time;
            break;
        }
        std::array<pollfd, 4> files{{{output_.reading.get(), POLLIN, 0},
                                     {errors_.reading.get(), POLLIN, 0},
                                     {report_.reading.get(), POLLIN, 0},
                                     {question.empty() ? -1 : speaking_.get(), POLLOUT, 0}}};
        if (::poll(files.data(), files.size(),
                   static_cast<int>(std::min(left, longest_wait).count())) < 0) {
            if (errno != EINTR) {
                throw_errno("poll");
            }
            continue;
        }
        read_ready(output_.reading, files[0], take_output);
        read_ready(errors_.reading, files[1], take_error);
        read_ready(report_.reading, files[2], take_report);
        if (files[3].revents != 0) {
            say(question);
        }
    }
    if (!is_answered) {
        if (end.limit != ProgramEnd::Limit::none) {
            guard_->stop();
        }
        guard_->wait();
        // What it wrote last. A daemon that still has the pipes open is not waited for.
        while (end.limit == ProgramEnd::Limit::none && !is_answered &&
               read_some(output_.reading, take_output)) {
        }
    }
    read_some(errors_.reading, take_error);
    end.complaint = complaint.text();
    if (is_answered) {
        end.exit_status = 0;
    } else if (end.limit == ProgramEnd::Limit::none) {
        finish(end);
    }
    return end;
}

// Adds how the program ended.
void RunningProgram::finish(ProgramEnd &end) const {
    std::array<int, 2> numbers{};
    std::memcpy(numbers.data(), outcome_.data(), std::min(outcome_.size(), sizeof numbers));
    if (outcome_.size() == sizeof numbers) {
        throw_error(numbers[0], "cannot run", name_);
    }
    if (outcome_.size() != sizeof(WaitStatus)) {
        throw std::runtime_error("the process that watches " + name_ + " was ended");
    }
    const WaitStatus status = numbers[0];
    end.exit_status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    end.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

ProgramEnd run_program(const ProgramCall &call) {
    return RunningProgram(call, file_of(call.input)).take({}, {});
}

Conversation::Conversation(const ProgramCall &call) {
    std::array<int, 2> ends{};
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
    UniqueFd input(ends[0]);
    UniqueFd speaking(ends[1]);
    program_ = std::make_unique<RunningProgram>(call, std::move(input), std::move(speaking));
}

Conversation::~Conversation() = default;

ProgramEnd Conversation::ask(std::string_view question, std::string_view mark) {
    return program_->take(question, mark);
}

std::string failure_of(const ProgramCall &call, const ProgramEnd &end) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(call.time_limit).count();
    switch (end.limit) {
    case ProgramEnd::Limit::time:
        return "it did not end within " + std::to_string(seconds) +
               (seconds == 1 ? " second" : " seconds") + " and was killed";
    case ProgramEnd::Limit::output:
        return "it printed more than " + std::to_string(call.output_limit) +
               " octets and was killed";
    case ProgramEnd::Limit::none:
        break;
    }
    if (end.signal != 0) {
        return "signal " + std::to_string(end.signal) + " ended it";
    }
    return end.complaint.empty()
               ? "it ended with status " + std::to_string(end.exit_status) + " and gave no reason"
               : end.complaint;
}

} // namespace ulmo
