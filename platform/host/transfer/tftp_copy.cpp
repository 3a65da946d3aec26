#include "platform/host/transfer/tftp_copy.h"

#include "base/settings.h"
#include "platform/copy_table.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/history/copy_report.h"

#include <cerrno>
#include <chrono>

namespace ulmo {
namespace {

// Applies the settings of the moment to the session's next transfer.
void limit(tftp::Session &session) {
    const auto seconds = [](NumberSetting name) {
        return std::chrono::seconds(number_setting(name).value());
    };
    session.set_limits({.idle = seconds("transfer_idle_limit"),
                        .total = seconds("transfer_time_limit"),
                        .received_octets = configuration_text_limit});
}

int reported(const tftp::Session &session, int result) {
    if (result < 0) {
        report_reason(session.text(result));
        report_moved(session.moved());
    }
    return result;
}

int reported(const tftp::Session &session, int result, const std::string &local) {
    if (result >= 0) {
        report_file(local);
    }
    return reported(session, result);
}

} // namespace

int set_timeout(tftp::Session &session, int seconds) {
    return reported(session, session.set_timeout(seconds));
}

int connect(tftp::Session &session, const std::string &server, int port) {
    return reported(session, session.connect(server, port));
}

int put(tftp::Session &session, const std::string &local, const std::string &remote) {
    limit(session);
    return reported(session, session.put(local, remote), local);
}

int get(tftp::Session &session, const std::string &remote, const std::string &local) {
    limit(session);
    const int result = session.get(remote, local);
    if (result == tftp::system_result(EFBIG)) {
        report_cause(COPY_FAIL_BAD_CONFIG);
    }
    return reported(session, result, local);
}

} // namespace ulmo
