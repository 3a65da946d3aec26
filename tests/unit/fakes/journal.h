// One record of the module's calls to all services, in order, one line per call. A test compares
// the lines with those that it expects; a line that no test reads is a failure.
#ifndef TESTS_UNIT_JOURNAL_H
#define TESTS_UNIT_JOURNAL_H

#include <functional>
#include <string>
#include <vector>

#include "fakes.h"

using Lines = std::vector<std::string>;

struct JournalFake : FakeBase {
    Calls<std::string> lines;
    // Called with each line while that call is still in progress, to inspect the state at that
    // moment.
    std::function<void(const std::string &)> on_line;

    void note(const std::string &line);
    Lines take() { return lines.take(); }

    void reset() override;
    void verify() override;
};

extern JournalFake journal;

// The process's disposition of SIGCHLD: " default", " ignored" or " other".
std::string sigchld_disposition();

// Two lower-case hexadecimal digits per octet.
std::string hex(const void *octets, std::size_t length);

#endif
