// A text that a program of a device reads by its name.
#pragma once

#include "base/ownership.h"
#include "base/state_file.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

namespace ulmo {

// The file exists as long as the object. The lock of the device keeps its name for one process; the
// next one replaces what a killed one has left.
class NamedText {
  public:
    NamedText(std::filesystem::path file, std::string_view text) : file_(std::move(file)) {
        replace_volatile_file(file_, text);
    }
    NamedText(const NamedText &) = delete;
    NamedText &operator=(const NamedText &) = delete;
    ~NamedText() {
        const ActingAsOwner owner(file_.parent_path());
        std::error_code ignored;
        std::filesystem::remove(file_, ignored);
    }

    [[nodiscard]] const std::string &name() const { return file_.native(); }

  private:
    std::filesystem::path file_;
};

} // namespace ulmo
