#include "platform/host/warden/action.h"

#include "platform/host/device_backend.h"
#include "platform/host/host_config.h"
#include "platform/host/host_log.h"
#include "platform/host/last_save.h"
#include "platform/host/system_manager_status.h"

#include <poll.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <vector>

namespace ulmo {
namespace {

class GivenUp : public std::exception {
  public:
    const char *what() const noexcept override { return "given up"; }
};

void check_stop(int stop) {
    pollfd told{stop, POLLIN, 0};
    if (::poll(&told, 1, 0) > 0) {
        throw GivenUp();
    }
}

// The further files of an action on all startup configurations.
std::vector<std::filesystem::path> startup_copies() {
    std::vector<std::string> names = settings("startup_copy");
    if (names.empty()) {
        names = {"backup.cfg"};
    }
    names.erase(std::remove(names.begin(), names.end(), ""), names.end());
    return {names.begin(), names.end()};
}

void save_here(const std::vector<std::filesystem::path> &copies, int stop) {
    try {
        make_device_backend()->save(copies, [stop] { check_stop(stop); });
    } catch (const GivenUp &) {
        throw;
    } catch (const std::exception &error) {
        record_last_save(reason_of(error));
        throw;
    }
    record_last_save(saved_text);
}

} // namespace

const char *name_of(Action::Scope scope) {
    switch (scope) {
    case Action::Scope::fabric:
        return "startup configuration of every switch of the fabric";
    case Action::Scope::all:
        return "every startup configuration of this switch";
    case Action::Scope::startup:
        break;
    }
    return "startup configuration of this switch";
}

ActionOutcome perform(const Action &action, int stop) {
    try {
        save_here(action.scope == Action::Scope::all ? startup_copies() : std::vector<std::filesystem::path>{}, stop);
        return {0, std::string(saved_text)};
    } catch (const GivenUp &error) {
        return {warden_err_given_up, error.what()};
    } catch (const std::exception &error) {
        return {warden_err_store, reason_of(error)};
    }
}

} // namespace ulmo
