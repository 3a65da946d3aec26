// One record of what the module asked of the world outside, in order over all services: a line a
// call. A test compares the lines with those that it foresees; a line that no test reads fails it.
#ifndef TESTS_UNIT_JOURNAL_H
#define TESTS_UNIT_JOURNAL_H

#include <functional>
#include <string>
#include <vector>

#include "fakes.h"

using Lines = std::vector<std::string>;

struct JournalFake : FakeBase {
    Calls<std::string> lines;
    // Called with each line while the call that it tells of is still going on: what is true then
    // can be looked at.
    std::function<void(const std::string &)> on_line;

    void note(const std::string &line);
    Lines take() { return lines.take(); }

    void reset() override;
    void verify() override;
};

extern JournalFake journal;

// " default", " ignored" or " other": how this process takes SIGCHLD now.
std::string sigchld_disposition();

// Two lower-case hexadecimal digits an octet.
std::string hex(const void *octets, std::size_t length);

#endif
