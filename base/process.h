// Running another program and waiting for it.
#pragma once

#include <sys/types.h>

#include <array>
#include <vector>

namespace ulmo {

// Runs argv[0] (no shell, no search in PATH) and waits for it; `argv` ends with a null pointer. A
// stream of -1 is left as it is. The program inherits the three standard streams and no other
// descriptor, and starts with every signal at its default and none blocked. Needs SIGCHLD at its
// default. Returns the wait status (waitpid(2)), or a negative value with errno set: -1 when it
// could not be run or waited for, -N with EINTR when signal N ended it. The program dies with the
// process that runs it. Throws std::system_error
// and std::bad_alloc.
int run_and_wait(const std::array<int, 3> &streams, std::vector<char *> &argv);

// The child's part of that, for other ways to wait: what posix_spawn(3) does, and the program dies
// with its parent. Call it after fork(2); it only makes calls that are safe there. If the program
// can't be run, it writes the errno value, an int, to `failure`, which is not a standard stream.
[[noreturn]] void become(const std::array<int, 3> &streams, char *const *argv,
                         char *const *environment, pid_t parent, int failure);

// The lowest descriptor that is not a standard stream.
inline constexpr int first_other_descriptor = 3;

} // namespace ulmo
