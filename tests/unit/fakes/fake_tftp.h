// The TFTP client. In the journal, with how SIGCHLD was taken during a transfer: "tftp timeout 20",
// "tftp connect 10.0.0.1 -1", "tftp put LOCAL REMOTE 0 default", "tftp get REMOTE LOCAL 0 default".
#ifndef TESTS_UNIT_FAKE_TFTP_H
#define TESTS_UNIT_FAKE_TFTP_H

#include <optional>
#include <string>

#include "fakes.h"

struct TftpFake : FakeBase {
    int timeout_result = 0;
    int connect_result = 0;
    int transfer_result = 0;
    // what a download that works writes into the local file, which is not made without it
    std::optional<std::string> remote_file;
    std::optional<std::string> uploaded; // what the last upload found in the local file
    std::string text;                    // what tftp_strerror() returned last

    void reset() override;
};

extern TftpFake fake_tftp;

#endif
