/* The system manager ("warden"): keeper of the startup configuration, which carries out the
 * configuration actions requested over msgbus. */
#ifndef PLATFORM_SYSTEM_MANAGER_H
#define PLATFORM_SYSTEM_MANAGER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define WARDEN_STARTUP_FILE "system.cfg"

/* The directory of the startup configuration file WARDEN_STARTUP_FILE. `handle` is an endpoint of
 * msgbus, `which` is always 2. The text is never null and lives as long as the process. The CLI
 * shell takes this name for the startup configuration, also if the device keeps it elsewhere. */
const char *warden_cli_dir_get(int32_t handle, int32_t which);

/* Makes the text configuration in the file `path` the startup configuration, completely or not at
 * all: if the file can't be read or is not a valid configuration, nothing changes. Returns 0 or a
 * platform status code. */
uint32_t warden_cli_write_ascii_cfg(int32_t handle, const char *path);

/* From the agent to the system manager: a request, struct warden_cfg_action, which is answered with
 * one status word; and its abort, struct warden_cfg_abort, which is not answered. */
#define MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION 1381U
#define MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT 1383U

/* To the agent: the action has begun, without payload. It marks the table's first waiting row as
 * running. The row of an action that the module has requested is running before the request is
 * sent, so the message could only affect another row, and a platform may omit it. A platform must
 * send it if its system manager begins, without a request, an action that a waiting row is for. */
#define MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN 1391U

/* To the agent: the action has ended, with one big-endian word, 0 for success. It ends the first
 * running row, if that is a save. So it is sent only for what the module has asked for, once, and
 * as a failure also when the request can't be sent or is not answered in time, and when the system
 * manager ends first, within a second. A request that was not answered in time is withdrawn. */
#define MSGBUS_OPC_WARDEN_CFG_ACTION_END 1361U

/* Status words of the answer, big-endian on the wire; any other value is a refusal. */
#define WARDEN_CFG_ACTION_DONE 0U
#define WARDEN_CFG_ACTION_INITIATED 0x401E0003U

#define WARDEN_CFG_ACTION_TEXT_SIZE 32U

/* The request. Every integer is big-endian; reserved fields are zero. */
struct warden_cfg_action {
    uint32_t word0; /* WARDEN_CFG_ACTION_WORD0 */
    uint32_t word1; /* WARDEN_CFG_ACTION_WORD1 */
    uint8_t byte8;
    uint8_t byte9;
    uint8_t byte10; /* 1 */
    uint8_t byte11;
    uint32_t word12;
    uint32_t reserved16;
    uint32_t word20;
    uint32_t word24;
    uint32_t fabric; /* 1: save on every switch of the fabric */
    uint32_t word32;
    uint32_t reserved36;
    uint32_t all;                           /* 1: save every startup configuration of this switch */
    char user[WARDEN_CFG_ACTION_TEXT_SIZE]; /* NUL-terminated */
    char session[WARDEN_CFG_ACTION_TEXT_SIZE]; /* NUL-terminated */
    uint8_t reserved108[WARDEN_CFG_ACTION_TEXT_SIZE];
};
#define WARDEN_CFG_ACTION_WORD0 26U
#define WARDEN_CFG_ACTION_WORD1 1U

struct warden_cfg_abort {
    uint32_t token; /* of the start request, big-endian */
    uint32_t reserved;
};

#ifdef __cplusplus
}
static_assert(sizeof(warden_cfg_action) == 140 && offsetof(warden_cfg_action, fabric) == 28 &&
                  offsetof(warden_cfg_action, all) == 40 &&
                  offsetof(warden_cfg_action, user) == 44 &&
                  offsetof(warden_cfg_action, session) == 76,
              "layout of the configuration action request");
static_assert(sizeof(warden_cfg_abort) == 8, "layout of the abort request");
#endif
#endif
