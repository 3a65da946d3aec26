#include "base/process.h"

#include "base/posix.h"
#include "base/unique_fd.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace ulmo {
namespace {

class FileActions {
  public:
    FileActions() { require(posix_spawn_file_actions_init(&actions_)); }
    FileActions(const FileActions &) = delete;
    FileActions &operator=(const FileActions &) = delete;
    ~FileActions() { posix_spawn_file_actions_destroy(&actions_); }

    void duplicate(int from, int to) {
        require(posix_spawn_file_actions_adddup2(&actions_, from, to));
    }
    void open_null(int as) {
        require(posix_spawn_file_actions_addopen(&actions_, as, "/dev/null", O_RDWR, 0));
    }
    void close_from(int lowest) {
        require(posix_spawn_file_actions_addclosefrom_np(&actions_, lowest));
    }
    [[nodiscard]] const posix_spawn_file_actions_t *get() const { return &actions_; }

  private:
    static void require(int error) {
        if (error != 0) {
            throw_error(error);
        }
    }
    posix_spawn_file_actions_t actions_{};
};

class SpawnAttributes {
  public:
    // The program starts with no signal blocked and every disposition at its default, whatever the
    // parent's are.
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
            // Duplicate above the standard streams first: an earlier action may already have
            // replaced the given descriptor, if it is itself a standard stream.
            copies[index] = UniqueFd(::fcntl(given, F_DUPFD_CLOEXEC, first_other));
            if (!copies[index]) {
                return errno;
            }
            actions.duplicate(copies[index].get(), stream);
        } else if (::fcntl(stream, F_GETFD) >= 0) {
            actions.duplicate(stream, stream); // clears close-on-exec
        } else {
            // Otherwise the first file that the program opens would become this standard stream.
            actions.open_null(stream);
        }
    }
    actions.close_from(first_other);
    const SpawnAttributes attributes;
    return ::posix_spawn(&pid, argv[0], actions.get(), attributes.get(), argv, environ);
}

} // namespace

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

} // namespace ulmo
