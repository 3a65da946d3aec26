// link_relay: a cable with properties. Makes two TAP devices and carries Ethernet frames between
// them, each after a delay, some not at all.
//
//   link_relay --tun DEVICE --left NAME --right NAME [--delay MS] [--loss PERCENT] [--rate KBIT]
//              [--cut-after BYTES] [--seed N]
//
// Every property applies to each direction separately. `--cut-after` cuts both directions for good
// once so many octets of frames have entered the cable. The same seed loses the same frames of a
// direction, counted from the first. Prints "ready" when both devices exist; they may then be moved
// to other network namespaces. Ends with SIGTERM.
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <exception>
#include <optional>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock; // CLOCK_MONOTONIC, the clock of the timer

constexpr std::size_t largest_frame = 65536; // the most that TAP delivers at a time
// The capacity of the cable; more is lost, as in a switch with full buffers.
constexpr std::size_t queue_frames = 4096;

[[noreturn]] void fail(const char *what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int get() const { return fd_; }

  private:
    int fd_;
};

Descriptor open_tap(const std::string &device, std::string_view name) {
    Descriptor tap(::open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (tap.get() < 0) {
        fail(device.c_str());
    }
    ifreq request{};
    if (name.empty() || name.size() >= sizeof request.ifr_name) {
        throw std::invalid_argument("a device name has 1 to 15 characters");
    }
    name.copy(request.ifr_name, name.size());
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (::ioctl(tap.get(), TUNSETIFF, &request) != 0) {
        fail("TUNSETIFF");
    }
    return tap;
}

struct Properties {
    std::chrono::microseconds delay{0};
    double loss = 0;                               // 0 to 1
    double octets_per_second = 0;                  // 0: no limit
    std::optional<std::uint64_t> octets_until_cut; // both directions together
    std::uint32_t seed = 1;
};

// One direction of the cable. Frames leave in the order in which they came, as the delay is the
// same for all.
class Direction {
  public:
    Direction(int from, int to, const Properties &properties, std::uint32_t seed)
        : from_(from), to_(to), delay_(properties.delay),
          octets_per_second_(properties.octets_per_second), lost_(properties.loss), random_(seed) {}

    int from() const { return from_; }

    std::optional<Clock::time_point> next_departure() const {
        return queue_.empty() ? std::nullopt : std::optional(queue_.front().departure);
    }

    // Takes in every frame that waits at the entrance.
    void accept(Properties &cable) {
        std::array<std::byte, largest_frame> frame; // NOLINT(*-member-init): read() fills it
        for (;;) {
            const ssize_t length = ::read(from_, frame.data(), frame.size());
            if (length < 0) {
                // EIO: the device is down, so nothing can come from it.
                if (errno == EAGAIN || errno == EINTR || errno == EIO) {
                    return;
                }
                fail("reading a frame");
            }
            const auto octets = static_cast<std::size_t>(length);
            if (cable.octets_until_cut) {
                *cable.octets_until_cut -= std::min<std::uint64_t>(*cable.octets_until_cut, octets);
                if (*cable.octets_until_cut == 0) {
                    continue;
                }
            }
            if (lost_(random_) || queue_.size() >= queue_frames) {
                continue;
            }
            const auto now = Clock::now();
            sent_ = std::max(sent_, now);
            if (octets_per_second_ > 0) {
                sent_ += std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                    static_cast<double>(octets) / octets_per_second_));
            }
            queue_.push_back({sent_ + delay_, {frame.data(), frame.data() + octets}});
        }
    }

    // Lets out every frame that is due.
    void release(Clock::time_point now) {
        while (!queue_.empty() && queue_.front().departure <= now) {
            const auto &octets = queue_.front().octets;
            // EIO: the device is down; EAGAIN and ENOBUFS: its queue is full. The frame is lost, as
            // on any link.
            if (::write(to_, octets.data(), octets.size()) < 0 && errno != EIO && errno != EAGAIN &&
                errno != ENOBUFS && errno != EINTR) {
                fail("writing a frame");
            }
            queue_.pop_front();
        }
    }

  private:
    struct Frame {
        Clock::time_point departure;
        std::vector<std::byte> octets;
    };

    int from_;
    int to_;
    Clock::duration delay_;
    double octets_per_second_;
    std::bernoulli_distribution lost_;
    std::mt19937 random_;
    Clock::time_point sent_{}; // when the last frame was wholly on the wire
    std::deque<Frame> queue_;
};

