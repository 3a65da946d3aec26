// Shared by the tests of the message bus and of the agent's side.
#pragma once

#include "tests/unit/child.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace host_test {

inline constexpr uid_t nobody = 65534;

// A folder of the test's own, open to everybody and removed with the object.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "ulmo-test-XXXXXX").string();
        path_ = ::mkdtemp(name.data());
        ::chmod(path_.c_str(), 0755);
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    const std::filesystem::path &path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// Sets an environment variable and restores its former value.
class ScopedVariable {
  public:
    ScopedVariable(const char *name, const std::string &value) : name_(name) {
        if (const char *former = std::getenv(name); former != nullptr) {
            former_ = former;
            had_one_ = true;
        }
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedVariable() {
        if (had_one_) {
            ::setenv(name_, former_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }
    ScopedVariable(const ScopedVariable &) = delete;
    ScopedVariable &operator=(const ScopedVariable &) = delete;

  private:
    const char *name_;
    std::string former_;
    bool had_one_ = false;
};

// The platform's folders and settings below one folder.
struct Platform {
    explicit Platform(const std::filesystem::path &below)
        : conf(below / "platform.conf"), state_variable("ULMO_STATE_DIR", below / "state"),
          run_variable("ULMO_RUN_DIR", below / "run"), conf_variable("ULMO_CONF", conf) {}

    void set(const std::string &line) const { std::ofstream(conf, std::ios::app) << line << '\n'; }

    std::filesystem::path conf;
    ScopedVariable state_variable;
    ScopedVariable run_variable;
    ScopedVariable conf_variable;
};

} // namespace host_test
