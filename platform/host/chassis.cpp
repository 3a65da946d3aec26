#include "platform/chassis.h"

#include "platform/host/host_config.h"

#include <charconv>
#include <exception>

int hwinfo_get_chassis_type(int *type) {
    constexpr int not_known = 1;
    try {
        const std::string text = ulmo::setting("chassis_type", "");
        int number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (type == nullptr || error != std::errc{} || end != text.data() + text.size()) {
            return not_known;
        }
        *type = number;
        return 0;
    } catch (const std::exception &) {
        return not_known;
    }
}
