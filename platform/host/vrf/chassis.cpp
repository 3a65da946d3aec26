// The chassis type is a setting; the VRFs are in vrf.cpp.
#include "platform/chassis.h"

#include "base/c_boundary.h"
#include "base/settings.h"

#include <optional>

int hwinfo_get_chassis_type(int *type) {
    constexpr int not_known = 1;
    return ulmo::result_or(not_known, [type] {
        const std::optional<long> number = ulmo::number_setting("chassis_type");
        if (type == nullptr || !number) {
            return not_known;
        }
        *type = static_cast<int>(*number);
        return 0;
    });
}
