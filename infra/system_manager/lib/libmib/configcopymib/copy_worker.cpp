// The copy worker: the forked process from its start to its report.
#include "config_copy_mib.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "platform/cli_shell.h"
#include "platform/system_manager.h"
#include "platform/utilities.h"

static constexpr size_t PATH_SIZE = 256;
static constexpr char WORKER[] = "copy_function"; // the function that the messages name

static void set_path(char (&path)[PATH_SIZE], const char *directory, const char *name) {
    // A path that does not fit is cut, and the file is then not found.
    const int written = snprintf(path, sizeof path, "%s/%s", directory, name);
    if (written < 0) {
        path[0] = '\0';
    }
}

static void read_working_directory(char (&directory)[PATH_SIZE]) {
    if (getcwd(directory, sizeof directory) == nullptr) {
        snprintf(directory, sizeof directory, ".");
    }
}

// --- the message service endpoint

static constexpr int32_t NO_ENDPOINT = -1;

static int32_t bind_endpoint(void) {
    static constexpr int32_t BIND_REQUEST_RESPONSE = 4;
    static constexpr struct msgbus_address ADDRESS = {{1, 0, 1024, 26, 0, 15}};
    return msgbus_bind(BIND_REQUEST_RESPONSE, -1, &ADDRESS, "req-resp");
}

// --- the CLI shell

static constexpr char SHELL_OUTPUT[] = "/tmp/configcopy.txt";

static void set_shell_file(char (&field)[CMDSHELL_FILE_SIZE], const char *path) {
    // like strncpy(3) into a cleared field
    memcpy(field, path, std::min<size_t>(strlen(path), CMDSHELL_FILE_SIZE));
}

static uint32_t execute_in_shell(const char *path) {
    struct cmdshell_exec_params params = {};
    set_shell_file(params.file, path);
    set_shell_file(params.output, SHELL_OUTPUT);
    return cmdshell_execute_cfg_file2(&params);
}

static int32_t fail_cause_of_shell(uint32_t result) {
    switch (result) {
    case CMDSHELL_ERR_BAD_FILE:
        return COPY_FAIL_BAD_CONFIG;
    case CMDSHELL_ERR_BAD_LINE:
    case CMDSHELL_ERR_APPLY:
        return COPY_FAIL_CONFIG_NOT_APPLIED;
    default:
        return COPY_FAIL_GENERAL;
    }
}

// --- the file name

// The last component of the manager's file name. It names the copy's local file in the working
// directory.
static const char *base_name_of(const char *file_name) {
    const char *separator = strrchr(file_name, '/');
    if (separator == nullptr && file_name[0] != '/') {
        separator = strrchr(file_name, '\\');
    }
    return separator != nullptr ? separator + 1 : file_name;
}

// Only an absolute name has a directory other than ".".
static void split_file_name(const struct ccCopyEntry *record, char (&directory)[PATH_SIZE],
                            char (&base_name)[PATH_SIZE]) {
    const char *name = record->ccCopyFileName;
    snprintf(base_name, sizeof base_name, "%s", base_name_of(name));
    snprintf(directory, sizeof directory, ".");
    if (name[0] == '/') {
        const size_t length = strlen(name) - 1 - strlen(base_name);
        if (length > 0) {
            snprintf(directory, sizeof directory, "%.*s", (int)length, name);
        }
        cc_log(EVTRACE_DEBUG, "%s : Retrieved the Directory name = %s\n", WORKER, directory);
    }
}

// --- from the network

// Makes the downloaded file the startup configuration. It stays in the working directory under the
// startup configuration's name.
static int32_t downloaded_to_startup(const char *base_name) {
    if (rename(base_name, WARDEN_STARTUP_FILE) != 0) {
        perror("Could not rename the file");
        return COPY_FAIL_GENERAL;
    }
    char directory[PATH_SIZE];
    char path[PATH_SIZE];
    read_working_directory(directory);
    set_path(path, directory, WARDEN_STARTUP_FILE);
    cc_log(EVTRACE_DEBUG, "%s : File to copy to startup is %s\n", WORKER, path);
    const int32_t endpoint = bind_endpoint();
    if (endpoint == NO_ENDPOINT) {
        perror("Unable to run");
        return COPY_FAIL_GENERAL;
    }
    const uint32_t result = warden_cli_write_ascii_cfg(endpoint, path);
    if (result != 0) {
        cc_log(EVTRACE_ERROR, "%s : Error copying file into startup (ret_code = %d: %s\n", WORKER,
               (int)result, syserr_format(result));
    }
    msgbus_unbind(endpoint, 0);
    return result == 0 ? 0 : COPY_FAIL_GENERAL;
}

