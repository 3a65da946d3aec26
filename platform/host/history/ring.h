// The ring of records behind evtrace: shared memory that any number of processes write to without locks, and that outlives them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

struct HistoryRecord {
    std::uint64_t time_ns = 0; // CLOCK_REALTIME, since the epoch
    std::uint32_t pid = 0;
    std::uint32_t module_id = 0;
    std::uint32_t subtype = 0;
    std::string text;
};

class HistoryRing {
  public:
    static constexpr std::size_t text_size = 544; // octets of text that a record keeps
    static constexpr std::size_t default_records = 4096;
    static constexpr std::size_t max_records = 1U << 20U;

    // The ring in a file of the caller's own, or of the owner of the folder that it is in, mode 0600, that is made when it is not there.
    // What an earlier ring of the same size holds stays; a file that is anything else (damaged, of another size, open to other users) is
    // replaced by an empty ring. No link is followed. Throws std::system_error.
    static HistoryRing open(const std::filesystem::path &file, std::size_t records);

    // A ring that this process shares with its forked children only. Throws std::system_error.
    static HistoryRing anonymous(std::size_t records);

    // A ring for reading; throws std::system_error, with EBADMSG when the file holds no ring.
    static HistoryRing open_for_reading(const std::filesystem::path &file);

    HistoryRing(HistoryRing &&other) noexcept;
    HistoryRing &operator=(HistoryRing &&other) noexcept;
    ~HistoryRing();

    // Adds a record with the time and the process id of now, cut after text_size octets. Never waits: when a slot's former writer, a whole
    // round behind, is still at it, the record is dropped.
    void write(std::uint32_t module_id, std::uint32_t subtype, std::string_view text) noexcept;

    // Records are numbered in the order of their claim. [begin, end) is what the ring may still hold.
    [[nodiscard]] std::uint64_t begin() const noexcept;
    [[nodiscard]] std::uint64_t end() const noexcept;

    enum class ReadResult {
        done,
        pending, // claimed, and not yet written
        gone,    // overwritten, also while it was being read
    };
    ReadResult read(std::uint64_t number, HistoryRecord &record) const;

    // Whether `file` is (still) the file that this ring lies in.
    [[nodiscard]] bool is_in(const std::filesystem::path &file) const;

  private:
    struct Header;
    struct Slot;

    HistoryRing(void *memory, std::size_t records) noexcept;
    // The number of records of the ring in an open file; nothing when it holds no ring.
    static std::optional<std::size_t> records_in(int descriptor);
    static HistoryRing mapped(int descriptor, std::size_t records, bool writable);

    [[nodiscard]] Header &header() const noexcept { return *static_cast<Header *>(memory_); }
    [[nodiscard]] Slot &slot_of(std::uint64_t number) const noexcept;

    void *memory_ = nullptr;
    std::size_t records_ = 0;
    std::uint64_t device_ = 0;
    std::uint64_t inode_ = 0;
};

} // namespace ulmo
