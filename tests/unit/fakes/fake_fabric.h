// A fabric of scripted switches. A call is unexpected unless `scripted` is set.
#ifndef TESTS_UNIT_FAKE_FABRIC_H
#define TESTS_UNIT_FAKE_FABRIC_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "fakes.h"
#include "platform/fabric.h"

struct FabricFake : FakeBase {
    using Wwn = std::array<uint8_t, SWITCH_WWN_SIZE>;
    struct Switch {
        Wwn wwn;
        bool local;
        inet_address address;
        // at most FABSTAT_TEXT_SIZE characters; a text of that length has no terminator
        std::string text;
    };

    bool scripted = false;

    int wwn_result = 0;       // of the request for the local name
    bool wwn_response = true; // whether an answer comes with it, whatever the result
    Wwn local_wwn{0x20, 0, 0, 0x0d, 0xec, 0x01, 0x02, 3}; // what the answer begins with
    std::vector<Switch> switches;
    int addresses_result = 0;    // of the request for the management port's addresses
    bool addresses_given = true; // whether a list comes, if the result is 0
    std::vector<inet_address> management_addresses;

    // The calls, in order: "wwn", "next", "clean", "port", "addresses".
    std::vector<std::string> calls;

    void reset() override;
};

extern FabricFake fake_fabric;

#endif
