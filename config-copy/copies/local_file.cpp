#include "config-copy/copies/local_file.h"

#include "base/posix.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace config_copy {
namespace {

std::string name_of_source(const std::string &path) {
    return path == standard_stream ? "standard input" : "the file " + path;
}

bool has_changed_since(const struct stat &before, int file) {
    struct stat now {};
    return ::fstat(file, &now) != 0 || now.st_size != before.st_size ||
           now.st_mtim.tv_sec != before.st_mtim.tv_sec ||
           now.st_mtim.tv_nsec != before.st_mtim.tv_nsec;
}

std::string read_source(const std::string &path) {
    ulmo::UniqueFd opened;
    int file = STDIN_FILENO;
    if (path != standard_stream) {
        // A pipe without a writer must not stop us here.
        opened.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        file = opened.get();
    }
    const auto unreadable = [&](int error) {
        return bad_usage(name_of_source(path) + " can't be read: " + std::strerror(error) +
                         (error == ENOENT && path.find_first_of("./") == std::string::npos
                              ? "; nor is it running, startup or a URL"
                              : ""));
    };
    if (file < 0) {
        throw unreadable(errno);
    }
    struct stat before {};
    if (::fstat(file, &before) != 0) {
        throw unreadable(errno);
    }
    std::string content;
    std::array<char, 65536> buffer{};
    for (;;) {
        std::array<pollfd, 2> waited{{{file, POLLIN, 0}, {interrupt_descriptor(), POLLIN, 0}}};
        ::poll(waited.data(), waited.size(), -1);
        if (interrupting_signal() != 0) {
            throw Interrupted{};
        }
        const ssize_t count = ::read(file, buffer.data(), buffer.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (count < 0) {
            throw unreadable(errno);
        }
        if (count == 0) {
            // Half of a configuration can be one, too.
            if (S_ISREG(before.st_mode) && has_changed_since(before, file)) {
                throw bad_usage(name_of_source(path) +
                                " changed while it was read: try again when it is complete");
            }
            return content;
        }
        content.append(buffer.data(), static_cast<std::size_t>(count));
        if (content.size() > largest_local_file) {
            throw bad_usage(name_of_source(path) + " has more than the " +
                            std::to_string(largest_local_file) + " octets that a switch takes");
        }
    }
}

bool has_content(const std::string &path, int file) {
    const ulmo::UniqueFd present(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat one {};
    struct stat other {};
    if (!present || ::fstat(present.get(), &one) != 0 || ::fstat(file, &other) != 0 ||
        one.st_size != other.st_size) {
        return false;
    }
    try {
        return content_of(present.get()) == content_of(file);
    } catch (const std::system_error &) {
        return false; // then it is replaced
    }
}

Failure unwritable(const std::string &path, int error) {
    return {ExitStatus::failed,
            (path == standard_stream ? "standard output" : "the file " + path) +
                " can't be written: " +
                (error == ENOENT ? "its folder does not exist" : std::strerror(error))};
}

} // namespace

ulmo::UniqueFd memory_file() {
    return ulmo::UniqueFd(
        ulmo::check(::memfd_create("configuration", MFD_CLOEXEC), "memfd_create"));
}

ulmo::UniqueFd snapshot(const std::string &path, bool is_replacement) {
    std::string content = read_source(path);
    if (content.empty()) {
        throw bad_usage(name_of_source(path) + " is empty: there is nothing to send");
    }
    if (is_replacement) {
        const std::string first_line = content.substr(0, content.find('\n'));
        if (first_line != replace_line && first_line != std::string(replace_line) + '\r') {
            content.insert(0, std::string(replace_line) + '\n');
        }
    }
    ulmo::UniqueFd memory = memory_file();
    ulmo::write_whole(memory.get(), content, "the copy of " + path);
    return memory;
}

LocalTarget::LocalTarget(std::string path) : path_(std::move(path)) {
    if (path_ == standard_stream) {
        memory_ = memory_file();
        return;
    }
    struct stat status {};
    if (path_.ends_with('/') || (::stat(path_.c_str(), &status) == 0 && !S_ISREG(status.st_mode))) {
        throw bad_usage(path_ + " is a folder or a device: name a file in it, or - for standard "
                                "output");
    }
    try {
        file_.emplace(std::filesystem::absolute(path_), ulmo::ReplacedFile::Manner::unlocked);
    } catch (const std::system_error &error) {
        throw unwritable(path_, error.code().value());
    }
}

int LocalTarget::descriptor() const {
    return file_ ? file_->descriptor() : memory_.get();
}

bool LocalTarget::commit() {
    try {
        if (!file_) {
            ulmo::write_whole(STDOUT_FILENO, content_of(memory_.get()), {});
            return true;
        }
        if (has_content(path_, file_->descriptor())) {
            file_.reset();
            return false;
        }
        file_->finish();
        ulmo::check(::fsync(file_->descriptor())); // a crash must not leave an empty backup
        file_->commit();
        return true;
    } catch (const std::system_error &error) {
        if (path_ == standard_stream && error.code().value() == EPIPE) {
            return true; // the reader has seen enough
        }
        throw unwritable(path_, error.code().value());
    }
}

std::string content_of(int file) {
    std::string content;
    std::array<char, 65536> buffer{};
    for (off_t at = 0;;) {
        const ssize_t count =
            ulmo::check(::pread(file, buffer.data(), buffer.size(), at), "cannot read");
        if (count == 0) {
            return content;
        }
        content.append(buffer.data(), static_cast<std::size_t>(count));
        at += count;
    }
}

} // namespace config_copy
