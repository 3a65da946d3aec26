#include "base/replaced_file.h"

#include "base/ownership.h"
#include "base/posix.h"
#include "base/text.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

namespace ulmo {
namespace {

// Clears the name if the file has none. Not every file system has such files.
UniqueFd made_under_no_name(std::filesystem::path &temporary, const std::filesystem::path &path) {
    UniqueFd nameless(::open(path.parent_path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (nameless) {
        temporary.clear();
        return nameless;
    }
    std::string name = path.parent_path() / ".new-XXXXXX";
    UniqueFd file(check(::mkostemp(name.data(), O_CLOEXEC), "cannot make", path.native()));
    temporary = name;
    return file;
}

// Gives a file without a name a temporary one in the folder.
std::filesystem::path named(const UniqueFd &file, const std::filesystem::path &folder) {
    const std::string itself = "/proc/self/fd/" + std::to_string(file.get());
    for (;;) {
        std::array<char, 8> octets{};
        check(::getrandom(octets.data(), octets.size(), 0), "getrandom");
        std::filesystem::path name = folder / (".new-" + in_hex({octets.data(), octets.size()}));
        if (::linkat(AT_FDCWD, itself.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            return name;
        }
        if (errno != EEXIST) {
            throw_errno("cannot make", name.native());
        }
    }
}

std::filesystem::path fixed_name(const std::filesystem::path &path) {
    return path.native() + ".new";
}

UniqueFd made_under_fixed_name(const std::filesystem::path &temporary,
                               const std::filesystem::path &path) {
    if (::unlink(temporary.c_str()) != 0 && errno != ENOENT) {
        throw_errno("cannot remove", temporary.native());
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    return UniqueFd(check(::open(temporary.c_str(), flags, 0600), "cannot make", path.native()));
}

} // namespace

ReplacedFile::ReplacedFile(std::filesystem::path path, Manner manner)
    : path_(std::move(path)), temporary_(fixed_name(path_)), manner_(manner) {
    const ActingAsOwner owner(path_.parent_path());
    file_ = manner_ == Manner::unlocked ? made_under_no_name(temporary_, path_)
                                        : made_under_fixed_name(temporary_, path_);
}

ReplacedFile::ReplacedFile(std::filesystem::path path, std::string_view content, Manner manner)
    : ReplacedFile(std::move(path), manner) {
    append(content);
    finish();
}

ReplacedFile::~ReplacedFile() {
    if (file_ && !temporary_.empty()) {
        const ActingAsOwner owner(path_.parent_path());
        ::unlink(temporary_.c_str());
    }
}

void ReplacedFile::remove_leftover(const std::filesystem::path &path) {
    const ActingAsOwner owner(path.parent_path());
    ::unlink(fixed_name(path).c_str()); // on a disk that is read-only it stays
}

void ReplacedFile::append(std::string_view data) {
    write_whole(file_.get(), data, path_.native());
}

void ReplacedFile::finish() {
    // Independent of the umask.
    check(::fchmod(file_.get(), 0600), "cannot protect", path_.native());
    if (manner_ == Manner::lasting) {
        check(::fsync(file_.get()), "cannot sync", path_.native());
    }
}

void ReplacedFile::commit() {
    const std::filesystem::path folder = path_.parent_path();
    const ActingAsOwner owner(folder);
    UniqueFd directory;
    // Opened before the rename, so that a failure here leaves the old file in place.
    if (manner_ == Manner::lasting) {
        constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        directory = UniqueFd(check(::open(folder.c_str(), flags), "cannot open", folder.native()));
    }
    if (temporary_.empty()) {
        temporary_ = named(file_, folder);
    }
    check(std::rename(temporary_.c_str(), path_.c_str()), "cannot rename to", path_.native());
    file_.reset();
    if (directory) {
        check(::fsync(directory.get()), "cannot sync", folder.native());
    }
}

} // namespace ulmo
