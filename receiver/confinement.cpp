#include "receiver/confinement.h"

#include "base/posix.h"
#include "receiver/local_file.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

namespace receiver {
namespace {

using Filter = std::unique_ptr<void, void (*)(scmp_filter_ctx)>;

// libseccomp returns negative errno values.
void check(int result) {
    if (result < 0) {
        ulmo::throw_error(-result, "cannot confine the program");
    }
}

void allow(const Filter &filter, int call, const std::vector<scmp_arg_cmp> &conditions = {}) {
    check(::seccomp_rule_add_array(filter.get(), SCMP_ACT_ALLOW, call,
                                   static_cast<unsigned>(conditions.size()), conditions.data()));
}

scmp_arg_cmp argument_is(unsigned argument, std::uint64_t value) {
    return {argument, SCMP_CMP_EQ, value, 0};
}

// Whatever the machine lacks of these, libseccomp leaves out.
constexpr std::array calls = {
    // datagrams, orders and reports
    SCMP_SYS(bind), SCMP_SYS(connect), SCMP_SYS(getsockopt), SCMP_SYS(setsockopt),
    SCMP_SYS(recvfrom), SCMP_SYS(recvmsg), SCMP_SYS(sendto), SCMP_SYS(sendmsg), SCMP_SYS(poll),
    SCMP_SYS(ppoll), SCMP_SYS(ppoll_time64),
    // open files
    SCMP_SYS(pread64), SCMP_SYS(pwrite64), SCMP_SYS(ftruncate), SCMP_SYS(ftruncate64),
    SCMP_SYS(close),
    // threads, memory and time
    SCMP_SYS(clone), SCMP_SYS(clone3), SCMP_SYS(futex), SCMP_SYS(futex_time64),
    SCMP_SYS(set_robust_list), SCMP_SYS(rseq), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),
    SCMP_SYS(restart_syscall), SCMP_SYS(exit), SCMP_SYS(exit_group), SCMP_SYS(gettid),
    SCMP_SYS(getpid), SCMP_SYS(sched_yield), SCMP_SYS(sched_getaffinity), SCMP_SYS(mmap),
    SCMP_SYS(mmap2), SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(mprotect), SCMP_SYS(madvise),
    SCMP_SYS(brk), SCMP_SYS(getrandom), SCMP_SYS(clock_gettime), SCMP_SYS(clock_gettime64)};

} // namespace

void drop_capabilities() {
    constexpr const char *problem = "cannot give up capabilities";
    // Only a process with CAP_SETPCAP may empty its bounding set. Others have no use for the set,
    // as they can't gain capabilities any more.
    for (unsigned long capability = 0; ::prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0;
         ++capability) {
        if (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EPERM) {
            ulmo::throw_errno(problem);
        }
    }
    ulmo::check(::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0), problem);
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> none{};
    ulmo::check(::syscall(SYS_capset, &header, none.data()), problem);
    ulmo::check(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), problem);
}

void confine() {
    // A newer libc that tries a newer call falls back to one of those above.
    const Filter filter(::seccomp_init(SCMP_ACT_ERRNO(ENOSYS)), ::seccomp_release);
    if (!filter) {
        check(-ENOMEM);
    }
    for (const int call : calls) {
        allow(filter, call);
    }
    for (const unsigned family : {unsigned{AF_INET}, unsigned{AF_INET6}}) {
        allow(filter, SCMP_SYS(socket), {argument_is(0, family)});
    }
    // Only of a descriptor, not of a path: the text for "no path" is at an address of its own.
    allow(
        filter, SCMP_SYS(statx),
        {argument_is(1, reinterpret_cast<std::uintptr_t>(no_path)), argument_is(2, AT_EMPTY_PATH)});
    check(::seccomp_load(filter.get()));
}

} // namespace receiver
