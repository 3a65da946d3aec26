#include "fake_execute.h"

#include <cstdarg>
#include <unistd.h>

#include "journal.h"
#include "platform/utilities.h"

namespace {

std::string word_of(int descriptor) {
    return descriptor < 0 ? std::to_string(descriptor) : "fd";
}

} // namespace

ExecuteFake fake_execute;

void ExecuteFake::reset() {
    result = 0;
    output.clear();
}

extern "C" {

int execute_program_and_wait_redirect(int in_fd, int out_fd, int err_fd, const char *program, ...) {
    std::string line =
        "execute " + word_of(in_fd) + " " + word_of(out_fd) + " " + word_of(err_fd) + " " + program;
    va_list arguments;
    va_start(arguments, program);
    for (const char *one = va_arg(arguments, const char *); one != nullptr;
         one = va_arg(arguments, const char *)) {
        line += std::string(" [") + one + "]";
    }
    va_end(arguments);
    journal.note(line + sigchld_disposition());
    if (out_fd >= 0) {
        EXPECT_EQ(write(out_fd, fake_execute.output.data(), fake_execute.output.size()),
                  static_cast<ssize_t>(fake_execute.output.size()));
    }
    return fake_execute.result;
}

} // extern "C"
