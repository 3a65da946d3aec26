// The chassis and its VRFs. In the journal: "chassis type" and "vrf id NAME".
#ifndef TESTS_UNIT_FAKE_CHASSIS_H
#define TESTS_UNIT_FAKE_CHASSIS_H

#include "fakes.h"

struct ChassisFake : FakeBase {
    int type_result = 0;
    int type = 0; // one without VRF
    bool stores_on_failure = false;
    int vrf_id = 2;

    void reset() override;
};

extern ChassisFake fake_chassis;

#endif
