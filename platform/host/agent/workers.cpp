#include "platform/host/agent/workers.h"

#include "base/c_boundary.h"
#include "base/folders.h"
#include "base/number.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/settings.h"
#include "platform/host/history/copy_report.h"
#include "platform/host/history/log.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <utility>

namespace ulmo {
namespace {

UniqueFd opened_directory(const std::filesystem::path &path) {
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    return UniqueFd(check(::open(path.c_str(), flags), path.native()));
}

// The parent of all workers' folders. Its lock is held while one of them is created or checked, so
// that no folder is removed between its creation and its own lock.
std::filesystem::path work_root() {
    const auto state = state_dir();
    const ActingAsOwner owner(state);
    auto root = state / "work";
    if (::mkdir(root.c_str(), 0700) != 0 && errno != EEXIST) {
        throw_errno(root.native());
    }
    return root;
}

void reset_signals() {
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGALRM}) {
        std::signal(number, SIG_DFL);
    }
}

// sched_setattr(2), as in linux/sched/types.h, which can't be included beside sched.h.
struct Scheduling {
    std::uint32_t size = sizeof(Scheduling);
    std::uint32_t policy = SCHED_OTHER;
    std::uint64_t flags = 0;
    std::int32_t nice = 0;
    std::uint32_t priority = 0;
    std::uint64_t slice_ns = 0;
    std::uint64_t deadline_ns = 0;
    std::uint64_t period_ns = 0;
};

// A copy gives way to whatever has to answer, the agent first. It is a batch job of low priority
// (sched(7)). Since Linux 6.12 its long time slices count for more: a waking process with shorter
// ones interrupts it at once. All programs of the copy inherit this. If the kernel refuses, answers
// take some milliseconds longer.
void give_way() {
    Scheduling scheduling;
    scheduling.policy = SCHED_BATCH;
    scheduling.nice = std::min(::getpriority(PRIO_PROCESS, 0) + 5, 19);
    scheduling.slice_ns = 20'000'000; // the default is some 3 ms
    ::syscall(SYS_sched_setattr, 0, &scheduling, 0);
}

std::vector<int> open_descriptors() {
    std::vector<int> all;
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(::opendir("/proc/self/fd"), ::closedir);
    if (listing) {
        while (const dirent *entry = ::readdir(listing.get())) {
            if (const auto number = parsed_number<int>(entry->d_name)) {
                all.push_back(*number);
            }
        }
        return all;
    }
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    for (int number = 0; number < static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 65536));
         ++number) {
        all.push_back(number);
    }
    return all;
}

bool is_socket(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

bool is_local_standard_stream(int descriptor) {
    int domain = 0;
    socklen_t length = sizeof domain;
    return descriptor <= STDERR_FILENO &&
           ::getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
           domain == AF_UNIX;
}

void close_inherited(const std::vector<int> &foreign) {
    const UniqueFd nowhere(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int descriptor : open_descriptors()) {
        const bool is_foreign =
            std::find(foreign.begin(), foreign.end(), descriptor) != foreign.end();
        if (!is_foreign && (!is_socket(descriptor) || is_local_standard_stream(descriptor))) {
            continue;
        }
        // syslog(3) and others remember their descriptors: such a number must not be reused for a
        // file of the worker.
        if (!nowhere ||
            ::dup3(nowhere.get(), descriptor, descriptor > STDERR_FILENO ? O_CLOEXEC : 0) < 0) {
            ::close(descriptor);
        }
    }
}

// The caller holds the lock of `root`.
void sweep(const std::filesystem::path &root) {
    for (const auto &entry : std::filesystem::directory_iterator(root)) {
        constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
        const UniqueFd directory(::open(entry.path().c_str(), flags));
        if (directory && ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) {
            std::error_code ignored;
            std::filesystem::remove_all(entry.path(), ignored);
            log_debug("worker: folder %s of an ended worker removed", entry.path().c_str());
        }
    }
}

void enter_private_directory() {
    const ActingAsOwner owner(state_dir());
    const auto root = work_root();
    const UniqueFd root_lock = opened_directory(root);
    check(::flock(root_lock.get(), LOCK_EX), "lock of the workers' folder");
    sweep(root); // leftovers, and those of an earlier process with this id
    const auto directory = worker_directory(::getpid());
    check(::mkdir(directory.c_str(), 0700), directory.native());
    UniqueFd own = opened_directory(directory);
    check(::flock(own.get(), LOCK_EX | LOCK_NB), directory.native());
    check(::fchdir(own.get()), directory.native());
    // for the temporary files of its programs, which stay if these are killed
    check(::setenv("TMPDIR", std::filesystem::current_path().c_str(), 1), "setenv");
    static_cast<void>(own.release()); // the lock lasts until the worker ends
}

std::string how_it_ended(int status) {
    if (WIFSIGNALED(status)) {
        return "by signal " + std::to_string(WTERMSIG(status));
    }
    return "with exit status " + std::to_string(WEXITSTATUS(status));
}

} // namespace

