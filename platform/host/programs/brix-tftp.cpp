// Copies one file to or from a TFTP server within a VRF.
//
//     brix-tftp DIRECTION SERVER PORT LOCAL REMOTE 1 VRF
//
// DIRECTION is 1 to put the local file under the remote name, 0 to get the remote file. The sixth
// argument is always 1. It exits with 0 if the file was copied; otherwise with one line on standard
// error and 1 if the transfer failed, 2 if the arguments are wrong, 3 if the VRF can't be entered.
#include "base/number.h"
#include "base/text.h"
#include "platform/host/history/copy_report.h"
#include "platform/host/transfer/tftp_copy.h"
#include "platform/host/vrf/vrf.h"

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace {

enum ExitStatus { done = 0, transfer_failed = 1, wrong_usage = 2, unknown_vrf = 3 };

constexpr int timeout_seconds = 20;

int fail(ExitStatus status, const std::string &reason) {
    ulmo::report_reason(reason); // a reason that the session has reported takes precedence
    std::fprintf(stderr, "brix-tftp: %s\n", reason.c_str());
    return status;
}

int run(int argc, char **argv) {
    constexpr int arguments = 8;
    const std::string_view direction = argc == arguments ? argv[1] : "";
    constexpr int largest_port = 65535;
    const auto port =
        argc == arguments ? ulmo::parsed_number(argv[3], 1, largest_port) : std::nullopt;
    if ((direction != "0" && direction != "1") || !port || std::string_view(argv[6]) != "1") {
        return fail(wrong_usage,
                    "usage: brix-tftp {1 (put) | 0 (get)} SERVER PORT LOCAL REMOTE 1 VRF");
    }
    const bool putting = direction == "1";
    const std::string server = argv[2];
    const std::string local = argv[4];
    const std::string remote = argv[5];
    const std::string vrf = argv[7];

    const std::optional<std::string> device = ulmo::vrf_device(vrf);
    if (std::string why; !ulmo::enter_vrf(vrf, &why)) {
        return fail(unknown_vrf, "cannot enter VRF " + ulmo::one_line(vrf) + ": " + why);
    }
    ulmo::tftp::Session session;
    session.bind_to_device(device.value_or(""));
    ulmo::set_timeout(session, timeout_seconds);
    int result = ulmo::connect(session, server, *port);
    if (result >= 0) {
        result = putting ? ulmo::put(session, local, remote) : ulmo::get(session, remote, local);
    }
    if (result < 0) {
        const std::string what = putting ? "cannot put " + local + " as " + remote + " on "
                                         : "cannot get " + remote + " as " + local + " from ";
        return fail(transfer_failed, ulmo::one_line(what + server) + ": " + session.text(result));
    }
    return done;
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        return fail(transfer_failed, error.what());
    }
}
