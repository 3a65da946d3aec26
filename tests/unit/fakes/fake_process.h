// The process: fork, the child's end, the shell and the waiting. In the journal: "fork", "system
// COMMAND default" (with how SIGCHLD was taken), "sleep 2".
#ifndef TESTS_UNIT_FAKE_PROCESS_H
#define TESTS_UNIT_FAKE_PROCESS_H

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "fakes.h"
#include "journal.h"

struct ProcessFake : FakeBase {
    pid_t fork_result = 4711; // the child's process id, or -1: then no child is made
    // Makes a real child instead. What the child did and logged is read when it has ended, before
    // fork() returns to the parent.
    bool real_child = false;
    struct Child {
        pid_t pid;
        int exit_code; // of _exit(); -1 when it ended otherwise
        bool failed;   // a check failed in it
        Lines journal;
        Lines history; // texts of the debug history, without their subtypes
    };
    std::optional<Child> child; // the last real one

    int system_result = 0;
    int system_errno = 0;

    void reset() override;
};

extern ProcessFake fake_process;

#endif
