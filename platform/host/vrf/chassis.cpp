#include "platform/chassis.h"

#include "base/settings.h"

#include <exception>
#include <optional>

int hwinfo_get_chassis_type(int *type) {
    constexpr int not_known = 1;
    try {
        const std::optional<long> number = ulmo::number_setting("chassis_type");
        if (type == nullptr || !number) {
            return not_known;
        }
        *type = static_cast<int>(*number);
        return 0;
    } catch (const std::exception &) {
        return not_known;
    }
}
