#include "config-copy/likeness.h"

#include <algorithm>
#include <cctype>
#include <numeric>
#include <utility>

namespace config_copy {

std::size_t distance(std::string_view a, std::string_view b) {
    const auto plain = [](char c) {
        return c == '_' ? '-' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    };
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), 0);
    for (std::size_t i = 0; i < a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i + 1);
        for (std::size_t j = 0; j < b.size(); ++j) {
            const std::size_t changed = diagonal + (plain(a[i]) == plain(b[j]) ? 0 : 1);
            diagonal = std::exchange(row[j + 1], std::min({changed, row[j] + 1, row[j + 1] + 1}));
        }
    }
    return row.back();
}

std::string nearest(std::string_view word, const std::vector<std::string> &known) {
    std::size_t least = 3;
    std::string found;
    for (const std::string &candidate : known) {
        if (const std::size_t far = distance(word, candidate);
            far < std::min(least, candidate.size())) {
            least = far;
            found = candidate;
        }
    }
    return found;
}

} // namespace config_copy
