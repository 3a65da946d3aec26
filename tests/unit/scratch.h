// A fresh state directory, run directory and settings file for the host platform, in a directory
// that is removed with the object.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

class Scratch {
  public:
    Scratch() {
        std::string path = std::filesystem::temp_directory_path() / "ulmo-test-XXXXXX";
        if (::mkdtemp(path.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), path);
        }
        root_ = path;
        ::setenv("ULMO_STATE_DIR", (root_ / "state").c_str(), 1);
        ::setenv("ULMO_RUN_DIR", (root_ / "run").c_str(), 1);
        ::setenv("ULMO_CONF", (root_ / "platform.conf").c_str(), 1);
        std::filesystem::create_directory(root_ / "state");
        std::filesystem::create_directory(root_ / "run");
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
        ::unsetenv("ULMO_STATE_DIR");
        ::unsetenv("ULMO_RUN_DIR");
        ::unsetenv("ULMO_CONF");
    }

    [[nodiscard]] std::filesystem::path root() const { return root_; }
    [[nodiscard]] std::filesystem::path state(const std::string &name) const {
        return root_ / "state" / name;
    }
    [[nodiscard]] std::filesystem::path run(const std::string &name) const {
        return root_ / "run" / name;
    }

    void configure(const std::string &text) const { write(root_ / "platform.conf", text); }

    static void write(const std::filesystem::path &file, const std::string &text) {
        std::ofstream(file, std::ios::binary | std::ios::trunc) << text;
    }
    static std::string read(const std::filesystem::path &file) {
        std::ifstream stream(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    // Does not follow a symbolic link.
    static struct stat status_of(const std::filesystem::path &file) {
        struct stat status {};
        if (::lstat(file.c_str(), &status) != 0) {
            throw std::system_error(errno, std::generic_category(), file);
        }
        return status;
    }

  private:
    std::filesystem::path root_;
};
