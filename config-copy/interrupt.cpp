#include "config-copy/interrupt.h"

#include "base/posix.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace config_copy {
namespace {

volatile std::sig_atomic_t caught = 0;
std::array<int, 2> wake{-1, -1};

extern "C" void note_signal(int number) {
    const int saved = errno;
    caught = number;
    [[maybe_unused]] const auto written = ::write(wake[1], "", 1);
    errno = saved;
}

} // namespace

void watch_signals() {
    ulmo::check(::pipe2(wake.data(), O_CLOEXEC | O_NONBLOCK), "pipe2");
    // A closed pipe or a file that is too large must not leave requests behind.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    struct sigaction action {};
    action.sa_handler = note_signal;
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before {};
        ::sigaction(number, nullptr, &before);
        if (before.sa_handler != SIG_IGN) { // as under nohup(1)
            ::sigaction(number, &action, nullptr);
        }
    }
}

int interrupting_signal() {
    return caught;
}

int interrupt_descriptor() {
    return wake[0];
}

void end_by_signal(int signal) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    std::_Exit(128 + signal); // the signal was blocked
}

} // namespace config_copy
