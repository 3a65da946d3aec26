#include "platform/host/fabric/wwn.h"

#include "base/settings.h"

#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>

namespace ulmo {
namespace {

// FNV-1a. The machine id must not be recoverable from the WWN, and the WWN must be the same after
// each start.
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

Wwn local_wwn() {
    return wwn_from_text(text_setting("wwn")).value_or(locally_assigned());
}

} // namespace ulmo