static int32_t downloaded_to_running(const char *path) {
    cc_log(EVTRACE_DEBUG, "%s : File to be executed  %s\n", WORKER, path);
    const uint32_t result = execute_in_shell(path);
    cc_log(EVTRACE_DEBUG, "%s : Return from cmdshell_execute_cfg_file2 is %d\n", WORKER,
           (int)result);
    fprintf(stderr, "%s : Return from cmdshell_execute_cfg_file2 is %d\n", WORKER, (int)result);
    if (result != 0) {
        cc_log(EVTRACE_ERROR,
               "%s : cmdshell_execute_cfg_file2 : Copy from n/w to running failed (ret_code = %d) "
               ": %s\n",
               WORKER, (int)result, syserr_format(result));
    }
    unlink(path);
    return result == 0 ? 0 : fail_cause_of_shell(result);
}

static int32_t copy_from_network(struct ccCopyEntry *record, char (&directory)[PATH_SIZE],
                                 const char *base_name) {
    snprintf(record->ccCopySrcFileName, sizeof record->ccCopySrcFileName, "%s", base_name);
    const int32_t cause = do_nw_upload_download(COPY_DOWNLOAD, directory, record);
    if (cause != 0) {
        cc_log(EVTRACE_ERROR, "%s : Download of file %s from n/w server failed. (error = %d) \n",
               WORKER, record->ccCopyFileName, cause);
        return cause;
    }
    char path[PATH_SIZE];
    read_working_directory(directory);
    fprintf(stderr, "%s : dir %s\n", WORKER, directory);
    set_path(path, directory, base_name);
    fprintf(stderr, "%s : full filename %s\n", WORKER, path);
    switch (record->ccCopyDestFileType) {
    case COPY_FILE_STARTUP:
        return downloaded_to_startup(base_name);
    case COPY_FILE_RUNNING:
        return downloaded_to_running(path);
    default:
        return 0;
    }
}

// --- to the network

// The differences between the two configurations that can be uploaded.
struct upload_source {
    const char *show_command;
    const char *show_failed; // format for cc_log(): function, result
    const char *word;
    bool notify_shell;
};
static constexpr struct upload_source RUNNING_SOURCE = {
    "show running-config", "Show running config failed", "running", true};
static constexpr struct upload_source STARTUP_SOURCE = {
    "show startup-config", "Show startup config failed", "startup", false};

