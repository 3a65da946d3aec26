// Real conversions that can be told to fail.
#ifndef TESTS_UNIT_FAKE_INET_ADDRESS_H
#define TESTS_UNIT_FAKE_INET_ADDRESS_H

#include <cstddef>
#include <vector>

#include "fakes.h"
#include "platform/inet_address.h"

struct InetAddressFake : FakeBase {
    int to_str_error = 0;              // what every conversion to text returns instead, unless 0
    int from_str_error = 0;            // the same for conversions from text
    std::vector<inet_address> written; // addresses that were to become text
    std::vector<std::size_t> sizes;    // room given for each

    void reset() override;
};

extern InetAddressFake fake_inet_address;

#endif
