#include "platform/host/history/ring.h"

#include "base/ownership.h"
#include "base/unique_fd.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <optional>
#include <system_error>
#include <utility>

namespace ulmo {

namespace {

constexpr std::array<char, 8> ring_magic = {'u', 'l', 'm', 'o', 'h', 'i', 's', 't'};
constexpr std::uint32_t ring_version = 1;

// The state word of a slot: number of the record + 1 | pid of its writer | being written. Pids have at most 22 bits (proc(5), pid_max).
constexpr unsigned busy_bits = 1;
constexpr unsigned pid_bits = 22;
constexpr unsigned number_shift = busy_bits + pid_bits;
constexpr std::uint64_t number_limit = std::uint64_t{1} << (63U - number_shift);

constexpr std::uint64_t state_word(std::uint64_t number, std::uint32_t pid, bool busy) {
    return (number + 1) << number_shift | std::uint64_t{pid} << busy_bits | (busy ? 1U : 0U);
}
constexpr bool is_busy(std::uint64_t state) {
    return (state & 1U) != 0;
}
constexpr pid_t pid_of(std::uint64_t state) {
    return static_cast<pid_t>(state >> busy_bits & ((1U << pid_bits) - 1U));
}

// The part of a slot that the state word guards, as it is copied in and out.
struct Body {
    std::uint64_t time_ns;
    std::uint32_t pid;
    std::uint32_t module_id;
    std::uint32_t subtype;
    std::uint32_t length;
    char text[HistoryRing::text_size];
};
using Word = std::uint64_t;
constexpr std::size_t body_words = sizeof(Body) / sizeof(Word);
constexpr std::size_t fixed_octets = offsetof(Body, text);
static_assert(sizeof(Body) % sizeof(Word) == 0 && fixed_octets % sizeof(Word) == 0);

constexpr std::size_t words_for(std::size_t text_length) {
    return (fixed_octets + text_length + sizeof(Word) - 1) / sizeof(Word);
}

std::system_error failure(int code, const std::string &what) {
    return {code, std::generic_category(), what};
}

} // namespace

struct HistoryRing::Header {
    std::array<char, 8> magic;
    std::uint32_t version;
    std::uint32_t slot_size;
    std::uint64_t records;
    std::atomic<std::uint64_t> next; // number of the record that is claimed next
};

struct HistoryRing::Slot {
    std::atomic<std::uint64_t> state;
    std::array<std::atomic<Word>, body_words> body;
};
static_assert(std::atomic<std::uint64_t>::is_always_lock_free && sizeof(std::atomic<Word>) == sizeof(Word));

namespace {

constexpr std::size_t header_room = 64;
constexpr std::size_t slot_size = sizeof(std::uint64_t) + sizeof(Body);

constexpr std::size_t file_size(std::size_t records) {
    return header_room + records * slot_size;
}

// Held against other processes while a ring is made or looked over, which takes microseconds; a logger waits no longer than this.
class MakingLock {
  public:
    explicit MakingLock(int descriptor) : descriptor_(descriptor) {
        for (int attempt = 0; attempt < 50 && !held_; ++attempt) {
            held_ = ::flock(descriptor, LOCK_EX | LOCK_NB) == 0;
            if (!held_) {
                const timespec pause{0, 1'000'000};
                ::nanosleep(&pause, nullptr);
            }
        }
    }
    MakingLock(const MakingLock &) = delete;
    MakingLock &operator=(const MakingLock &) = delete;
    // A mapping keeps the open file, and with it the lock, beyond the close of the descriptor.
    ~MakingLock() { ::flock(descriptor_, LOCK_UN); }

    [[nodiscard]] bool held() const { return held_; }

