#include "platform/host/host_log.h"

#include "platform/evtrace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace ulmo {
namespace {

__attribute__((format(printf, 2, 0))) void record(uint32_t subtype, const char *format, va_list arguments) {
    const int saved_errno = errno;
    if (evtrace_hist_event_subtype_check(host_module_id, subtype) == 0) {
        std::array<char, 512> text;
        const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
        if (length > 0) {
            evtrace_hist_event(host_module_id, subtype, std::min(static_cast<uint32_t>(length), uint32_t{text.size() - 1}), text.data());
        }
    }
    errno = saved_errno;
}

} // namespace

void log_error(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(EVTRACE_ERROR, format, arguments);
    va_end(arguments);
}

void log_debug(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    record(EVTRACE_DEBUG, format, arguments);
    va_end(arguments);
}

} // namespace ulmo