// Writes the configuration to the local file. Returns 0 or a fail cause.
static int32_t dump_configuration(const struct upload_source &source, const char *base_name) {
    const int file = open(base_name, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (file < 0) {
        const int error = errno;
        fprintf(stderr, "%s : could not open %s, errno = 0x%x\n", WORKER, base_name,
                (unsigned)error);
        cc_log(EVTRACE_ERROR, "%s : could not open %s, errno = 0x%x\n", WORKER, base_name,
               (unsigned)error);
        return COPY_FAIL_GENERAL;
    }
    const int status = with_default_sigchld([&] {
        return execute_program_and_wait_redirect(-1, file, -1, CMDSHELL_PROGRAM, "-c",
                                                 source.show_command, nullptr);
    });
    cc_log(EVTRACE_DEBUG, "%s : ret val = 0x%x\n", WORKER, (unsigned)status);
    close(file);
    if (status != 0) {
        cc_log(EVTRACE_ERROR, "%s : %s, ret_val = 0x%x\n", WORKER, source.show_failed,
               (unsigned)status);
        return COPY_FAIL_GENERAL;
    }
    return 0;
}

// Dumps the configuration and stores the dump's path in the record. On failure the endpoint stays
// bound until the process ends.
static int32_t prepare_upload(struct ccCopyEntry *record, const struct upload_source &source,
                              int32_t endpoint, char (&directory)[PATH_SIZE],
                              const char *base_name) {
    const int32_t cause = dump_configuration(source, base_name);
    if (cause != 0) {
        return cause;
    }
    read_working_directory(directory);
    set_path(record->ccCopySrcFileName, directory, base_name);
    CC_TRACE_AS(WORKER, ": ccCopySrcFileName %s from %s to network\n", record->ccCopySrcFileName,
                source.word);
    if (endpoint != NO_ENDPOINT) {
        if (source.notify_shell) {
            cc_log(EVTRACE_DEBUG, "%s : notifiy copy running <file> done\n", WORKER);
            cmdshell_notify_cfg_update(endpoint, 1, CMDSHELL_CFG_RUNNING_COPIED, 3);
        }
        msgbus_unbind(endpoint, 0);
    }
    return 0;
}

// Deletes the dump. Freeing the space of a large file takes long, so a descriptor that is never
// closed keeps the space allocated until the worker ends, right after its report.
static void delete_dump(const char *path) {
    (void)open(path, O_RDONLY | O_CLOEXEC);
    unlink(path);
}

static int32_t copy_to_network(struct ccCopyEntry *record, char (&directory)[PATH_SIZE],
                               const char *base_name) {
    const int32_t endpoint = bind_endpoint();
    const struct upload_source *source =
        record->ccCopySourceFileType == COPY_FILE_RUNNING   ? &RUNNING_SOURCE
        : record->ccCopySourceFileType == COPY_FILE_STARTUP ? &STARTUP_SOURCE
                                                            : nullptr;
    if (source != nullptr) {
        const int32_t cause = prepare_upload(record, *source, endpoint, directory, base_name);
        if (cause != 0) {
            return cause;
        }
    }
    const int32_t cause = do_nw_upload_download(COPY_UPLOAD, directory, record);
    if (cause == 0) {
        cc_log(EVTRACE_DEBUG, "%s : Copying done with SUCCESS\n", WORKER);
    } else {
        cc_log(EVTRACE_ERROR, "%s : Upload to n/w failed with code = %d \n", WORKER, cause);
    }
    if (source != nullptr) {
        delete_dump(record->ccCopySrcFileName);
    }
    return cause;
}

// --- startup to running

static int32_t copy_startup_to_running(void) {
    const int32_t endpoint = bind_endpoint();
    if (endpoint == NO_ENDPOINT) {
        perror("Unable to run");
        return COPY_FAIL_GENERAL;
    }
    char path[PATH_SIZE];
    set_path(path, warden_cli_dir_get(endpoint, 2), WARDEN_STARTUP_FILE);
    cc_log(EVTRACE_DEBUG, "%s : Copying startup (file = %s) to running\n", WORKER, path);
    const uint32_t result = execute_in_shell(path);
    cc_log(EVTRACE_DEBUG, "%s : Return from cmdshell_execute_cfg_file2 is %d\n", WORKER,
           (int)result);
    if (result == 0) {
        cc_log(EVTRACE_DEBUG, "%s : Copying done with SUCCESS\n", WORKER);
        cc_log(EVTRACE_DEBUG, "%s : notifiy copy start running done\n", WORKER);
        cmdshell_notify_cfg_update(endpoint, 1, CMDSHELL_CFG_STARTUP_TO_RUNNING, 3);
    } else {
        cc_log(EVTRACE_ERROR,
               "%s : cmdshell_execute_cfg_file2 : Copy from startup (file = %s) to running failed "
               "(ret_code = %d) : %s.\n",
               WORKER, path, (int)result, syserr_format(result));
    }
    msgbus_unbind(endpoint, 0);
    return result == 0 ? 0 : fail_cause_of_shell(result);
}

uint32_t send_status_2_parent(int32_t status) {
    static constexpr int BIND_ATTEMPTS = 10;
    static constexpr unsigned BIND_RETRY_SECONDS = 2;
    static constexpr int32_t BIND_ONE_WAY = 1;
    static constexpr struct msgbus_address ADDRESS = {{1, 0, 1024, 0, 0, 15}};

    cc_log(EVTRACE_ERROR, "%s: status is %d\n", __func__, status);
    for (int attempt = 0; attempt < BIND_ATTEMPTS; attempt++) {
        const int32_t handle = msgbus_bind(BIND_ONE_WAY, -1, &ADDRESS, "config_copy_task");
        if (handle >= 0) {
            if (msgbus_send(handle, MSGBUS_NODE_LOCAL, MSGBUS_SAP_AGENT, AGENT_OPC_WORKER_STATUS,
                            &status, sizeof status, nullptr, 0, 0) != 0) {
                cc_log(EVTRACE_ERROR, "%s: msgbus_send failed. errno %d\n", __func__, errno);
            }
            msgbus_unbind(handle, 0);
            return 0;
        }
        cc_log(EVTRACE_ERROR, "%s: msgbus_bind failed. errno %d\n", __func__, errno);
        sleep(BIND_RETRY_SECONDS);
    }
    cc_log(EVTRACE_ERROR, "%s: msgbus_bind failed. errno %d\n", __func__, errno);
    return CCERR_SEND_FAILED;
}

uint32_t copy_function(struct ccCopyEntry *record) {
    CC_TRACE(": Copy started with : ccCopyServerAddressRev1 = %.*s,ccCopyFileName= %.*s, "
             "ccCopyUserName=%.*s,ccCopyTimeStarted=%d "
             "ccCopyProtocol = %d ccCopySourceFileType = %d, ccCopyDestFileType= %d, "
             "ccCopyServerAddressType= %d\n",
             CC_ADDRESS_TEXT_SIZE, record->ccCopyServerAddressRev1, CC_FILE_NAME_SIZE,
             record->ccCopyFileName, CC_CREDENTIAL_SIZE, record->ccCopyUserName,
             (int32_t)cc_uptime_of(record->ccCopyTimeStarted), record->ccCopyProtocol,
             record->ccCopySourceFileType, record->ccCopyDestFileType,
             record->ccCopyServerAddressType);
    char directory[PATH_SIZE];
    char base_name[PATH_SIZE];
    split_file_name(record, directory, base_name);
    // a source without a local file has an empty name, not what the allocator left
    record->ccCopySrcFileName[0] = '\0';

    int32_t cause = 0; // every pair not handled below is done at once
    if (record->ccCopySourceFileType == COPY_FILE_NETWORK) {
        cause = copy_from_network(record, directory, base_name);
    } else if (record->ccCopyDestFileType == COPY_FILE_NETWORK) {
        cause = copy_to_network(record, directory, base_name);
    } else if (record->ccCopySourceFileType == COPY_FILE_STARTUP &&
               record->ccCopyDestFileType == COPY_FILE_RUNNING) {
        cause = copy_startup_to_running();
    }
    return send_status_2_parent(cause);
}
