#include "platform/host/transfer/tftp_copy.h"

#include "platform/host/history/copy_report.h"

namespace ulmo {
namespace {

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
    return reported(session, session.put(local, remote), local);
}

int get(tftp::Session &session, const std::string &remote, const std::string &local) {
    return reported(session, session.get(remote, local), local);
}

} // namespace ulmo
