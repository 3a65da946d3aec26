#include "platform/host/history/history.h"

#include "base/folders.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/unique_fd.h"
#include "platform/evtrace.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>

namespace ulmo {
namespace {

constexpr std::size_t longest_text = 544;
// An attempt fails only if another process replaces the file at that very moment.
constexpr int most_attempts = 10;

// False once the file has been renamed or removed.
bool is_written_to(const struct stat &status) {
    return status.st_mode == (S_IFREG | 0600U) && status.st_nlink == 1;
}

bool is_at(const std::filesystem::path &file, const struct stat &status) {
    struct stat there {};
    return ::lstat(file.c_str(), &there) == 0 && there.st_dev == status.st_dev &&
           there.st_ino == status.st_ino;
}

// Renames or removes the file that `open` refers to, unless its name has already passed to another
// file. If the lock is taken, its holder does this. Returns whether `open` no longer has this name.
bool retire(const UniqueFd &open, const struct stat &status, const std::filesystem::path &file,
            bool is_kept) {
    if (::flock(open.get(), LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    bool is_done = !is_at(file, status);
    if (!is_done && is_kept && ::rename(file.c_str(), older_history_file().c_str()) == 0) {
        is_done = true;
        ::fchmod(open.get(), 0400); // tells other processes that have it open
    }
    is_done = is_done || ::unlink(file.c_str()) == 0;
    ::flock(open.get(), LOCK_UN); // explicitly: a child just forked shares the descriptor
    return is_done;
}

// Opens the file to append to and gets its status. It is below the limit, unless it could not be
// renamed. The run directory is created only for a process's first record there; if it has been
// removed since, it stays removed.
UniqueFd opened(std::size_t limit, bool makes_folder, struct stat &status) {
    const std::filesystem::path file = history_file();
    const ActingAsOwner owner(file.parent_path());
    constexpr int flags =
        O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        UniqueFd open(::open(file.c_str(), flags, 0600));
        if (!open) {
            if (errno == ENOENT && makes_folder && attempt == 0) {
                run_dir();
            } else if (errno != EACCES || ::unlink(file.c_str()) != 0) { // another user's file
                throw_errno("history");
            }
            continue;
        }
        check(::fstat(open.get(), &status), "history");
        const bool is_own =
            is_written_to(status) &&
            (status.st_uid == ::geteuid() || status.st_uid == owner_of(file.parent_path()));
        if (!is_own) {
            retire(open, status, file, false);
        } else if (static_cast<std::size_t>(status.st_size) < limit ||
                   !retire(open, status, file, true)) {
            return open;
        }
    }
    throw_error(EAGAIN, "history");
}

// The file that a thread last appended to. It stays open because opening takes longer than
// appending.
class LastFile {
  public:
    void append(std::string_view line, std::size_t limit) {
        for (int attempt = 0; attempt < most_attempts; ++attempt) {
            const struct stat before = make_ready(limit);
            const ssize_t written =
                check(::write(open_.get(), line.data(), line.size()), "history");
            struct stat after {};
            ::fstat(open_.get(), &after);
            if (static_cast<std::size_t>(written) != line.size()) {
                // The disk became full in mid-line: the next record must not continue this line.
                if (after.st_size == before.st_size + written) {
                    (void)!::ftruncate(open_.get(), before.st_size);
                }
                throw_error(ENOSPC, "history");
            }
            // If the file has been renamed meanwhile, the line is kept all the same. If it has been
            // renamed twice, the line is gone with the file.
            if (after.st_nlink != 0) {
                return;
            }
        }
        throw_error(EAGAIN, "history");
    }

  private:
    struct stat make_ready(std::size_t limit) {
        const std::size_t folder = std::filesystem::hash_value(run_path());
        struct stat status {};
        if (::fstat(open_.get(), &status) != 0 || status.st_dev != device_ ||
            status.st_ino != inode_) {
            // A forked child that closed all its descriptors closed this one too, and its number
            // may now be that of another file.
            open_.release();
        } else if (is_written_to(status) && static_cast<std::size_t>(status.st_size) < limit &&
                   folder_ == folder) {
            return status;
        }
        open_ = opened(limit, folder_ != folder, status);
        folder_ = folder;
        device_ = status.st_dev;
        inode_ = status.st_ino;
        return status;
    }

    UniqueFd open_;
    // a hash: a string would already be destroyed when the end of the process is logged
    std::size_t folder_ = 0;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

std::string escaped(std::string_view text) {
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        if (c == '\\') {
            line += "\\\\";
        } else if (c >= ' ' && c <= '~') {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else {
            constexpr std::string_view digits = "0123456789abcdef";
            const auto octet = static_cast<unsigned char>(c);
            line += {'\\', 'x', digits[octet >> 4U], digits[octet & 0xFU]};
        }
    }
    return line;
}

} // namespace

std::filesystem::path history_file() {
    return run_path() / "history.log";
}

std::filesystem::path older_history_file() {
    return run_path() / "history.log.1";
}

std::string history_line(std::uint32_t subtype, std::string_view text) {
    const auto now =
        std::chrono::floor<std::chrono::microseconds>(std::chrono::system_clock::now());
    const auto day = std::chrono::floor<std::chrono::days>(now);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(now - day);
    std::array<char, 80> start{};
    const int length = std::snprintf(
        start.data(), start.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ %d ",
        static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
        static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
        static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
        static_cast<int>(time.subseconds().count()), static_cast<int>(::getpid()));
    const std::string kind = subtype == EVTRACE_ERROR   ? "error"
                             : subtype == EVTRACE_DEBUG ? "debug"
                                                        : std::to_string(subtype);
    text = text.substr(0, longest_text);
    text = text.substr(0, text.find_last_not_of("\r\n") + 1);
    return std::string(start.data(), static_cast<std::size_t>(length)) + kind + ' ' +
           escaped(text) + '\n';
}

void append_to_history(std::string_view line, std::size_t limit) {
    // one for each thread: no lock, which a fork would copy in its locked state
    thread_local LastFile file;
    file.append(line, limit);
}

} // namespace ulmo
