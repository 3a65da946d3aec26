#include "tests/unit/host/device/kinds.h"

#include "platform/host/device/backend.h"

namespace {

const DeviceKind embedded{
    "embedded",
    [](const std::filesystem::path &directory) {
        std::filesystem::create_directories(directory);
        return std::make_unique<ulmo::Device>(ulmo::make_embedded_backend(directory), directory);
    },
    "vlan 10\n",
    "vlan 11\n",
    "frobnicate 1\n",
    "unknown statement 'frobnicate'",
};

} // namespace

std::vector<const DeviceKind *> device_kinds() {
    return {&embedded};
}
