// vrf-exec: runs a program within a VRF.
//
//     vrf-exec ID PROGRAM [ARGUMENT…]
//
// ID is the VRF's number (vrfdir_get_context_id()); PROGRAM is searched for in PATH. Exits with the
// program's status. On failure prints one line on standard error and exits with 125 if the
// arguments are wrong or the VRF does not exist or can't be entered, and with 127 if the program
// can't be run.
#include "base/number.h"
#include "platform/host/history/log.h"
#include "platform/host/vrf/vrf.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace {

enum ExitStatus { no_vrf = 125, no_program = 127 };

int fail(ExitStatus status, const std::string &reason) {
    ulmo::log_error("vrf-exec: %s", reason.c_str());
    std::fprintf(stderr, "vrf-exec: %s\n", reason.c_str());
    return status;
}

int run(int argc, char **argv) {
    const std::optional<int> id = argc > 2 ? ulmo::parsed_number<int>(argv[1]) : std::nullopt;
    if (!id) {
        return fail(no_vrf, "usage: vrf-exec ID PROGRAM [ARGUMENT...]");
    }
    const std::optional<std::string> name = ulmo::vrf_name(*id);
    if (!name) {
        return fail(no_vrf, "there is no VRF with the number " + std::to_string(*id));
    }
    std::optional<std::string> device = ulmo::vrf_device(*name);
    if (std::string why; !ulmo::enter_vrf(*name, &why)) {
        return fail(no_vrf,
                    "cannot enter the VRF with the number " + std::to_string(*id) + ": " + why);
    }
    std::vector<char *> command(argv + 2, argv + argc + 1);
    std::string ip = "ip";
    std::string vrf = "vrf";
    std::string exec = "exec";
    // ip-vrf(8) binds every socket of the program to the device
    if (device) {
        command.insert(command.begin(), {ip.data(), vrf.data(), exec.data(), device->data()});
    }
    ::execvp(command.front(), command.data());
    return fail(no_program, "cannot run " + std::string(command.front()) + ": " +
                                std::generic_category().message(errno));
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        return fail(no_vrf, error.what());
    }
}
