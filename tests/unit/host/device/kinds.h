// What the tests that every kind of device passes know of one kind.
#pragma once

#include "platform/host/device/device.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

struct DeviceKind {
    std::string name;
    // A new device, with its files below `directory` (which is also that of Device).
    std::function<std::unique_ptr<ulmo::Device>(const std::filesystem::path &directory)> device;
    // Two statements, each a line, as the running configuration shows them.
    std::string one;
    std::string two;
    // One that the device refuses, and a part of what it says then.
    std::string bad;
    std::string refusal;
};

// The kinds to test.
std::vector<const DeviceKind *> device_kinds();
