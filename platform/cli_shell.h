/* The CLI shell: applies configuration files to the running configuration. */
#ifndef PLATFORM_CLI_SHELL_H
#define PLATFORM_CLI_SHELL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* cmdshell -c COMMAND runs COMMAND, prints its output, and exits with 0 on success. */
#define CMDSHELL_PROGRAM "/ulmo/bin/cmdshell"

/* Results of cmdshell_execute_cfg_file2(): the configuration could not be applied; the file does
 * not exist, can't be read or is not text of a configuration; the shell refused one of its lines.
 */
#define CMDSHELL_ERR_APPLY 0x40540001U
#define CMDSHELL_ERR_BAD_FILE 0x40540002U
#define CMDSHELL_ERR_BAD_LINE 0x40540003U

#define CMDSHELL_FILE_SIZE 128U

/* What to execute. All octets except the two names are zero. A name that fills its field has no
 * terminator. */
struct cmdshell_exec_params {
    uint8_t reserved0[4];
    char file[CMDSHELL_FILE_SIZE]; /* the configuration file */
    uint8_t reserved132[256];
    char output[CMDSHELL_FILE_SIZE]; /* receives what the shell prints meanwhile */
    uint8_t reserved516[528];
};

/* Applies the file to the running configuration, completely or not at all. The output file is
 * created for its owner only, and a link is not followed. Returns 0, one of the codes above, or
 * another platform status code. */
uint32_t cmdshell_execute_cfg_file2(const struct cmdshell_exec_params *params);

enum cmdshell_cfg_update {
    CMDSHELL_CFG_STARTUP_TO_RUNNING = 1,
    CMDSHELL_CFG_RUNNING_COPIED = 2, /* the running configuration is about to be uploaded */
};

/* Tells the shell that the configuration was copied. `handle` is an endpoint of msgbus; `second` is
 * always 1 and `fourth` always 3. */
int cmdshell_notify_cfg_update(int32_t handle, int second, int kind, int fourth);

#ifdef __cplusplus
}
static_assert(sizeof(cmdshell_exec_params) == 1044 && offsetof(cmdshell_exec_params, file) == 4 &&
                  offsetof(cmdshell_exec_params, output) == 388,
              "layout of the shell's parameter block");
#endif
#endif