void kill_with_descendants(pid_t process) noexcept {
    // A stopped parent neither starts more children nor reaps any: their numbers stay theirs.
    ::kill(process, SIGSTOP);
    log_failure("worker: its programs can't be found", [process] {
        const std::string id = std::to_string(process);
        std::ifstream list("/proc/" + id + "/task/" + id + "/children"); // proc(5)
        for (pid_t child = 0; list >> child;) {
            kill_with_descendants(child);
        }
    });
    ::kill(process, SIGKILL);
}

std::filesystem::path worker_directory(pid_t worker) {
    return work_root() / std::to_string(worker);
}

void become_worker(pid_t agent, const std::vector<int> &foreign) noexcept {
    reset_signals();
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != agent) { // it died before: nobody would learn of this copy
        ::_exit(EXIT_FAILURE);
    }
    give_way();
    try {
        // Checked here, before anything is sent, because the module's later query can't refuse.
        // Throws also if the file can't be read.
        static_cast<void>(number_setting("chassis_type"));
    } catch (const std::exception &failure) {
        log_error("worker: the copy is refused: %s", failure.what());
        report_reason(failure.what());
        ::_exit(EXIT_FAILURE);
    }
    try {
        close_inherited(foreign);
        enter_private_directory();
    } catch (const std::exception &failure) {
        // A copy writes files under names that a manager chose, so it must not run in the agent's
        // folder. The agent reports this end as a failure.
        log_error("worker: no private directory: %s", failure.what());
        report_reason(std::string("no private directory: ") + failure.what());
        ::_exit(EXIT_FAILURE);
    }
}

void sweep_worker_directories() noexcept {
    log_failure("worker: cannot sweep the folders of ended workers", [] {
        const ActingAsOwner owner(state_dir());
        const auto root = work_root();
        const UniqueFd root_lock = opened_directory(root);
        if (::flock(root_lock.get(), LOCK_EX | LOCK_NB) != 0) {
            return; // another process is sweeping, or a worker is just starting
        }
        sweep(root);
    });
}

int WorkerTable::add(pid_t worker) {
    Worker &added = workers_[worker];
    // always close-on-exec
    added.watch.reset(static_cast<int>(::syscall(SYS_pidfd_open, worker, 0)));
    return added.watch.get();
}

bool WorkerTable::take_report(pid_t worker) {
    const auto found = workers_.find(worker);
    return found != workers_.end() && !std::exchange(found->second.reported, true);
}

std::vector<pid_t> WorkerTable::running_for(std::chrono::seconds time) const {
    const auto now = std::chrono::steady_clock::now();
    std::vector<pid_t> all;
    for (const auto &[pid, worker] : workers_) {
        if (now - worker.began >= time) {
            all.push_back(pid);
        }
    }
    return all;
}

std::vector<pid_t> WorkerTable::ended() const {
    std::vector<pid_t> all;
    for (const auto &[pid, worker] : workers_) {
        siginfo_t information{};
        const int result =
            ::waitid(P_PID, static_cast<id_t>(pid), &information, WEXITED | WNOHANG | WNOWAIT);
        if ((result == 0 && information.si_pid == pid) || (result != 0 && errno == ECHILD)) {
            all.push_back(pid);
        }
    }
    return all;
}

std::optional<WorkerTable::Ended> WorkerTable::reap(pid_t worker) {
    const auto found = workers_.find(worker);
    if (found == workers_.end()) {
        return std::nullopt;
    }
    int status = 0;
    const pid_t reaped = ::waitpid(worker, &status, WNOHANG);
    if (reaped == 0) {
        return std::nullopt;
    }
    Ended ended{std::move(found->second.watch), found->second.reported,
                reaped == worker ? how_it_ended(status) : "unseen"};
    workers_.erase(found);
    const auto remove = [worker] {
        const ActingAsOwner owner(state_dir());
        std::filesystem::remove_all(worker_directory(worker));
    };
    quietly(remove, [worker](const char *why) {
        log_error("worker: cannot remove the folder of process %d: %s", worker, why);
    });
    return ended;
}

std::vector<int> WorkerTable::descriptors() const {
    std::vector<int> all;
    for (const auto &[pid, worker] : workers_) {
        if (worker.watch) {
            all.push_back(worker.watch.get());
        }
    }
    return all;
}

} // namespace ulmo
