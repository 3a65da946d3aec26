// The programs that a copy runs: when a program has ended, the file that it named is measured for
// the copy's report.
#include "base/c_boundary.h"
#include "base/process.h"
#include "platform/host/history/copy_report.h"
#include "platform/utilities.h"

#include <cerrno>
#include <cstdarg>
#include <vector>

int execute_program_and_wait_redirect(int in_fd, int out_fd, int err_fd, const char *program, ...) {
    if (program == nullptr) {
        errno = EINVAL;
        return -1;
    }
    std::va_list arguments;
    va_start(arguments, program);
    const int result = ulmo::result_or_errno([&] {
        // execve(2) declares the vector as writable but does not write to it.
        std::vector<char *> argv{const_cast<char *>(program)};
        do {
            argv.push_back(va_arg(arguments, char *));
        } while (argv.back() != nullptr);
        const int status = ulmo::run_and_wait({in_fd, out_fd, err_fd}, argv);
        ulmo::report_named_file();
        return status;
    });
    va_end(arguments);
    return result;
}
