// Room: what happened: the debug history, our own log, the lines of the last copies.
// Used by: bus, device, fabric, transfer, system_manager, agent, programs.
// May use: base, platform.
//
// What the host platform tells the debug history about itself.
#pragma once

#include "base/c_boundary.h"

#include <cstdint>
#include <utility>

namespace ulmo {

// The host platform's own id in the history, beside those of the modules that use it.
inline constexpr uint32_t host_module_id = 0x740000;

// Record one formatted message of at most 511 octets; longer ones are cut. Nothing is formatted
// when the history declines the subtype. Keep errno.
void log_error(const char *format, ...) __attribute__((format(printf, 1, 2)));
void log_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Runs what may fail without harm to the caller: a failure becomes an error in the log, "WHAT:
// why". Keeps errno.
template <typename Work> void log_failure(const char *what, Work &&work) noexcept {
    quietly(std::forward<Work>(work), [what](const char *why) { log_error("%s: %s", what, why); });
}

// As log_debug(), for what an operator wants to read of a daemon.
void log_notice(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Makes this process a daemon whose log is its standard error: errors and notices also go there,
// one line each with the UTC time in front, or without it where the journal (systemd.exec(5),
// $JOURNAL_STREAM) writes the time itself.
void log_to_standard_error();

} // namespace ulmo
