#include "fake_chassis.h"

#include <string>

#include "journal.h"
#include "platform/chassis.h"

ChassisFake fake_chassis;

void ChassisFake::reset() {
    type_result = 0;
    type = 0;
    stores_on_failure = false;
    vrf_id = 2;
}

extern "C" {

int hwinfo_get_chassis_type(int *type) {
    journal.note("chassis type");
    EXPECT_EQ(*type, -1);
    if (fake_chassis.type_result == 0 || fake_chassis.stores_on_failure) {
        *type = fake_chassis.type;
    }
    return fake_chassis.type_result;
}

int vrfdir_get_context_id(const char *vrf_name) {
    journal.note(std::string("vrf id ") + vrf_name);
    return fake_chassis.vrf_id;
}

} // extern "C"
