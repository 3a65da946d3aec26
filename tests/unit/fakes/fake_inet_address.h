// Real conversions that can be made to fail.
#ifndef TESTS_UNIT_FAKE_INET_ADDRESS_H
#define TESTS_UNIT_FAKE_INET_ADDRESS_H

#include <cstddef>
#include <vector>

#include "fakes.h"
#include "platform/inet_address.h"

struct InetAddressFake : FakeBase {
    int to_str_error = 0;              // unless 0, every conversion to text returns this
    int from_str_error = 0;            // the same for conversions from text
    std::vector<inet_address> written; // addresses passed for conversion to text
    std::vector<std::size_t> sizes;    // size of the buffer for each

    void reset() override;
};

extern InetAddressFake fake_inet_address;

#endif
