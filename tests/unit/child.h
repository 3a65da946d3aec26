// Work in plain children of the test's process, which may become other users and end as they like;
// and the programs of the build.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>

namespace host_test {

// Runs `work` in a child; its result is the exit status, and 100 stands for an exception.
inline pid_t start_child(const std::function<int()> &work) {
    const pid_t child = ::fork();
    if (child == 0) {
        int status = 100;
        try {
            status = work();
        } catch (const std::exception &error) {
            std::fprintf(stderr, "child: %s\n", error.what());
        }
        ::_exit(status);
    }
    return child;
}

// Waits for it; the exit status, or -1 when it ended otherwise.
inline int exit_status_of(pid_t child) {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int in_child(const std::function<int()> &work) {
    return exit_status_of(start_child(work));
}

// A program that was built beside the tests; in the shell's quotes, as the build may lie anywhere.
inline std::string program(const std::string &name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}
inline std::string quoted_program(const std::string &name) {
    return '"' + program(name) + '"';
}

} // namespace host_test
