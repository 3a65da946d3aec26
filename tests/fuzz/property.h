// Shared by the fuzzers: stops them when a property does not hold.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string_view>

inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// Whether a text can be shown as one line.
inline bool is_one_line(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return c < ' ' || c == 0x7F; });
}