  private:
    int descriptor_;
    bool held_ = false;
};

bool is_file_at(const std::filesystem::path &file, std::uint64_t device, std::uint64_t inode) {
    struct stat there {};
    return ::lstat(file.c_str(), &there) == 0 && there.st_dev == device && there.st_ino == inode;
}

} // namespace

HistoryRing::HistoryRing(void *memory, std::size_t records) noexcept : memory_(memory), records_(records) {}

HistoryRing::HistoryRing(HistoryRing &&other) noexcept
    : memory_(std::exchange(other.memory_, nullptr)), records_(other.records_), device_(other.device_), inode_(other.inode_) {}

HistoryRing &HistoryRing::operator=(HistoryRing &&other) noexcept {
    std::swap(memory_, other.memory_);
    std::swap(records_, other.records_);
    std::swap(device_, other.device_);
    std::swap(inode_, other.inode_);
    return *this;
}

HistoryRing::~HistoryRing() {
    if (memory_ != nullptr) {
        ::munmap(memory_, file_size(records_));
    }
}

HistoryRing::Slot &HistoryRing::slot_of(std::uint64_t number) const noexcept {
    static_assert(sizeof(Slot) == slot_size && sizeof(Header) <= header_room);
    auto *slots = static_cast<char *>(memory_) + header_room;
    return *static_cast<Slot *>(static_cast<void *>(slots + (number % records_) * slot_size));
}

HistoryRing HistoryRing::mapped(int descriptor, std::size_t records, bool writable) {
    const int flags = descriptor < 0 ? MAP_SHARED | MAP_ANONYMOUS : MAP_SHARED;
    void *memory = ::mmap(nullptr, file_size(records), writable ? PROT_READ | PROT_WRITE : PROT_READ, flags, descriptor, 0);
    if (memory == MAP_FAILED) {
        throw failure(errno, "cannot map the history");
    }
    HistoryRing ring(memory, records);
    if (struct stat status{}; descriptor >= 0 && ::fstat(descriptor, &status) == 0) {
        ring.device_ = status.st_dev;
        ring.inode_ = status.st_ino;
    }
    return ring;
}

std::optional<std::size_t> HistoryRing::records_in(int descriptor) {
    struct stat status {};
    Header header{};
    if (::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) ||
        ::pread(descriptor, static_cast<void *>(&header), sizeof header, 0) != static_cast<ssize_t>(sizeof header)) {
        return std::nullopt;
    }
    const bool valid = header.magic == ring_magic && header.version == ring_version && header.slot_size == slot_size &&
                       header.records > 0 && header.records <= max_records && header.next < number_limit / 2 &&
                       static_cast<std::uint64_t>(status.st_size) == file_size(header.records);
    return valid ? std::optional<std::size_t>(header.records) : std::nullopt;
}

HistoryRing HistoryRing::open(const std::filesystem::path &file, std::size_t records) {
    const ActingAsOwner owner(file.parent_path());
    for (int attempt = 0; attempt < 10; ++attempt) {
        const UniqueFd descriptor(::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
        if (!descriptor && errno == EACCES && ::unlink(file.c_str()) == 0) {
            continue; // another user's
        }
        if (!descriptor) {
            throw failure(errno, file);
        }
        const MakingLock lock(descriptor.get());
        struct stat status {};
        if (!lock.held() || ::fstat(descriptor.get(), &status) != 0) {
            throw failure(errno, file);
        }
        if (!is_file_at(file, status.st_dev, status.st_ino)) {
            continue; // replaced while we waited for it
        }
        const bool is_own = S_ISREG(status.st_mode) && (status.st_uid == ::geteuid() || status.st_uid == owner_of(file.parent_path())) &&
                            (status.st_mode & 0077U) == 0;
        if (is_own && status.st_size == 0) {
            // Room on the disk for all of it: a full disk must not show as SIGBUS in whoever logs.
            if (const int error = ::posix_fallocate(descriptor.get(), 0, static_cast<off_t>(file_size(records))); error != 0) {
                ::unlink(file.c_str());
                throw failure(error, file);
            }
            HistoryRing ring = mapped(descriptor.get(), records, true);
            Header &header = ring.header();
            header.version = ring_version;
            header.slot_size = slot_size;
            header.records = records;
            header.magic = ring_magic;
            return ring;
        }
        if (is_own && records_in(descriptor.get()) == records) {
            return mapped(descriptor.get(), records, true);
        }
        // Others may have the old file mapped: it leaves its name and keeps its size.
        if (::unlink(file.c_str()) != 0) {
            throw failure(errno, file);
        }
    }
    throw failure(EAGAIN, file);
}

HistoryRing HistoryRing::anonymous(std::size_t records) {
    return mapped(-1, records, true);
}

HistoryRing HistoryRing::open_for_reading(const std::filesystem::path &file) {
    const UniqueFd descriptor(::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK));
    if (!descriptor) {
        throw failure(errno, file);
    }
    const auto records = records_in(descriptor.get());
    if (!records) {
        throw failure(EBADMSG, file);
    }
    return mapped(descriptor.get(), *records, false);
}

