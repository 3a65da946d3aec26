#include "platform/host/wwn.h"

#include "platform/host/host_config.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>

namespace ulmo {
namespace {

// FNV-1a. The id itself is not to be read from the name, and the name has to be the same after each start.
std::uint64_t hash_of(std::string_view text) {
    std::uint64_t hash = 0xCBF29CE484222325U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x00000100000001B3U;
    }
    return hash;
}

std::string machine_id() {
    std::string id;
    if (std::ifstream file("/etc/machine-id"); std::getline(file, id) && !id.empty()) {
        return id;
    }
    char name[256] = "";
    ::gethostname(name, sizeof name - 1);
    return name;
}

Wwn locally_assigned() {
    constexpr std::uint64_t naa_local = 3;
    const std::uint64_t number = naa_local << 60U | hash_of("wwn " + machine_id()) >> 4U;
    Wwn wwn{};
    for (std::size_t i = 0; i < wwn.size(); ++i) {
        wwn[i] = static_cast<std::uint8_t>(number >> (56U - 8U * i));
    }
    return wwn;
}

} // namespace

std::optional<Wwn> wwn_from_text(std::string_view text) {
    Wwn wwn{};
    constexpr std::size_t step = 3; // two digits and a colon
    if (text.size() != wwn.size() * step - 1) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < wwn.size(); ++i) {
        const char *digits = text.data() + i * step;
        const auto [end, error] = std::from_chars(digits, digits + 2, wwn[i], 16);
        if (error != std::errc{} || end != digits + 2 || (i + 1 < wwn.size() && *end != ':')) {
            return std::nullopt;
        }
    }
    return wwn;
}

std::string wwn_to_text(const Wwn &wwn) {
    char text[24];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x:%02x:%02x", wwn[0], wwn[1], wwn[2], wwn[3], wwn[4], wwn[5], wwn[6],
                  wwn[7]);
    return text;
}

std::optional<Wwn> local_wwn() {
    const std::string text = setting("wwn", "");
    const std::optional<Wwn> wwn = text.empty() ? locally_assigned() : wwn_from_text(text);
    return wwn == Wwn{} ? std::nullopt : wwn;
}

} // namespace ulmo
