#include "platform/host/device/frr_startup.h"

#include "base/c_boundary.h"
#include "base/number.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/replaced_file.h"
#include "base/state_file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "platform/host/device/configuration_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace ulmo {
namespace {

// Stays the same when the file is renamed; empty if there is none.
std::string identity_of(const std::filesystem::path &file) {
    struct stat status {};
    if (::lstat(file.c_str(), &status) != 0) {
        return {};
    }
    return std::to_string(status.st_ino) + '.' + std::to_string(status.st_mtim.tv_sec) + '.' +
           std::to_string(status.st_mtim.tv_nsec);
}

// Whether FRR has written all of it, or someone else has. FRR begins each file with the header and
// ends it with a comment. A power failure and a full disk cut it off at the end of a block, or
// leave zeros. A whole file may end there, too, but rarely does.
bool is_whole(const FrrStartup::File &file) {
    constexpr std::size_t block = 512;
    const std::string &text = file.text;
    const bool is_frrs =
        frr_header.starts_with(std::string_view(text).substr(0, frr_header.size()));
    return text.find('\0') == std::string::npos &&
           (!is_frrs || (!file.is_open && text.ends_with("!\n") && text.size() % block != 0));
}

void sync_folder(const std::string &folder) {
    const UniqueFd file(check(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), folder));
    check(::fsync(file.get()), folder);
}

} // namespace

// A save that has begun: if it did not end, the file is the former one, the new one, a part of the
// new one, or missing.
struct FrrStartup::Save {
    std::optional<std::string> former;
    std::string replaced; // identity_of() the file that FRR was to replace; empty if not known

    [[nodiscard]] bool is_former(const std::optional<File> &file) const {
        return file ? file->text == former : !former;
    }
};

FrrStartup::FrrStartup(std::filesystem::path file, std::filesystem::path journal)
    : file_(std::move(file)), journal_(std::move(journal)) {}

bool FrrStartup::is_open(const struct stat &status) const {
    return S_ISREG(status.st_mode) && status.st_uid == 0 &&
           owner_of(file_.parent_path()).value_or(0) != 0;
}

std::optional<FrrStartup::File> FrrStartup::stored() const {
    for (bool is_again = false;; is_again = true) {
        struct stat status {};
        UniqueFd file;
        try {
            file = open_state_file(file_, configuration_text_limit);
        } catch (const std::system_error &error) {
            if (error.code() != std::errc::permission_denied) {
                throw;
            }
            if (::lstat(file_.c_str(), &status) == 0 && is_open(status)) {
                return File{{}, true};
            }
            if (!is_again) { // FRR may have finished it in between
                continue;
            }
            throw std::runtime_error("this user may not read " + file_.string() +
                                     ": install config-copy-mib-frr, or add it to the group frr");
        }
        if (!file) {
            return std::nullopt;
        }
        // The owner before the text: what is not open any more does not change.
        check(::fstat(file.get(), &status), "cannot read", file_.native());
        return File{read_whole(file.get(), file_.native(), configuration_text_limit),
                    is_open(status)};
    }
}

std::optional<std::string> FrrStartup::text() const {
    constexpr std::chrono::milliseconds pause{20};
    constexpr int most_pauses = 100;
    for (int pauses = 0;; ++pauses) {
        auto file = stored();
        if (is_torn(file)) {
            return begun_save()->former;
        }
        if (!file) {
            return std::nullopt;
        }
        if (!file->is_open || is_whole(*file)) {
            return std::move(file->text);
        }
        // An administrator saves at FRR's own shell, or has put a file there as root.
        if (pauses == most_pauses) {
            return read_state_file(file_, configuration_text_limit);
        }
        std::this_thread::sleep_for(pause);
    }
}

// The journal: the size of the former text (-1 if there was no file), a blank, the identity of the
// file, a line end, and that text. Earlier versions did not name the file, and added the new text.
std::optional<FrrStartup::Save> FrrStartup::begun_save() const {
    const ActingAsOwner owner(journal_.parent_path());
    const auto content = read_state_file(journal_, 2 * configuration_text_limit + 64);
    if (!content) {
        return std::nullopt;
    }
    const std::size_t end = std::min(content->find('\n'), content->size());
    const std::string_view head = std::string_view(*content).substr(0, end);
    const std::size_t blank = std::min(head.find(' '), head.size());
    const auto size = parsed_number<long>(head.substr(0, blank));
    if (!size || *size > static_cast<long>(content->size() - end - 1)) {
        return std::nullopt; // it did not begin
    }
    Save save{{}, std::string(trimmed(head.substr(blank)))};
    if (*size >= 0) {
        save.former = content->substr(end + 1, static_cast<std::size_t>(*size));
    }
    return save;
}

void FrrStartup::begin_save() const {
    const auto former = text();
    const std::string size = former ? std::to_string(former->size()) : "-1";
    replace_state_file(journal_, size + " " + identity_of(file_) + "\n" + former.value_or(""));
}

void FrrStartup::end_save() const {
    sync_folder(file_.parent_path()); // watchfrr has synced the file, but not its name
    if (::unlink(journal_.c_str()) == 0) {
        sync_folder(journal_.parent_path());
    }
}

bool FrrStartup::has_begun_save() const {
    return ::access(journal_.c_str(), F_OK) == 0;
}

bool FrrStartup::is_torn(const std::optional<File> &file) const {
    const auto save = begun_save();
    return save && !save->is_former(file) && !(file && is_whole(*file)) &&
           (save->replaced.empty() || save->replaced == identity_of(replaced_file()) ||
            save->replaced == identity_of(file_)); // left by an earlier save
}

bool FrrStartup::space_is_scarce() const {
    constexpr std::uint64_t plenty = std::uint64_t{64} << 20; // no one fills so much during a save
    struct statvfs disk {};
    check(::statvfs(file_.parent_path().c_str(), &disk), "cannot look at the disk of",
          file_.native());
    return std::uint64_t{disk.f_bfree} * disk.f_frsize < plenty;
}

void FrrStartup::tidy() const {
    ReplacedFile::remove_leftover(journal_);
    const auto save = begun_save();
    const auto file = save ? stored() : std::nullopt;
    // If the file is still the former one, FRR may be about to write.
    if (save && !save->is_former(file) && !is_torn(file)) {
        end_save();
    }
}

bool FrrStartup::mend() const {
    const bool was_torn = has_begun_save() && is_torn(stored());
    if (was_torn) {
        if (const auto former = begun_save()->former) {
            put_back(*former);
        } else {
            check(::unlink(file_.c_str()), "cannot remove", file_.native());
        }
    }
    end_save();
    return was_torn;
}

// Replaces the file in one step, with the owner and the mode of the former one, which FRR has moved
// away.
void FrrStartup::put_back(const std::string &former) const {
    constexpr mode_t permissions = 0777;
    constexpr mode_t packaged = 0640;
    struct stat like {};
    if ((::lstat(replaced_file().c_str(), &like) != 0 || !S_ISREG(like.st_mode)) &&
        (::lstat(file_.c_str(), &like) != 0 || !S_ISREG(like.st_mode))) {
        check(::stat(file_.parent_path().c_str(), &like), "cannot find", file_.native());
        like.st_mode = packaged;
    }
    ReplacedFile file(file_, former);
    check(::fchown(file.descriptor(), like.st_uid, like.st_gid), "cannot give away",
          file_.native());
    check(::fchmod(file.descriptor(), like.st_mode & permissions), "cannot protect",
          file_.native());
    file.commit();
}

} // namespace ulmo
