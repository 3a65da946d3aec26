#include "tests/unit/host/device/kinds.h"

#include "platform/host/device/backend.h"
#include "tests/unit/child.h"

#include <algorithm>
#include <cstdlib>

namespace {

const DeviceKind embedded_kind{
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

// docs/examples/tiny-switch.sh
const DeviceKind command{
    "command",
    [](const std::filesystem::path &directory) {
        const std::filesystem::path root = directory.parent_path(); // of the Scratch
        const std::string program = root / "tiny-switch";
        std::filesystem::create_symlink(host_test::program("tiny-switch.sh"), program);
        const std::filesystem::path files = root / "tiny";
        std::filesystem::create_directory(files);
        std::string settings;
        for (const std::string task : {"show_running", "show_startup", "check", "apply", "replace",
                                       "save", "store_startup"}) {
            std::string action = task;
            std::replace(action.begin(), action.end(), '_', '-');
            settings +=
                "command_" + task + " = " + program + " " + files.string() + " " + action + "\n";
        }
        Scratch::write(root / "platform.conf", settings);
        return std::make_unique<ulmo::Device>(ulmo::make_command_backend(directory), directory);
    },
    "vlan 10\n",
    "vlan 11\n",
    "frobnicate 1\n",
    "unknown statement 'frobnicate'",
};

// FRR itself, in a lab with --frr. Each test begins with what it ran at first.
const DeviceKind frr{
    "frr",
    [](const std::filesystem::path &directory) {
        auto device = std::make_unique<ulmo::Device>(ulmo::make_frr_backend(directory), directory);
        static const std::string at_first = device->show(ulmo::ConfigurationStore::running);
        std::string text(ulmo::replace_line);
        text.append("\n").append(at_first);
        device->apply(text);
        return device;
    },
    "ip route 10.77.1.0/24 blackhole\n",
    "ip route 10.77.2.0/24 blackhole\n",
    "frobnicate 1\n",
    "Unknown command: frobnicate 1",
};

} // namespace

std::vector<const DeviceKind *> device_kinds() {
    std::vector<const DeviceKind *> kinds{&embedded_kind, &command};
    if (std::getenv("ULMO_TEST_FRR") != nullptr) {
        kinds.push_back(&frr);
    }
    return kinds;
}
