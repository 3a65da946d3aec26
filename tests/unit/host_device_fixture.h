// A state directory of its own for each test of the device and of what stands on it.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <system_error>

inline std::string content(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("no file " + path.string());
    }
    return {std::istreambuf_iterator<char>(file), {}};
}

inline mode_t permissions(const std::filesystem::path &path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    return status.st_mode & 07777U;
}

class DeviceTest : public testing::Test {
  protected:
    DeviceTest() {
        std::string name = (std::filesystem::temp_directory_path() / "ulmo-device.XXXXXX").string();
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        directory_ = name;
        ::setenv("ULMO_STATE_DIR", state().c_str(), 1);
        ::setenv("ULMO_CONF", (directory_ / "platform.conf").c_str(), 1);
        std::filesystem::create_directory(state());
    }
    ~DeviceTest() override {
        ::unsetenv("ULMO_STATE_DIR");
        ::unsetenv("ULMO_CONF");
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    std::filesystem::path state() const { return directory_ / "state"; }
    std::filesystem::path running() const { return state() / "running.cfg"; }
    std::filesystem::path startup() const { return state() / "system.cfg"; }

    std::filesystem::path file(const std::string &name, const std::string &text) const {
        std::ofstream(directory_ / name, std::ios::binary) << text;
        return directory_ / name;
    }

    std::filesystem::path directory_;
};
