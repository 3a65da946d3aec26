#include "config-copy/command_line/password.h"

#include "base/posix.h"
#include "base/unique_fd.h"
#include "config-copy/copy_table.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <system_error>

namespace config_copy {
namespace {

// Reads one line, octet by octet, so that the rest stays for other readers. Stops at an
// interruption, and where the line is too long for a password. Throws std::system_error.
std::string line_of(int descriptor) {
    std::string line;
    while (line.size() <= longest_password + 1) { // that may be a CR
        std::array<pollfd, 2> waited{
            {{descriptor, POLLIN, 0}, {interrupt_descriptor(), POLLIN, 0}}};
        ::poll(waited.data(), waited.size(), -1);
        if (interrupting_signal() != 0) {
            throw Interrupted{};
        }
        char octet = 0;
        const ssize_t count = ::read(descriptor, &octet, 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (ulmo::check(count) == 0 || octet == '\n') {
            break;
        }
        line += octet;
    }
    if (line.ends_with('\r')) {
        line.pop_back();
    }
    return line;
}

// Turns the terminal's echo off while it exists.
class Silence {
  public:
    explicit Silence(int terminal) : terminal_(terminal) {
        ::tcgetattr(terminal_, &before_);
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        ::tcsetattr(terminal_, TCSAFLUSH, &silent);
    }
    Silence(const Silence &) = delete;
    Silence &operator=(const Silence &) = delete;
    ~Silence() { ::tcsetattr(terminal_, TCSAFLUSH, &before_); }

  private:
    int terminal_;
    termios before_{};
};

std::string from_terminal(const std::string &account, bool is_input_taken) {
    const ulmo::UniqueFd terminal(::open("/dev/tty", O_RDWR | O_CLOEXEC));
    if (!terminal) {
        throw bad_usage("no terminal to ask for the password of " + account +
                        ": use --password-file" + (is_input_taken ? "" : " or standard input"));
    }
    const std::string prompt = "Password of " + account + ": ";
    const Silence silence(terminal.get());
    [[maybe_unused]] auto written = ::write(terminal.get(), prompt.data(), prompt.size());
    std::string password;
    try {
        password = line_of(terminal.get());
    } catch (const Interrupted &) {
        written = ::write(terminal.get(), "\n", 1);
        throw;
    }
    written = ::write(terminal.get(), "\n", 1);
    return password;
}

std::string from_file(const std::string &name) {
    const auto unreadable = [&](int error) {
        return bad_usage("the password file " + name + " can't be read: " + std::strerror(error));
    };
    const ulmo::UniqueFd file(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        throw unreadable(errno);
    }
    if (S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        std::cerr << "config-copy: warning: others may read the password file " << name
                  << ": chmod 600 it\n";
    }
    try {
        return line_of(file.get());
    } catch (const std::system_error &error) { // for example a directory
        throw unreadable(error.code().value());
    }
}

std::string from_standard_input() {
    try {
        return line_of(STDIN_FILENO);
    } catch (const std::system_error &error) {
        throw bad_usage("no password can be read from standard input: " + error.code().message());
    }
}

} // namespace

std::string read_password(const std::optional<std::string> &file, const std::string &account,
                          bool may_be_empty, bool is_input_taken) {
    const bool is_standard_input =
        file ? *file == "-" : !is_input_taken && ::isatty(STDIN_FILENO) == 0;
    std::string password = is_standard_input ? from_standard_input()
                           : file            ? from_file(*file)
                                             : from_terminal(account, is_input_taken);
    if (password.empty() && !may_be_empty) {
        throw bad_usage("no password of " + account +
                        (is_standard_input ? " on standard input" : "") +
                        ": give it at the prompt, with --password-file FILE, or on standard input");
    }
    if (password.size() > longest_password) {
        throw bad_usage("the password is longer than the " + std::to_string(longest_password) +
                        " octets that the switch takes");
    }
    return password;
}

} // namespace config_copy
