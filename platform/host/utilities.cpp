#include "platform/utilities.h"

#include "platform/host/copy_report.h"
#include "platform/host/host_log.h"
#include "platform/host/last_error.h"
#include "platform/host/unique_fd.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <iterator>
#include <system_error>
#include <vector>

namespace ulmo {
namespace {

// --- running a program ---

class FileActions {
  public:
    FileActions() { check(posix_spawn_file_actions_init(&actions_)); }
    FileActions(const FileActions &) = delete;
    FileActions &operator=(const FileActions &) = delete;
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }

    void duplicate(int from, int to) { check(posix_spawn_file_actions_adddup2(&actions_, from, to)); }
    void open_null(int as) { check(posix_spawn_file_actions_addopen(&actions_, as, "/dev/null", O_RDWR, 0)); }
    void close_from(int lowest) { check(posix_spawn_file_actions_addclosefrom_np(&actions_, lowest)); }
    [[nodiscard]] const posix_spawn_file_actions_t *get() const { return &actions_; }

  private:
    static void check(int error) {
        if (error != 0) {
            throw std::system_error(error, std::generic_category());
        }
    }
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    // The program begins with no signal blocked and every disposition at its default, whatever its parent has made of them.
    SpawnAttributes() {
        posix_spawnattr_init(&attributes_);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    SpawnAttributes(const SpawnAttributes &) = delete;
    SpawnAttributes &operator=(const SpawnAttributes &) = delete;
    ~SpawnAttributes() { posix_spawnattr_destroy(&attributes_); }

    [[nodiscard]] const posix_spawnattr_t *get() const { return &attributes_; }

  private:
    posix_spawnattr_t attributes_{};
};

// Starts argv[0] with these standard streams. Returns 0 or an errno value.
int spawn(pid_t &pid, const std::array<int, 3> &streams, char *const *argv) {
    constexpr int first_other = 3;
    FileActions actions;
    std::array<UniqueFd, 3> copies;
    for (int stream = 0; stream < first_other; ++stream) {
        const auto index = static_cast<std::size_t>(stream);
        const int given = streams[index];
        if (given >= 0) {
            // A copy above the standard streams: the given one may itself be a stream that an earlier action has replaced.
            copies[index] = UniqueFd(::fcntl(given, F_DUPFD_CLOEXEC, first_other));
            if (!copies[index]) {
                return errno;
            }
            actions.duplicate(copies[index].get(), stream);
        } else if (::fcntl(stream, F_GETFD) >= 0) {
            actions.duplicate(stream, stream); // takes close-on-exec off
        } else {
            actions.open_null(stream); // or the program's first file would become its standard stream
        }
    }
    actions.close_from(first_other);
    const SpawnAttributes attributes;
    return ::posix_spawn(&pid, argv[0], actions.get(), attributes.get(), argv, environ);
}

int run_and_wait(const std::array<int, 3> &streams, std::vector<char *> &argv) {
    pid_t pid = -1;
    if (const int error = spawn(pid, streams, argv.data()); error != 0) {
        errno = error;
        return -1;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) {
            return -1;
        }
    }
    if (WIFSIGNALED(status)) {
        errno = EINTR;
        return -WTERMSIG(status);
    }
    return status;
}

// --- status codes ---

struct StatusText {
    std::uint32_t code;
    const char *text;
};

constexpr StatusText status_texts[] = {
    {0x00000000U, "success"},
    {0x401E0003U, "configuration action initiated"},
    {0x401E0010U, "the file can't be read or is no configuration"},
    {0x401E0011U, "a line of the startup configuration is not valid"},
    {0x401E0012U, "the startup configuration could not be stored"},
    {0x401E0013U, "another configuration action is in progress"},
    {0x401E0014U, "not every switch of the fabric has saved"},
    {0x401E0015U, "the system manager does not know this request"},
    {0x401E0016U, "the configuration action was given up"},
    {0x40490001U, "the operation failed"},
    {0x40490002U, "no such entry"},
    {0x40490009U, "the message could not be sent"},
    {0x40490049U, "another copy is in progress"},
    {0x4049004AU, "only the running configuration can be copied to the startup configuration of the fabric"},
    {0x4049004BU, "source and destination are both network files"},
    {0x4049004CU, "a network file can't be copied to the startup configuration"},
    {0x4049004DU, "source and destination are the same"},
    {0x4049005BU, "only the running configuration can be copied to all startup configurations"},
    {0x40540001U, "the configuration could not be applied"},
    {0x40540002U, "the file can't be read or is no configuration"},
    {0x40540003U, "the shell refused a line of the configuration"},
};
constexpr std::uint32_t family_mask = 0xFFFF0000U;
constexpr std::uint32_t system_manager_family = 0x401E0000U;

const char *known_text(std::uint32_t code) {
    const auto *const found =
        std::find_if(std::begin(status_texts), std::end(status_texts), [code](const StatusText &entry) { return entry.code == code; });
    return found == std::end(status_texts) ? nullptr : found->text;
}

using StatusBuffer = std::array<char, 128>;

const char *other_text(std::uint32_t code, StatusBuffer &buffer) {
    const char *family = (code & family_mask) == system_manager_family ? "system manager" : "unknown";
    std::snprintf(buffer.data(), buffer.size(), "%s status 0x%08x", family, code);
    return buffer.data();
}

const char *text_with_code(std::uint32_t code, StatusBuffer &buffer) {
    const char *known = known_text(code);
    if (known == nullptr) {
        return other_text(code, buffer); // which shows the code
    }
    std::snprintf(buffer.data(), buffer.size(), "%s (0x%08x)", known, code);
    return buffer.data();
}

// --- last errors ---

std::array<LastError, last_errors_kept> error_ring;
std::size_t error_count = 0; // of all that were ever recorded

} // namespace

