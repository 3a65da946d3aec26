/* evtrace: the platform's debug history, and the conditional debug print. Callable from the agent
 * and from its forked workers. */
#ifndef PLATFORM_EVTRACE_H
#define PLATFORM_EVTRACE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Subtypes: the kind of a record. */
enum evtrace_subtype {
    EVTRACE_ERROR = 100, /* failures and the few changes of state that matter afterwards */
    EVTRACE_DEBUG = 101, /* normal progress */
};

/* Non-zero if the history does not take records of this module and subtype. The caller then need
 * not format them. */
int evtrace_hist_event_subtype_check(uint32_t module_id, uint32_t subtype);

/* Records `length` octets of text (no terminator needed) with the time and the process id. A record
 * that is too long for the history is cut. Never fails and never blocks. */
void evtrace_hist_event(uint32_t module_id, uint32_t subtype, uint32_t length, const char *text);

/* Non-zero if debug print is on for this subtype. The last three arguments are always 0, 0, 1. */
int evtrace_chk_int(uint32_t subtype, int32_t second, int32_t third, int32_t fourth);

/* Like printf(3), to the platform's debug output (on a host: standard error of the process). */
void dbgprint(const char *format, ...) __attribute__((format(printf, 1, 2)));

#ifdef __cplusplus
}
#endif
#endif
