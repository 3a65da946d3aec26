/* Utilities of the platform. */
#ifndef PLATFORM_UTILITIES_H
#define PLATFORM_UTILITIES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Runs `program` (no shell, no search in PATH) with the arguments that follow, argv[1] first and a
 * null pointer last, and waits for it. A descriptor of -1 leaves that standard stream as it is. The
 * program inherits the three standard streams and no other descriptor. Needs SIGCHLD at its
 * default. Returns the wait status (waitpid(2)), or a negative value if the program could not be
 * run or waited for, or was ended by a signal and so has no exit code. */
int execute_program_and_wait_redirect(int in_fd, int out_fd, int err_fd, const char *program,
                                      ... /* const char *, null */) __attribute__((sentinel));

/* Records why a request was refused, for the query of the last error. `facility` is always 584. */
void log_set_error(uint32_t code, uint32_t facility);

/* The text of a platform status code; never null, valid until the next call of the same function.
 */
const char *syserr2str(uint32_t code);
const char *syserr_format(uint32_t code);

#ifdef __cplusplus
}
#endif
#endif
