#include "platform/host/fabric/status.h"

#include "base/address_text.h"
#include "base/folders.h"
#include "base/state_file.h"
#include "base/text.h"

#include <algorithm>
#include <sstream>

namespace ulmo {
namespace {

std::filesystem::path status_file() {
    return run_dir() / "fabric-status";
}

std::optional<FabricSwitchStatus> parsed(const std::string &line) {
    std::istringstream words(line);
    std::string name;
    std::string place;
    std::string address;
    words >> name >> place >> address;
    const auto wwn = wwn_from_text(name);
    if (!words || !wwn || *wwn == Wwn{} || (place != "local" && place != "remote")) {
        return std::nullopt;
    }
    FabricSwitchStatus status{*wwn, place == "local", {}, {}};
    if (address != "-" && ip_addr_from_str(address.c_str(), &status.address) != 0) {
        return std::nullopt;
    }
    std::getline(words >> std::ws, status.text);
    return status;
}

std::string line_of(const FabricSwitchStatus &status) {
    const std::string address =
        status.address.type == INET_ADDRESS_UNKNOWN ? "-" : address_text(status.address);
    return wwn_to_text(status.wwn) + (status.is_local ? " local " : " remote ") + address + ' ' +
           one_line(status.text) + '\n';
}

} // namespace

std::vector<FabricSwitchStatus> read_fabric_status() {
    constexpr std::size_t largest = std::size_t{1} << 20;
    std::vector<FabricSwitchStatus> switches;
    std::istringstream lines(read_state_file(status_file(), largest).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        auto status = parsed(line);
        const auto is_same = [&](const FabricSwitchStatus &other) {
            return other.wwn == status->wwn;
        };
        if (status && std::none_of(switches.begin(), switches.end(), is_same)) {
            switches.push_back(std::move(*status));
        }
    }
    return switches;
}

void write_fabric_status(const std::vector<FabricSwitchStatus> &switches) {
    std::string text;
    for (const FabricSwitchStatus &status : switches) {
        text += line_of(status);
    }
    replace_state_file(status_file(), text);
}

} // namespace ulmo