bool HistoryRing::is_in(const std::filesystem::path &file) const {
    return is_file_at(file, device_, inode_);
}

void HistoryRing::write(std::uint32_t module_id, std::uint32_t subtype, std::string_view text) noexcept {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const auto pid = static_cast<std::uint32_t>(::getpid());

    const std::uint64_t number = header().next.fetch_add(1, std::memory_order_relaxed);
    Slot &slot = slot_of(number);
    const std::uint64_t claimed = state_word(number, pid, true);
    std::uint64_t state = slot.state.load(std::memory_order_relaxed);
    do {
        // A slot that a killed writer left busy is taken over; one of a writer that lives is his.
        const bool is_held = is_busy(state) && (::kill(pid_of(state), 0) == 0 || errno != ESRCH);
        if (is_held || state >= claimed) {
            return;
        }
    } while (!slot.state.compare_exchange_weak(state, claimed, std::memory_order_acquire, std::memory_order_relaxed));
    std::atomic_thread_fence(std::memory_order_release);

    const std::size_t length = std::min(text.size(), text_size);
    Body body{};
    body.time_ns = static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
    body.pid = pid;
    body.module_id = module_id;
    body.subtype = subtype;
    body.length = static_cast<std::uint32_t>(length);
    if (length != 0) {
        std::memcpy(body.text, text.data(), length);
    }
    for (std::size_t i = 0; i < words_for(length); ++i) {
        Word word = 0;
        std::memcpy(&word, static_cast<const char *>(static_cast<const void *>(&body)) + i * sizeof word, sizeof word);
        slot.body[i].store(word, std::memory_order_relaxed);
    }
    slot.state.store(state_word(number, pid, false), std::memory_order_release);
}

std::uint64_t HistoryRing::end() const noexcept {
    return header().next.load(std::memory_order_acquire);
}

std::uint64_t HistoryRing::begin() const noexcept {
    const std::uint64_t last = end();
    return last > records_ ? last - records_ : 0;
}

HistoryRing::ReadResult HistoryRing::read(std::uint64_t number, HistoryRecord &record) const {
    const Slot &slot = slot_of(number);
    const std::uint64_t state = slot.state.load(std::memory_order_acquire);
    const std::uint64_t held = state >> number_shift; // number + 1
    if (held > number + 1) {
        return ReadResult::gone;
    }
    if (held != number + 1 || is_busy(state)) {
        return ReadResult::pending;
    }
    Body body{};
    for (std::size_t i = 0; i < body_words; ++i) {
        const Word word = slot.body[i].load(std::memory_order_relaxed);
        std::memcpy(static_cast<char *>(static_cast<void *>(&body)) + i * sizeof word, &word, sizeof word);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (slot.state.load(std::memory_order_relaxed) != state) {
        return ReadResult::gone;
    }
    record.time_ns = body.time_ns;
    record.pid = body.pid;
    record.module_id = body.module_id;
    record.subtype = body.subtype;
    record.text.assign(body.text, std::min<std::size_t>(body.length, text_size));
    return ReadResult::done;
}

} // namespace ulmo
