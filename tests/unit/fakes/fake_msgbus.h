// The message service with scripted answers. Every bind, unbind, send, receive and drop is a line
// of the journal: "bind 4 -1 1,0,1024,26,0,15 req-resp = 100", "unbind 100 0",
// "send 7 fe000000 3 1381 <hex payload>" (" kept" if the bus keeps a copy), "receive 7",
// "drop 1381".
#ifndef TESTS_UNIT_FAKE_MSGBUS_H
#define TESTS_UNIT_FAKE_MSGBUS_H

#include <cstdint>
#include <deque>
#include <set>
#include <string>

#include "fakes.h"
#include "platform/msgbus.h"

struct msgbus_message {
    int32_t endpoint;
    uint32_t opcode;
    std::string payload;
    uint32_t token;
};

struct MsgbusFake : FakeBase {
    static constexpr int32_t response_queue = 7;
    static constexpr uint32_t first_token = 0xA1B2C3D4;

    int32_t next_handle = 100;   // the handle for the next bind; later ones count up
    std::deque<int> bind_errors; // errno of the next binds, 0 for success
    std::deque<int> send_errors; // the same for sends

    struct Answer {
        int error; // errno of the receive, or 0
        uint32_t opcode;
        std::string payload;
    };
    std::deque<Answer> answers; // of the next receives

    std::set<msgbus_message *> alive; // messages that have not been dropped yet
    uint32_t next_token = first_token;

    // Makes a message for a handler. The test owns it and must drop it.
    msgbus_message *make(uint32_t opcode, const std::string &payload);
    // Drops a message without a line in the journal.
    void release(msgbus_message *message);

    void reset() override;
    void verify() override;
};

extern MsgbusFake fake_msgbus;

#endif
