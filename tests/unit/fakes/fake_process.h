// The process: fork, the end of the child, the shell and waiting. In the journal: "fork", "system
// COMMAND default" (with the disposition of SIGCHLD), "sleep 2".
#ifndef TESTS_UNIT_FAKE_PROCESS_H
#define TESTS_UNIT_FAKE_PROCESS_H

#include <optional>
#include <sys/types.h>

#include "fakes.h"
#include "journal.h"

struct ProcessFake : FakeBase {
    pid_t fork_result = 4711; // the child's process id, or -1: then no child is made
    // Makes a real child instead. fork() returns to the parent only after the child has ended and
    // its report has been read.
    bool real_child = false;
    struct Child {
        pid_t pid;
        int exit_code; // of _exit(); -1 if it ended otherwise
        bool failed;   // a check failed in it
        Lines journal;
        Lines history; // texts of the debug history, without subtypes
    };
    std::optional<Child> child; // the last real one

    int system_result = 0;
    int system_errno = 0;

    void reset() override;
};

extern ProcessFake fake_process;

#endif
