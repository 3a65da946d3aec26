// What the fuzzers share: how a property is demanded.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string_view>

inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// Whether a text can be told to people as a line.
inline bool is_one_line(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return c < ' ' || c == 0x7F; });
}
