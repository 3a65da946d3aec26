// The C interface of the TFTP client. A worker has one session.
#include "platform/tftp_client.h"

#include "base/c_boundary.h"
#include "platform/host/transfer/tftp_copy.h"

#include <cerrno>
#include <string>
#include <utility>

namespace {

// The process's only session.
ulmo::tftp::Session &session() {
    static ulmo::tftp::Session the_session;
    return the_session;
}

// Runs the work, unless an argument is missing.
template <typename Work> int checked(bool valid, Work &&work) noexcept {
    constexpr int refused = ulmo::tftp::system_result(EINVAL);
    // all other failures have results of their own
    constexpr int failed = ulmo::tftp::system_result(ENOMEM);
    return valid ? ulmo::result_or(failed, std::forward<Work>(work)) : refused;
}

} // namespace

extern "C" int tftp_timeout_set(int seconds) {
    return checked(true, [&] { return ulmo::set_timeout(session(), seconds); });
}

extern "C" int tftp_connect(const char *server, int port) {
    return checked(server != nullptr, [&] { return ulmo::connect(session(), server, port); });
}

extern "C" int tftp_put2(const char *local, const char *remote, int flags) {
    return checked(local != nullptr && remote != nullptr && flags == 0,
                   [&] { return ulmo::put(session(), local, remote); });
}

extern "C" int tftp_get2(const char *remote, const char *local, int flags) {
    return checked(local != nullptr && remote != nullptr && flags == 0,
                   [&] { return ulmo::get(session(), remote, local); });
}

extern "C" const char *tftp_strerror(int error) {
    static std::string text;
    return ulmo::result_or("Out of memory", [error] {
        text = session().text(error);
        return text.c_str();
    });
}
