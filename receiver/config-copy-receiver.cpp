// config-copy-receiver: copies local files to and from switches by TFTP, as config-copy orders.
//
//     config-copy-receiver [PORT]
//
// Standard input is the socket of receiver/orders.h; the program ends when that is closed, and when
// its parent ends. PORT is 69 unless given; for another one the program uses no capability.
#include "base/number.h"
#include "base/posix.h"
#include "base/reason.h"
#include "receiver/confinement.h"
#include "receiver/orders.h"
#include "receiver/service.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

constexpr std::uint16_t tftp_port = 69;
constexpr int wrong_usage = 2;

bool is_socket_for_orders(int descriptor) {
    int type = 0;
    socklen_t octets = sizeof type;
    return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &octets) == 0 &&
           type == SOCK_SEQPACKET;
}

// Why the port can't be bound, and what to do.
std::string advice(int error, std::uint16_t port) {
    const std::string name = "UDP port " + std::to_string(port);
    if (error == EADDRINUSE) {
        return name + " is in use by another program, such as a TFTP server or another "
                      "config-copy: end that first";
    }
    if (error == EACCES && port == tftp_port) {
        std::error_code unreadable;
        const std::string path = std::filesystem::read_symlink("/proc/self/exe", unreadable);
        return name +
               " needs a right: run config-copy as root, or as a member of the package's "
               "group config-copy, or 'setcap cap_net_bind_service=ep " +
               path + "'";
    }
    return name + " can't be used: " + std::generic_category().message(error);
}

// A terminal's signals reach config-copy as well, which then cleans up with our help and closes the
// socket.
void ignore_signals() {
    for (const int number : {SIGINT, SIGQUIT, SIGHUP, SIGPIPE, SIGXFSZ}) {
        std::signal(number, SIG_IGN);
    }
}

// Keeps nothing open that config-copy has open: the end of its output, for instance, would come
// only with ours.
void leave_other_descriptors() {
    ulmo::check(::close_range(STDERR_FILENO + 1, ~0U, 0), "cannot close descriptors");
    const int null = ulmo::check(::open("/dev/null", O_RDWR | O_CLOEXEC), "cannot open /dev/null");
    ulmo::check(::dup2(null, STDOUT_FILENO));
    ulmo::check(::dup2(null, STDERR_FILENO));
    if (null > STDERR_FILENO) { // otherwise it is one of those two
        ::close(null);
    }
    ulmo::check(::chdir("/"));
}

// For many transfers: two descriptors and a thread each.
void prepare_for_many() {
    rlimit files{};
    if (::getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &files);
    }
    constexpr std::size_t stack = std::size_t{256} * 1024;
    constexpr int heaps = 4;
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) == 0) {
        ::pthread_attr_setstacksize(&attributes, stack);
        ::pthread_setattr_default_np(&attributes);
        ::pthread_attr_destroy(&attributes);
    }
    ::mallopt(M_ARENA_MAX, heaps);
}

class NotBound : public std::system_error {
    using std::system_error::system_error;
};

std::vector<receiver::RequestSocket> bind_sockets(std::uint16_t port) {
    try {
        return receiver::bind_request_sockets(port);
    } catch (const std::system_error &failure) {
        throw NotBound(failure.code());
    }
}

void serve(std::uint16_t port) {
    // Another port must not be one that only a privileged process may use.
    if (port != tftp_port) {
        receiver::drop_capabilities();
    }
    std::vector<receiver::RequestSocket> sockets = bind_sockets(port);
    receiver::drop_capabilities();
    ulmo::check(::prctl(PR_SET_PDEATHSIG, SIGKILL));
    ulmo::check(::prctl(PR_SET_DUMPABLE, 0));
    receiver::confine();
    receiver::Service service(STDIN_FILENO, std::move(sockets));
    if (receiver::send(STDIN_FILENO, receiver::Report{})) {
        service.run();
    }
}

} // namespace

int main(int argc, char **argv) {
    const std::optional<std::uint16_t> port =
        argc == 1 ? tftp_port : ulmo::parsed_number<std::uint16_t>(argv[1], 1);
    if (argc > 2 || !port || !is_socket_for_orders(STDIN_FILENO)) {
        std::fputs("config-copy-receiver: config-copy(1) runs this program when it needs it\n",
                   stderr);
        return wrong_usage;
    }
    receiver::Report report{receiver::Report::Kind::failed, 0, 0, 0, {}, 0};
    try {
        ignore_signals();
        leave_other_descriptors();
        prepare_for_many();
        serve(*port);
        return EXIT_SUCCESS;
    } catch (const NotBound &failure) {
        report.error = failure.code().value();
        receiver::put_text(report.text, advice(report.error, *port));
    } catch (const std::system_error &failure) {
        report.error = failure.code().value();
        receiver::put_text(report.text, ulmo::reason_of(failure));
    } catch (const std::exception &failure) {
        report.error = ENOMEM;
        receiver::put_text(report.text, ulmo::reason_of(failure));
    }
    try {
        receiver::send(STDIN_FILENO, report);
    } catch (const std::system_error &) {
        // The exit status says it, too.
    }
    return EXIT_FAILURE;
}
