#include "base/process.h"

#include "base/posix.h"
#include "base/unique_fd.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>

namespace ulmo {
namespace {

// Gives the calling process these standard streams. False with errno set.
bool take_streams(const std::array<int, 3> &streams) {
    // Copies above the standard streams: a given one may itself be a stream that is replaced
    // before.
    std::array<int, 3> copies{};
    for (std::size_t stream = 0; stream < streams.size(); ++stream) {
        const int given = streams[stream];
        copies[stream] = given < 0 ? -1 : ::fcntl(given, F_DUPFD_CLOEXEC, first_other_descriptor);
        if (given >= 0 && copies[stream] < 0) {
            return false;
        }
    }
    for (int stream = 0; stream < first_other_descriptor; ++stream) {
        const int copy = copies[static_cast<std::size_t>(stream)];
        if (copy >= 0) {
            if (::dup2(copy, stream) < 0) {
                return false;
            }
        } else if (const int flags = ::fcntl(stream, F_GETFD); flags >= 0) {
            ::fcntl(stream, F_SETFD, flags & ~FD_CLOEXEC);
        } else if (::open("/dev/null", O_RDWR) != stream) { // or a file becomes the stream
            return false;
        }
    }
    // The descriptor that tells of a failure stays open until the program runs.
    return ::close_range(first_other_descriptor, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

} // namespace

void become(const std::array<int, 3> &streams, char *const *argv, char *const *environment,
            pid_t parent, int failure) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == parent) { // otherwise it has died before
        for (int number = 1; number < NSIG; ++number) {
            std::signal(number, SIG_DFL);
        }
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        if (take_streams(streams)) {
            ::execve(argv[0], argv, environment);
        }
        const int error = errno;
        [[maybe_unused]] const ssize_t told = ::write(failure, &error, sizeof error);
    }
    ::_exit(EXIT_FAILURE);
}

int run_and_wait(const std::array<int, 3> &streams, std::vector<char *> &argv) {
    std::array<int, 2> ends{};
    check(::pipe2(ends.data(), O_CLOEXEC), "pipe");
    UniqueFd reading(ends[0]);
    UniqueFd writing(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        return -1;
    }
    if (pid == 0) {
        // The pipe may lie where a standard stream is closed, which it is not to become.
        const int failure = ::fcntl(writing.get(), F_DUPFD_CLOEXEC, first_other_descriptor);
        reading.reset();
        writing.reset();
        become(streams, argv.data(), environ, parent, failure);
    }
    writing.reset();
    int error = 0;
    ssize_t told = 0;
    while ((told = ::read(reading.get(), &error, sizeof error)) < 0 && errno == EINTR) {
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (told > 0) {
        errno = error;
        return -1;
    }
    if (WIFSIGNALED(status)) {
        errno = EINTR;
        return -WTERMSIG(status);
    }
    return status;
}

} // namespace ulmo
