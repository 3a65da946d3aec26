// The TFTP client. In the journal, with the disposition of SIGCHLD during a transfer: "tftp timeout
// 20", "tftp connect 10.0.0.1 -1", "tftp put LOCAL REMOTE 0 default", "tftp get REMOTE LOCAL 0
// default".
#ifndef TESTS_UNIT_FAKE_TFTP_H
#define TESTS_UNIT_FAKE_TFTP_H

#include <optional>
#include <string>

#include "fakes.h"

struct TftpFake : FakeBase {
    int timeout_result = 0;
    int connect_result = 0;
    int transfer_result = 0;
    // what a successful download writes to the local file; without it no file is made
    std::optional<std::string> remote_file;
    std::optional<std::string> uploaded; // content of the local file at the last upload
    std::string text;                    // last text of tftp_strerror()

    void reset() override;
};

extern TftpFake fake_tftp;

#endif
