// wardend: the system manager's daemon. It saves the running configuration when the agent or the
// command line requests it over the message bus: to the startup configuration of this switch, of
// the whole fabric, or to every startup configuration that this switch keeps. At start it makes the
// startup configuration the running configuration.
//
//   wardend      runs in the foreground until SIGTERM or SIGINT and logs to standard error
//
// Exits with 0 after a signal, 1 if it can't serve (another instance runs, or its directories can't
// be used) and 2 on wrong usage.
#include "base/settings.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/warden.h"

#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <system_error>

int main(int argc, char ** /*argv*/) {
    if (argc != 1) {
        std::fputs("usage: wardend\n", stderr);
        return 2;
    }
    constexpr mode_t no_writing_for_others = 022;
    ::umask(no_writing_for_others);
    std::signal(SIGPIPE, SIG_IGN);
    ulmo::log_to_standard_error();
    // logs problems with the settings before anything else
    static_cast<void>(ulmo::settings_problems());
    try {
        ulmo::Warden warden;
        try {
            ulmo::start_switch();
        } catch (const std::exception &error) {
            // The system manager goes on, so that an operator can repair the configuration.
            ulmo::log_error("the startup configuration can't become the running configuration: %s",
                            error.what());
        }
        ulmo::log_notice("ready");
        warden.run();
        ulmo::log_notice("ended");
        return 0;
    } catch (const std::system_error &error) {
        ulmo::log_error("can't serve: %s", error.code() == std::errc::address_in_use
                                               ? "another system manager runs"
                                               : error.what());
    } catch (const std::exception &error) {
        ulmo::log_error("can't serve: %s", error.what());
    }
    return 1;
}
