#include "base/state_file.h"

#include "base/ownership.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>
#include <utility>

namespace ulmo {
namespace {

constexpr mode_t owner_only = 0600;

[[noreturn]] void fail(int error, const std::string &what) {
    throw std::system_error(error, std::generic_category(), what);
}

void check(int result, const char *what, const std::filesystem::path &path) {
    if (result != 0) {
        fail(errno, std::string(what) + " " + path.string());
    }
}

// One fixed name, so that what a killed process left behind is cleared away by the next one.
std::filesystem::path temporary_of(const std::filesystem::path &path) {
    return path.string() + ".new";
}

// The lock file's octets that are locked (none needs to be there). Whoever wants the files waits in the turnstile, so that a steady
// stream of readers cannot keep a writer out.
constexpr off_t turnstile = 0;
constexpr off_t protected_files = 1;

// Locks or unlocks (fcntl(2), l_type) one octet. The locks belong to the open file, so that threads exclude each other as well.
void lock_octet(const UniqueFd &file, const std::filesystem::path &path, off_t octet, short type,
                std::chrono::steady_clock::time_point deadline) {
    struct flock request {};
    request.l_type = type;
    request.l_whence = SEEK_SET;
    request.l_start = octet;
    request.l_len = 1;
    // The waiting call knows no time limit, and an alarm would disturb the program around us.
    constexpr std::chrono::milliseconds first_pause{1};
    constexpr std::chrono::milliseconds longest_pause{10};
    for (auto pause = first_pause; ::fcntl(file.get(), F_OFD_SETLK, &request) != 0; pause = std::min(2 * pause, longest_pause)) {
        if (errno != EAGAIN && errno != EACCES && errno != EINTR) {
            fail(errno, "cannot lock " + path.string());
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fail(ETIMEDOUT, "cannot lock " + path.string());
        }
        std::this_thread::sleep_for(pause);
    }
}

} // namespace

FileLock::FileLock(const std::filesystem::path &path, Mode mode, std::chrono::milliseconds wait) {
    {
        const ActingAsOwner owner(path.parent_path());
        file_ = UniqueFd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, owner_only));
    }
    if (!file_) {
        fail(errno, "cannot open " + path.string());
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    lock_octet(file_, path, turnstile, F_WRLCK, deadline);
    lock_octet(file_, path, protected_files, mode == Mode::shared ? F_RDLCK : F_WRLCK, deadline);
    lock_octet(file_, path, turnstile, F_UNLCK, deadline);
}

namespace {

// The size of a regular file, in octets.
std::size_t checked_size(const UniqueFd &file, const std::filesystem::path &path, std::size_t limit) {
    struct stat status {};
    check(::fstat(file.get(), &status), "cannot read", path);
    if (!S_ISREG(status.st_mode)) {
        fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, "not a regular file: " + path.string());
    }
    if (static_cast<std::uintmax_t>(status.st_size) > limit) {
        fail(EFBIG, path.string() + " is larger than " + std::to_string(limit) + " octets");
    }
    return static_cast<std::size_t>(status.st_size);
}

} // namespace

std::string read_whole(const UniqueFd &file, const std::filesystem::path &path, std::size_t limit) {
    std::string content(checked_size(file, path, limit), '\0');
    std::size_t length = 0;
    while (length < content.size()) {
        const ssize_t count = ::read(file.get(), content.data() + length, content.size() - length);
        if (count < 0 && errno != EINTR) {
            fail(errno, "cannot read " + path.string());
        }
        if (count == 0) {
            break;
        }
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    content.resize(length);
    return content;
}

UniqueFd open_state_file(const std::filesystem::path &path, std::size_t limit) {
    UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file) {
        checked_size(file, path, limit);
    } else if (errno != ENOENT) {
        fail(errno, "cannot open " + path.string());
    }
    return file;
}

std::optional<std::string> read_state_file(const std::filesystem::path &path, std::size_t limit) {
    const UniqueFd file = open_state_file(path, limit);
    return file ? std::optional(read_whole(file, path, limit)) : std::nullopt;
}

void write_whole(const UniqueFd &file, const std::filesystem::path &path, std::string_view data) {
    while (!data.empty()) {
        const ssize_t count = ::write(file.get(), data.data(), data.size());
        if (count < 0 && errno != EINTR) {
            fail(errno, "cannot write " + path.string());
        }
        data.remove_prefix(count > 0 ? static_cast<std::size_t>(count) : 0);
    }
}

PendingFile::PendingFile(std::filesystem::path path, std::string_view data, bool lasting) : path_(std::move(path)), lasting_(lasting) {
    const ActingAsOwner owner(path_.parent_path());
    const std::filesystem::path temporary = temporary_of(path_);
    if (::unlink(temporary.c_str()) != 0 && errno != ENOENT) {
        fail(errno, "cannot remove " + temporary.string());
    }
    file_ = UniqueFd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, owner_only));
    if (!file_) {
        fail(errno, "cannot make " + temporary.string());
    }
    try {
        check(::fchmod(file_.get(), owner_only), "cannot protect", temporary);
        write_whole(file_, temporary, data);
        if (lasting_) {
            check(::fsync(file_.get()), "cannot sync", temporary);
        }
    } catch (...) {
        ::unlink(temporary.c_str()); // there is no object yet that would do it
        throw;
    }
}

PendingFile::~PendingFile() {
    if (file_) {
        const ActingAsOwner owner(path_.parent_path());
        ::unlink(temporary_of(path_).c_str());
    }
}

void PendingFile::commit() {
    const std::filesystem::path directory_path = path_.parent_path();
    const ActingAsOwner owner(directory_path);
    const UniqueFd directory(::open(directory_path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) {
        fail(errno, "cannot open " + directory_path.string());
    }
    check(std::rename(temporary_of(path_).c_str(), path_.c_str()), "cannot rename to", path_);
    file_ = UniqueFd();
    if (lasting_) {
        check(::fsync(directory.get()), "cannot sync", directory_path);
    }
}

void replace_state_file(const std::filesystem::path &path, std::string_view data) {
    PendingFile(path, data).commit();
}

void replace_volatile_file(const std::filesystem::path &path, std::string_view data) {
    constexpr bool lasting = false;
    PendingFile(path, data, lasting).commit();
}

} // namespace ulmo