std::vector<LastError> last_errors() {
    std::vector<LastError> errors;
    for (std::size_t i = error_count - std::min(error_count, last_errors_kept); i < error_count; ++i) {
        errors.push_back(error_ring[i % last_errors_kept]);
    }
    return errors;
}

std::optional<std::uint32_t> last_error_code() {
    return error_count == 0 ? std::nullopt : std::optional<std::uint32_t>(error_ring[(error_count - 1) % last_errors_kept].code);
}

} // namespace ulmo

int execute_program_and_wait_redirect(int in_fd, int out_fd, int err_fd, const char *program, ...) {
    if (program == nullptr) {
        errno = EINVAL;
        return -1;
    }
    try {
        // The argument vector is declared for writing (execve(2)), and not written.
        std::vector<char *> argv{const_cast<char *>(program)};
        std::va_list arguments;
        va_start(arguments, program);
        do {
            argv.push_back(va_arg(arguments, char *));
        } while (argv.back() != nullptr);
        va_end(arguments);
        const int status = ulmo::run_and_wait({in_fd, out_fd, err_fd}, argv);
        ulmo::report_named_file();
        return status;
    } catch (const std::exception &) {
        errno = ENOMEM;
        return -1;
    }
}

void log_set_error(uint32_t code, uint32_t facility) {
    ulmo::error_ring[ulmo::error_count++ % ulmo::last_errors_kept] = {code, facility, std::time(nullptr)};
    ulmo::StatusBuffer buffer;
    ulmo::log_error("request refused: %s, facility %u", ulmo::text_with_code(code, buffer), facility);
}

const char *syserr2str(uint32_t code) {
    static ulmo::StatusBuffer buffer;
    const char *known = ulmo::known_text(code);
    return known != nullptr ? known : ulmo::other_text(code, buffer);
}

const char *syserr_format(uint32_t code) {
    static ulmo::StatusBuffer buffer;
    return ulmo::text_with_code(code, buffer);
}
