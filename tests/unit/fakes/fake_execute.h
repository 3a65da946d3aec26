// Running programs. In the journal, with the disposition of SIGCHLD during the call: "execute -1 -1
// -1 PROGRAM [FIRST] [SECOND] default"; a real descriptor appears as "fd".
#ifndef TESTS_UNIT_FAKE_EXECUTE_H
#define TESTS_UNIT_FAKE_EXECUTE_H

#include <string>

#include "fakes.h"

struct ExecuteFake : FakeBase {
    int result = 0;     // wait status, or a negative value
    std::string output; // what the program writes to its standard output

    void reset() override;
};

extern ExecuteFake fake_execute;

#endif
