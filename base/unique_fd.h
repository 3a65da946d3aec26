// A file descriptor with one owner.
#pragma once

#include <unistd.h>

#include <utility>

namespace ulmo {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int descriptor) : descriptor_(descriptor) {}
    UniqueFd(UniqueFd &&other) noexcept : descriptor_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        if (this != &other) {
            reset(other.release());
        }
        return *this;
    }
    UniqueFd(const UniqueFd &) = delete;
    UniqueFd &operator=(const UniqueFd &) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return descriptor_; }
    explicit operator bool() const { return descriptor_ >= 0; }
    int release() { return std::exchange(descriptor_, -1); }
    void reset(int descriptor = -1) {
        const int old = std::exchange(descriptor_, descriptor);
        if (old >= 0) {
            ::close(old);
        }
    }

  private:
    int descriptor_ = -1;
};

} // namespace ulmo
