// Gives each test of the device and of its users a state directory of its own.
#pragma once

#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

inline std::string content(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("no file " + path.string());
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

inline mode_t permissions(const std::filesystem::path &path) {
    return Scratch::status_of(path).st_mode & 07777U;
}

class DeviceTest : public testing::Test {
  protected:
    std::filesystem::path state() const { return directory_ / "state"; }
    std::filesystem::path running() const { return state() / "running.cfg"; }
    std::filesystem::path startup() const { return state() / "system.cfg"; }

    std::filesystem::path file(const std::string &name, const std::string &text) const {
        std::ofstream(directory_ / name, std::ios::binary) << text;
        return directory_ / name;
    }

    const Scratch scratch_;
    const std::filesystem::path directory_ = scratch_.root();
};
