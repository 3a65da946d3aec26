#include "fake_process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

#include "fake_evtrace.h"

namespace {

constexpr char line_end = '\0'; // lines of the report may contain newlines

int report_fd = -1; // in a child: the pipe for its report

// Also works while the module changes the disposition of SIGCHLD.
class DefaultSigchld {
  public:
    DefaultSigchld() {
        struct sigaction standard {};
        standard.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &standard, &before_);
    }
    ~DefaultSigchld() { sigaction(SIGCHLD, &before_, nullptr); }
    DefaultSigchld(const DefaultSigchld &) = delete;
    DefaultSigchld &operator=(const DefaultSigchld &) = delete;

  private:
    struct sigaction before_ {};
};

// Clears the parent's records, so that the child reports only its own.
void become_child(int fd) {
    report_fd = fd;
    journal.take();
    fake_evtrace.clear();
}

void write_report() {
    std::string report(::testing::Test::HasFailure() ? "F" : "-");
    for (const std::string &line : journal.take()) {
        report += "j" + line + line_end;
    }
    for (const EvtraceFake::Record &record : fake_evtrace.history) {
        report += "h" + record.text + line_end;
    }
    for (std::size_t sent = 0; sent < report.size();) {
        const ssize_t now = write(report_fd, report.data() + sent, report.size() - sent);
        if (now < 0) {
            return;
        }
        sent += static_cast<std::size_t>(now);
    }
}

ProcessFake::Child read_report(pid_t pid, int fd) {
    std::string report;
    char block[4096];
    for (ssize_t got = read(fd, block, sizeof block); got > 0;
         got = read(fd, block, sizeof block)) {
        report.append(block, static_cast<std::size_t>(got));
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    ProcessFake::Child child{
        pid, WIFEXITED(status) ? WEXITSTATUS(status) : -1, report.substr(0, 1) != "-", {}, {}};
    for (std::size_t at = 1; at < report.size();) {
        const std::size_t end = report.find(line_end, at);
        (report[at] == 'j' ? child.journal : child.history)
            .push_back(report.substr(at + 1, end - at - 1));
        at = end + 1;
    }
    return child;
}

} // namespace

ProcessFake fake_process;

void ProcessFake::reset() {
    fork_result = 4711;
    real_child = false;
    child.reset();
    system_result = 0;
    system_errno = 0;
}

extern "C" {

pid_t __real_fork(void);
[[noreturn]] void __real__exit(int status);

pid_t __wrap_fork(void) {
    journal.note("fork");
    if (!fake_process.real_child) {
        errno = fake_process.fork_result < 0 ? EAGAIN : errno;
        return fake_process.fork_result;
    }
    int ends[2];
    if (pipe(ends) != 0) {
        ADD_FAILURE() << "pipe";
        return -1;
    }
    fflush(nullptr);
    const DefaultSigchld standard;
    const pid_t pid = __real_fork();
    if (pid == 0) {
        close(ends[0]);
        become_child(ends[1]);
        return 0;
    }
    close(ends[1]);
    if (pid > 0) {
        fake_process.child = read_report(pid, ends[0]);
    }
    close(ends[0]);
    return pid;
}

[[noreturn]] void __wrap__exit(int status) {
    if (report_fd >= 0) {
        fflush(nullptr); // the output of failed checks
        write_report();
    }
    __real__exit(status);
}

int __wrap_system(const char *command) {
    journal.note(std::string("system ") + command + sigchld_disposition());
    errno = fake_process.system_errno;
    return fake_process.system_result;
}

unsigned int __wrap_sleep(unsigned int seconds) {
    journal.note("sleep " + std::to_string(seconds));
    return 0;
}

} // extern "C"
