#include "platform/host/system_manager/action.h"

#include "base/reason.h"
#include "base/settings.h"
#include "platform/host/device/device.h"
#include "platform/host/fabric/status.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/fabric_members.h"
#include "platform/host/system_manager/fabric_save.h"
#include "platform/host/system_manager/last_save.h"
#include "platform/host/system_manager/status.h"

#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <vector>

namespace ulmo {
namespace {

class GivenUp : public std::exception {
  public:
    [[nodiscard]] const char *what() const noexcept override { return "given up"; }
};

void check_stop(int stop) {
    pollfd stopping{stop, POLLIN, 0};
    if (::poll(&stopping, 1, 0) > 0) {
        throw GivenUp();
    }
}

// While members may hold rows of ours, the daemon's death makes the action give up, which destroys
// these rows, instead of killing it.
class OutlivesDaemon {
  public:
    OutlivesDaemon() {
        ::prctl(PR_GET_PDEATHSIG, &former_);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    }
    OutlivesDaemon(const OutlivesDaemon &) = delete;
    OutlivesDaemon &operator=(const OutlivesDaemon &) = delete;
    ~OutlivesDaemon() { ::prctl(PR_SET_PDEATHSIG, former_); }

  private:
    int former_ = 0;
};

std::vector<FabricSwitchStatus> save_all_members(int stop) {
    const OutlivesDaemon outlives;
    return save_members(fabric_members(), fabric_time_limit(), stop);
}

// The additional files of an action on all startup configurations.
std::vector<std::filesystem::path> startup_copies() {
    std::vector<std::string> names = list_setting("startup_copy");
    names.erase(std::remove(names.begin(), names.end(), ""), names.end());
    return {names.begin(), names.end()};
}

// The reason of a failed save, which is also kept as the outcome of the last one.
std::string recorded(const std::exception &error) {
    std::string reason = reason_of(error);
    record_last_save(reason);
    return reason;
}

void save_here(const std::vector<std::filesystem::path> &copies, int stop) {
    make_device()->save(copies, [stop] { check_stop(stop); });
    record_last_save(saved_text);
}

// Saves on this switch and returns the outcome, as for a member of the fabric.
std::string saved_here(int stop) {
    try {
        save_here({}, stop);
        return std::string(saved_text);
    } catch (const GivenUp &) {
        throw;
    } catch (const std::exception &error) {
        return recorded(error);
    }
}

ActionOutcome save_fabric(int stop) {
    FabricSwitchStatus here;
    here.is_local = true;
    here.wwn = local_wwn();
    write_fabric_status({}); // an earlier outcome must not pass for this one's
    std::vector<FabricSwitchStatus> switches;
    try {
        switches = save_all_members(stop);
        // This switch comes last: until the others have answered, an action given up leaves the
        // startup configuration as it was.
        check_stop(stop);
        here.text = saved_here(stop);
    } catch (const GivenUp &) {
        throw;
    } catch (const std::exception &error) { // the members are not known: nothing was saved anywhere
        here.text = recorded(error);
    }
    switches.insert(switches.begin(), here);
    log_failure("the outcome on each switch can't be kept for the agent",
                [&] { write_fabric_status(switches); });

    std::size_t failed = 0;
    for (const FabricSwitchStatus &each : switches) {
        failed += each.text == saved_text ? 0 : 1;
        log_notice("switch %s%s: %s", wwn_to_text(each.wwn).c_str(),
                   each.is_local ? " (this one)" : "", each.text.c_str());
    }
    if (failed != 0) {
        return {warden_err_fabric, std::to_string(failed) + " of " +
                                       std::to_string(switches.size()) + " switches did not save"};
    }
    return {0, std::string(saved_text) + " on " + std::to_string(switches.size()) + " switches"};
}

} // namespace

const char *name_of(Action::Scope scope) {
    switch (scope) {
    case Action::Scope::fabric:
        return "startup configuration of every switch of the fabric";
    case Action::Scope::all:
        return "startup configurations of this switch";
    case Action::Scope::startup:
        break;
    }
    return "startup configuration of this switch";
}

ActionOutcome perform(const Action &action, int stop) {
    try {
        if (action.scope == Action::Scope::fabric) {
            return save_fabric(stop);
        }
        save_here(action.scope == Action::Scope::all ? startup_copies()
                                                     : std::vector<std::filesystem::path>{},
                  stop);
        return {0, std::string(saved_text)};
    } catch (const GivenUp &error) {
        return {warden_err_given_up, error.what()};
    } catch (const std::exception &error) {
        return {warden_err_store, recorded(error)};
    }
}

ActionOutcome look_back() {
    try {
        make_device()->look_back();
        return {0, {}};
    } catch (const std::exception &error) {
        return {warden_err_store, reason_of(error)};
    }
}

} // namespace ulmo
