#include "base/state_file.h"

#include "base/ownership.h"
#include "base/posix.h"
#include "base/replaced_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <thread>
#include <utility>

namespace ulmo {
namespace {

// The octets of the lock file that are locked; they need not exist. Everyone queues at the
// turnstile first, so that a steady stream of readers can't keep a writer out.
constexpr off_t turnstile = 0;
constexpr off_t protected_files = 1;

// Locks or unlocks one octet (fcntl(2), l_type). The locks belong to the open file description, so
// threads exclude each other too.
void lock_octet(const UniqueFd &file, const std::filesystem::path &path, off_t octet, short type,
                std::chrono::steady_clock::time_point deadline) {
    struct flock request {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = octet;
    request.l_len = 1;
    // F_OFD_SETLKW has no time limit, and an alarm would disturb the rest of the program.
    constexpr std::chrono::milliseconds first_pause{1};
    constexpr std::chrono::milliseconds longest_pause{10};
    for (auto pause = first_pause; ::fcntl(file.get(), F_OFD_SETLK, &request) != 0;
         pause = std::min(2 * pause, longest_pause)) {
        if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
            throw_errno("cannot lock", path.native());
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            throw_error(ETIMEDOUT, "cannot lock", path.native());
        }
        std::this_thread::sleep_for(pause);
    }
}

// The locks, each with the process that has taken it: a forked process does not hold those of its
// parent, even if it has the descriptor.
struct Held {
    std::mutex mutex;
    std::vector<std::pair<pid_t, int>> locks;
};

Held &all_held() {
    static Held held;
    return held;
}

} // namespace

FileLock::FileLock(const std::filesystem::path &path, Mode mode, std::chrono::milliseconds wait) {
    {
        const ActingAsOwner owner(path.parent_path());
        file_ =
            UniqueFd(check(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600),
                           "cannot open", path.native()));
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    lock_octet(file_, path, turnstile, F_WRLCK, deadline);
    lock_octet(file_, path, protected_files, mode == Mode::shared ? F_RDLCK : F_WRLCK, deadline);
    lock_octet(file_, path, turnstile, F_UNLCK, deadline);
    Held &all = all_held();
    const std::lock_guard guard(all.mutex);
    all.locks.emplace_back(::getpid(), file_.get());
}

FileLock::~FileLock() {
    if (file_) {
        Held &all = all_held();
        const std::lock_guard guard(all.mutex);
        const auto found =
            std::find(all.locks.begin(), all.locks.end(), std::pair(::getpid(), file_.get()));
        if (found != all.locks.end()) {
            all.locks.erase(found);
        }
    }
}

std::vector<int> FileLock::held() {
    Held &all = all_held();
    const std::lock_guard guard(all.mutex);
    std::vector<int> files;
    for (const auto &[process, file] : all.locks) {
        if (process == ::getpid()) {
            files.push_back(file);
        }
    }
    return files;
}

bool is_locked(const std::filesystem::path &path) {
    const UniqueFd file(::open(path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (!file) {
        if (errno == ENOENT) {
            return false;
        }
        throw_errno("cannot open", path.native());
    }
    struct flock request {};
    request.l_type = F_RDLCK;
    request.l_whence = SEEK_SET;
    request.l_start = protected_files;
    request.l_len = 1;
    check(::fcntl(file.get(), F_OFD_GETLK, &request), "cannot look at the lock", path.native());
    return request.l_type != F_UNLCK;
}

UniqueFd open_state_file(const std::filesystem::path &path, std::size_t limit) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file) {
        regular_file_status(file.get(), path.native(), limit);
    } else if (errno != ENOENT) {
        throw_errno("cannot open", path.native());
    }
    return file;
}

std::optional<std::string> read_state_file(const std::filesystem::path &path, std::size_t limit) {
    const UniqueFd file = open_state_file(path, limit);
    return file ? std::optional(read_whole(file.get(), path.native(), limit)) : std::nullopt;
}

void replace_state_file(const std::filesystem::path &path, std::string_view data) {
    ReplacedFile(path, data).commit();
}

void replace_volatile_file(const std::filesystem::path &path, std::string_view data) {
    ReplacedFile(path, data, ReplacedFile::Manner::passing).commit();
}

} // namespace ulmo
