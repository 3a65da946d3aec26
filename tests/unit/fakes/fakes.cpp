#include "fakes.h"

#include <algorithm>
#include <vector>

#include "config_copy_mib.h"

namespace {

// Inside a function, so that it exists before the first fake of any source is constructed.
std::vector<FakeBase *> &registered_fakes() {
    static std::vector<FakeBase *> fakes;
    return fakes;
}

void reset_all() {
    for (FakeBase *fake : registered_fakes()) {
        fake->reset();
    }
}

// Uses the module's own operations where possible, so that clearing the tables also tests deletion.
void empty_tables() {
    is_snmp_debug_enabled = 0;
    child_copy_running = 0;
    ccCopyEntry row{};
    while (getnextCcCopyEntry(&row) == 0) {
        ASSERT_EQ(deleteCcCopyEntry(&row), 0U);
        row.ccCopyIndex = 0;
    }
    ccCopyErrorEntry error{};
    while (getnextCcCopyErrorEntry(&error) == 0) {
        ccCopyEntry key{};
        key.ccCopyIndex = error.ccCopyIndex;
        ASSERT_EQ(deleteCcCopyErrorEntries(&key), 0U);
        ASSERT_NE(getCcCopyErrorEntry(&error), 0U) << "an error row stays";
        error = ccCopyErrorEntry{};
    }
    keyedset_destroy(&ccCopyErrorTable);
    cc_undo_clear();
    cc_last_read_row = ccCopyEntry{};
}

} // namespace

FakeBase::FakeBase() {
    registered_fakes().push_back(this);
}

FakeBase::~FakeBase() {
    std::erase(registered_fakes(), this);
}

void ModuleTest::SetUp() {
    reset_all();
    empty_tables();
    reset_all();
}

void ModuleTest::TearDown() {
    for (FakeBase *fake : registered_fakes()) {
        fake->verify();
    }
    reset_all();
    empty_tables();
    reset_all();
}