void set_alarm(int timer, std::optional<Clock::time_point> when) {
    itimerspec spec{};
    if (when) {
        const auto since_boot = when->time_since_epoch();
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_boot);
        spec.it_value.tv_sec = static_cast<time_t>(seconds.count());
        spec.it_value.tv_nsec =
            static_cast<long>(std::chrono::nanoseconds(since_boot - seconds).count());
    }
    if (::timerfd_settime(timer, TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
        fail("timerfd_settime");
    }
}

[[noreturn]] void carry(const Descriptor &left, const Descriptor &right, Properties cable) {
    const Descriptor timer(::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    if (timer.get() < 0) {
        fail("timerfd_create");
    }
    Direction directions[] = {{left.get(), right.get(), cable, cable.seed},
                              {right.get(), left.get(), cable, cable.seed + 1}};
    pollfd events[] = {{left.get(), POLLIN, 0}, {right.get(), POLLIN, 0}, {timer.get(), POLLIN, 0}};
    for (;;) {
        std::optional<Clock::time_point> alarm;
        for (const Direction &direction : directions) {
            const auto departure = direction.next_departure();
            if (departure && (!alarm || *departure < *alarm)) {
                alarm = departure;
            }
        }
        set_alarm(timer.get(), alarm);
        if (::poll(std::data(events), std::size(events), -1) < 0 && errno != EINTR) {
            fail("poll");
        }
        for (Direction &direction : directions) {
            direction.accept(cable);
            direction.release(Clock::now());
        }
    }
}

template <typename Number>
Number number(std::string_view option, std::string_view text, Number most) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value < Number{} ||
        value > most) {
        throw std::invalid_argument(std::string(option) +
                                    ": not a number in its range: " + std::string(text));
    }
    return value;
}

int run(std::span<char *> words) {
    std::string tun = "/dev/net/tun";
    std::string left;
    std::string right;
    Properties cable;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        const std::string_view option = words[i];
        if (i + 1 == words.size()) {
            throw std::invalid_argument(std::string(option) + " wants a value");
        }
        const std::string_view value = words[i + 1];
        if (option == "--tun") {
            tun = value;
        } else if (option == "--left") {
            left = value;
        } else if (option == "--right") {
            right = value;
        } else if (option == "--delay") {
            cable.delay = std::chrono::microseconds(
                static_cast<std::int64_t>(number<double>(option, value, 60'000) * 1000));
        } else if (option == "--loss") {
            cable.loss = number<double>(option, value, 100) / 100;
        } else if (option == "--rate") {
            cable.octets_per_second = number<double>(option, value, 1e9) * 1000 / 8;
        } else if (option == "--cut-after") {
            cable.octets_until_cut = number<std::uint64_t>(option, value, UINT64_MAX);
        } else if (option == "--seed") {
            cable.seed = number<std::uint32_t>(option, value, UINT32_MAX);
        } else {
            throw std::invalid_argument("unknown option " + std::string(option));
        }
    }
    const Descriptor left_tap = open_tap(tun, left);
    const Descriptor right_tap = open_tap(tun, right);
    std::puts("ready");
    std::fflush(stdout);
    carry(left_tap, right_tap, cable);
}

} // namespace

int main(int argc, char **argv) {
    try {
        return run(std::span(argv, static_cast<std::size_t>(argc)).subspan(1));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "link_relay: %s\n", error.what());
        return 1;
    }
}
