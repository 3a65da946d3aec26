// Running another program and waiting for it.
#pragma once

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

} // namespace ulmo
