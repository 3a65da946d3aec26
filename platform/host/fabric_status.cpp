#include "platform/host/fabric_status.h"

#include "platform/host/host_config.h"
#include "platform/host/unique_fd.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <system_error>

namespace ulmo {
namespace {

std::filesystem::path status_file() {
    return state_dir() / "fabric-status";
}

void check(bool good, const std::filesystem::path &file) {
    if (!good) {
        throw std::system_error(errno, std::generic_category(), file);
    }
}

std::string contents_of(int descriptor, const std::filesystem::path &file) {
    std::string text;
    char part[4096];
    ssize_t octets = 0;
    while ((octets = ::read(descriptor, part, sizeof part)) > 0) {
        text.append(part, static_cast<std::size_t>(octets));
    }
    check(octets == 0, file);
    return text;
}

void write_all(int descriptor, std::string_view text, const std::filesystem::path &file) {
    while (!text.empty()) {
        const ssize_t octets = ::write(descriptor, text.data(), text.size());
        check(octets >= 0 || errno == EINTR, file);
        text.remove_prefix(octets < 0 ? 0 : static_cast<std::size_t>(octets));
    }
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
    char address[INET6_ADDRSTRLEN];
    if (ip_addr_to_str(&status.address, address, sizeof address) != 0) {
        std::snprintf(address, sizeof address, "-");
    }
    std::string text = status.text;
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, ' ');
    return wwn_to_text(status.wwn) + (status.is_local ? " local " : " remote ") + address + ' ' + text + '\n';
}

} // namespace

std::vector<FabricSwitchStatus> read_fabric_status() {
    const auto path = status_file();
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file && errno == ENOENT) {
        return {};
    }
    check(static_cast<bool>(file), path);
    std::vector<FabricSwitchStatus> switches;
    std::istringstream lines(contents_of(file.get(), path));
    for (std::string line; std::getline(lines, line);) {
        auto status = parsed(line);
        const auto is_same = [&](const FabricSwitchStatus &other) { return other.wwn == status->wwn; };
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
    const auto path = status_file();
    std::string temporary = path.string() + ".XXXXXX";
    const UniqueFd file(::mkostemp(temporary.data(), O_CLOEXEC)); // mode 0600
    check(static_cast<bool>(file), temporary);
    try {
        write_all(file.get(), text, temporary);
        check(::fsync(file.get()) == 0, temporary);
        check(::rename(temporary.c_str(), path.c_str()) == 0, path);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
}

} // namespace ulmo
