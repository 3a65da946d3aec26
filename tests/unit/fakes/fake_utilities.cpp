#include "fake_utilities.h"

#include <cstdio>

#include "platform/utilities.h"

namespace {

// A text that identifies the function and the code.
const char *text_of(const char *function, uint32_t code) {
    char text[64];
    snprintf(text, sizeof text, "%s 0x%08x", function, code);
    fake_utilities.text = text;
    return fake_utilities.text.c_str();
}

} // namespace

UtilitiesFake fake_utilities;

void UtilitiesFake::reset() {
    errors.take();
}

void UtilitiesFake::verify() {
    for (const auto &[code, facility] : errors.items) {
        unexpected("log_set_error " + std::to_string(code) + ", " + std::to_string(facility));
    }
}

extern "C" {

void log_set_error(uint32_t code, uint32_t facility) {
    fake_utilities.errors.items.emplace_back(code, facility);
}

const char *syserr2str(uint32_t code) {
    return text_of("syserr2str", code);
}

const char *syserr_format(uint32_t code) {
    return text_of("syserr_format", code);
}

} // extern "C"
