// count_sync: preloaded into a program (LD_PRELOAD), records the order in which the program writes
// files to the disk.
//
// Appends a line to the file $COUNT_SYNC_LOG for each call that opened a file for writing, wrote to
// one, synced, renamed or removed one, by this process or by its children: "open PATH", "write
// PATH", "sync PATH", "rename OLD NEW", "remove PATH". Only paths below the directory
// $COUNT_SYNC_ROOT are recorded, and only calls that succeeded.
// It replaces both open() and open64().
#undef _FILE_OFFSET_BITS

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <string>

namespace {

bool is_of_interest(const std::string &path) {
    const char *root = std::getenv("COUNT_SYNC_ROOT");
    return root != nullptr && (path == root || path.rfind(std::string(root) + "/", 0) == 0);
}

// Uses system calls directly: the functions below would record this write, too.
void note(const std::string &line) {
    const char *log = std::getenv("COUNT_SYNC_LOG");
    if (log == nullptr) {
        return;
    }
    const int saved_errno = errno;
    const long file =
        ::syscall(SYS_openat, AT_FDCWD, log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::syscall(SYS_write, file, (line + "\n").data(), line.size() + 1) !=
                        static_cast<long>(line.size()) + 1) {
        std::abort(); // a log with gaps would prove nothing
    }
    ::syscall(SYS_close, file);
    errno = saved_errno;
}

std::string path_of(int file) {
    std::array<char, PATH_MAX> path{};
    const ssize_t length =
        ::readlink(("/proc/self/fd/" + std::to_string(file)).c_str(), path.data(), path.size());
    return {path.data(), length > 0 ? static_cast<std::size_t>(length) : 0};
}

template <typename Result> Result noted(Result result, const char *call, const std::string &path) {
    if (result >= 0 && is_of_interest(path)) {
        note(std::string(call) + " " + path);
    }
    return result;
}

template <typename Function> Function *next(Function * /*own*/, const char *name) {
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

int noted_open(int file, int flags) {
    return (flags & O_ACCMODE) == O_RDONLY || file < 0 ? file : noted(file, "open", path_of(file));
}

int noted_rename(int result, const char *from, const char *to) {
    if (result == 0 && (is_of_interest(from) || is_of_interest(to))) {
        note(std::string("rename ") + from + " " + to);
    }
    return result;
}

// The third argument of open(2), the mode, if the flags call for one.
mode_t mode_in(int flags, std::va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

extern "C" {

int open(const char *path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    return noted_open(next(open, "open")(path, flags, mode), flags);
}

int open64(const char *path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    return noted_open(next(open64, "open64")(path, flags, mode), flags);
}

int openat(int directory, const char *path, int flags, ...) {
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = mode_in(flags, arguments);
    va_end(arguments);
    return noted_open(next(openat, "openat")(directory, path, flags, mode), flags);
}

ssize_t write(int file, const void *data, size_t length) {
    return noted(next(write, "write")(file, data, length), "write", path_of(file));
}

ssize_t pwrite(int file, const void *data, size_t length, off_t offset) {
    return noted(next(pwrite, "pwrite")(file, data, length, offset), "write", path_of(file));
}

ssize_t writev(int file, const iovec *parts, int count) {
    return noted(next(writev, "writev")(file, parts, count), "write", path_of(file));
}

int ftruncate(int file, off_t length) noexcept {
    return noted(next(ftruncate, "ftruncate")(file, length), "write", path_of(file));
}

int fsync(int file) {
    return noted(next(fsync, "fsync")(file), "sync", path_of(file));
}

int fdatasync(int file) {
    return noted(next(fdatasync, "fdatasync")(file), "sync", path_of(file));
}

int rename(const char *from, const char *to) noexcept {
    return noted_rename(next(rename, "rename")(from, to), from, to);
}

int renameat(int from_directory, const char *from, int to_directory, const char *to) noexcept {
    return noted_rename(next(renameat, "renameat")(from_directory, from, to_directory, to), from,
                        to);
}

int unlink(const char *path) noexcept {
    return noted(next(unlink, "unlink")(path), "remove", path);
}
}
