// Room: what happened: the debug history, our own log, the lines of the last copies.
// Used by: bus, device, fabric, transfer, system_manager, agent, programs.
// May use: base, platform.
//
// The host platform's own records in the debug history.
#pragma once

#include "base/c_boundary.h"

#include <cstdint>
#include <utility>

namespace ulmo {

// The host platform's id in the history; the modules that use the platform have their own.
inline constexpr uint32_t host_module_id = 0x740000;

// Record one formatted message; it is cut at 511 octets. A message is not formatted if the history
// does not record its subtype. All keep errno.
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Runs work whose failure does not harm the caller: a failure is logged as the error "WHAT: why".
// Keeps errno.
template <typename Work> void log_failure(const char *what, Work &&work) noexcept {
    quietly(std::forward<Work>(work), [what](const char *why) { log_error("%s: %s", what, why); });
}

// As log_debug(), for messages of a daemon that an operator should see.
void log_notice(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Makes standard error the log of this process, a daemon: errors and notices are also written
// there, one a line, preceded by the UTC time. The time is left out if standard error is the
// journal (systemd.exec(5), $JOURNAL_STREAM), which adds its own.
void log_to_standard_error();

} // namespace ulmo
