// Child processes for work that changes the process, such as becoming another user; and the paths
// of the programs of the build.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <string>

namespace host_test {

// Runs `work` in a child, which exits with its result, or with 100 after an exception.
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

// Waits for the child. Returns its exit status, or -1 if it ended otherwise.
inline int exit_status_of(pid_t child) {
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int in_child(const std::function<int()> &work) {
    return exit_status_of(start_child(work));
}

// The path of a program in the tests' own folder. quoted_program() quotes it for the shell, as that
// folder may be anywhere.
inline std::string program(const std::string &name) {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}
inline std::string quoted_program(const std::string &name) {
    return '"' + program(name) + '"';
}

} // namespace host_test
