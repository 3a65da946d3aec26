// The module's two logs: the platform's debug history and the private trace file.
#include "config_copy_mib.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

int32_t is_snmp_debug_enabled = 0;

// set by trace_file_get(); open for the rest of the process's life
static FILE *trace_stream = nullptr;

static constexpr uint32_t HISTORY_MODULE_ID = 0x730000;
static constexpr size_t LOG_MESSAGE_SIZE = 512;

void cc_log(uint32_t subtype, const char *format, ...) {
    const int saved_errno = errno;
    const bool to_history = evtrace_hist_event_subtype_check(HISTORY_MODULE_ID, subtype) == 0;
    const bool to_print = evtrace_chk_int(subtype, 0, 0, 1) != 0;
    if (to_history || to_print) {
        char message[LOG_MESSAGE_SIZE];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(message, sizeof message, format, arguments);
        va_end(arguments);
        if (to_history) {
            evtrace_hist_event(HISTORY_MODULE_ID, subtype, (uint32_t)strlen(message), message);
        }
        if (to_print) {
            dbgprint("%s", message);
        }
    }
    errno = saved_errno;
}

// Opens a file for appending under a predictable name. Refuses what another user may have placed
// there (a link, a pipe, a file of that user), and makes the file unreadable for others, as it
// shows what managers requested. Returns a descriptor, or -1.
static int open_private(const char *name) {
    const int descriptor =
        open(name, O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat status;
    if (descriptor >= 0 &&
        (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode) ||
         status.st_uid != geteuid() || status.st_nlink != 1 || fchmod(descriptor, 0600) != 0)) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

FILE *trace_file_get(void) {
    if (trace_stream != nullptr) {
        return trace_stream;
    }
    char name[128];
    snprintf(name, sizeof name, "%s.%d", "/tmp/cfg_snmp_debug.log", (int)getpid());
    const int descriptor = open_private(name);
    FILE *stream = descriptor < 0 ? nullptr : fdopen(descriptor, "a");
    if (stream == nullptr) {
        if (descriptor >= 0) {
            close(descriptor);
        }
        fprintf(stderr, "Can't open %s", name);
        return nullptr;
    }
    trace_stream = stream;
    return trace_stream;
}

void cc_trace(const char *format, ...) {
    if (is_snmp_debug_enabled == 0) {
        return;
    }
    const int saved_errno = errno;
    FILE *stream = trace_file_get();
    if (stream != nullptr) {
        const time_t now = time(nullptr);
        char stamp[26]; // ctime_r(3)
        fprintf(stream, "[%.24s] ", ctime_r(&now, stamp));
        va_list arguments;
        va_start(arguments, format);
        vfprintf(stream, format, arguments);
        va_end(arguments);
        fputc('\n', stream);
        fflush(stream); // so that a crash loses no record
    }
    errno = saved_errno;
}
