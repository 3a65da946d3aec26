#include "fake_evtrace.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr uint32_t module_id = 0x730000;
constexpr uint32_t longest_record = 511;

void expect_known_subtype(uint32_t subtype) {
    EXPECT_TRUE(subtype == EVTRACE_ERROR || subtype == EVTRACE_DEBUG) << subtype;
}

} // namespace

EvtraceFake fake_evtrace;

long EvtraceFake::count(uint32_t subtype, const std::string &text) const {
    return std::ranges::count(history, Record{subtype, text});
}

void EvtraceFake::reset() {
    clear();
    declines = false;
    prints = false;
}

std::ostream &operator<<(std::ostream &out, const EvtraceFake::Record &record) {
    return out << record.subtype << " " << ::testing::PrintToString(record.text);
}

extern "C" {

int evtrace_hist_event_subtype_check(uint32_t module, uint32_t subtype) {
    EXPECT_EQ(module, module_id);
    expect_known_subtype(subtype);
    return fake_evtrace.declines ? 1 : 0;
}

void evtrace_hist_event(uint32_t module, uint32_t subtype, uint32_t length, const char *text) {
    EXPECT_EQ(module, module_id);
    EXPECT_FALSE(fake_evtrace.declines) << "a declined record came all the same: " << text;
    EXPECT_LE(length, longest_record);
    expect_known_subtype(subtype);
    fake_evtrace.history.push_back({subtype, std::string(text, length)});
}

int evtrace_chk_int(uint32_t subtype, int32_t second, int32_t third, int32_t fourth) {
    EXPECT_EQ(second, 0);
    EXPECT_EQ(third, 0);
    EXPECT_EQ(fourth, 1);
    expect_known_subtype(subtype);
    fake_evtrace.asked.push_back(subtype);
    return fake_evtrace.prints ? 1 : 0;
}

void dbgprint(const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    EXPECT_TRUE(fake_evtrace.prints) << "printed while the debug print is off: " << text;
    fake_evtrace.printed.emplace_back(text);
}

} // extern "C"
