// Room: what only the agent loads: its loop, workers, current request, notifications, contexts.
// Used by: the agent, which loads it.
// May use: base, history, bus, fabric, system_manager, platform.
//
// The agent's forked workers: how each is set up in the child, and how the agent learns that it
// ended.
#pragma once

#include "base/unique_fd.h"

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ulmo {

// The folder for the temporary files of the worker with that process id. Throws as state_dir()
// does.
std::filesystem::path worker_directory(pid_t worker);

// Turns the calling process, just forked from `agent`, into a worker. It dies with the agent, has
// none of its signal handlers, and runs as a batch job that gives way to it. Its sockets and the
// descriptors in `foreign` are replaced by /dev/null, so that their numbers are not reused;
// standard streams that lead to a local service, such as the journal, stay. Its working directory
// is a private, locked folder; if that can't be created, the process ends.
void become_worker(pid_t agent, const std::vector<int> &foreign) noexcept;

// Kills a process of the caller with all that it has started, stopped processes included. The death
// of a worker alone would not reach a program that one of its programs has forked, and that stops.
void kill_with_descendants(pid_t process) noexcept;

// Removes the folders of workers that are gone. Does not throw.
void sweep_worker_directories() noexcept;

// The workers that this process forked and has not reaped. All of it belongs to one thread.
class WorkerTable {
  public:
    // Watches the child. Returns a descriptor that becomes readable when it ends, or -1 if the
    // kernel offers none; ended() then finds the end.
    int add(pid_t worker);

    // Whether the process is a worker that has not reported yet; marks it as having reported.
    bool take_report(pid_t worker);

    // The workers that have run for `time` or longer.
    [[nodiscard]] std::vector<pid_t> running_for(std::chrono::seconds time) const;

    // The workers that have ended and are to be reaped. Does not block.
    [[nodiscard]] std::vector<pid_t> ended() const;

    // The result of a reaped worker.
    struct Ended {
        UniqueFd watch;
        bool reported;
        std::string how; // in words: the signal or the exit status
    };

    // Reaps this worker only, and removes its folder. Nothing if it has not ended or is not a
    // worker.
    std::optional<Ended> reap(pid_t worker);

    [[nodiscard]] bool empty() const { return workers_.empty(); }
    [[nodiscard]] std::vector<int> descriptors() const;

  private:
    struct Worker {
        UniqueFd watch;
        bool reported = false;
        std::chrono::steady_clock::time_point began = std::chrono::steady_clock::now();
    };

    std::map<pid_t, Worker> workers_;
};

// Called when a request sets the status of a row. After the request, workers whose row is no longer
// that of a running copy are ended.
void row_status_is_set() noexcept;

} // namespace ulmo

// Called by the agent's module instead of fork(2), through the linker's --wrap=fork.
extern "C" pid_t __wrap_fork(void);
