// Moving one file between the switch and a server, in the worker. TFTP uses the platform's client
// or, within a VRF, its program; FTP, SFTP and SCP use Expect scripts.
#include "config_copy_mib.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <iterator>

#include "platform/chassis.h"
#include "platform/tftp_client.h"
#include "platform/utilities.h"

static constexpr char FTP_SCRIPT[] = "/ulmo/bin/snmp.ftp.expect";
static constexpr char SFTP_SCRIPT[] = "/ulmo/bin/sftp.expect";
static constexpr char SCP_SCRIPT[] = "/ulmo/bin/scp.expect";
static constexpr char TFTP_PROGRAM[] = "/ulmo/bin/brix-tftp";

// Chassis types whose management traffic uses a VRF.
static constexpr int VRF_CHASSIS_TYPES[] = {10, 11, 19, 20, 21, 22, 26, 27, 28, 29, 30, 31, 32,
                                            33, 34, 39, 41, 42, 43, 44, 45, 46, 47, 49, 52};

// One transfer. Every text is terminated and cut to the size of its field.
struct transfer {
    const char *function; // the function that the messages name
    bool upload;
    bool download;
    char server[CC_ADDRESS_TEXT_SIZE];
    char local[CC_FILE_NAME_SIZE];
    char remote[CC_FILE_NAME_SIZE];
    char user[CC_CREDENTIAL_SIZE + 1];
    char password[CC_CREDENTIAL_SIZE + 1];
    const char *vrf_id; // the VRF's identifier as text, or null outside a VRF
};

template <size_t capacity, size_t field_size>
static void set_text(char (&text)[capacity], const char (&field)[field_size]) {
    const size_t length = strnlen(field, std::min(field_size, capacity - 1));
    memcpy(text, field, length);
    text[length] = '\0';
}

static struct transfer transfer_of(const char *function, int32_t direction,
                                   const struct ccCopyEntry *entry) {
    struct transfer t = {};
    t.function = function;
    t.upload = direction == COPY_UPLOAD;
    t.download = direction == COPY_DOWNLOAD;
    set_text(t.server, entry->ccCopyServerAddressRev1);
    set_text(t.local, entry->ccCopySrcFileName);
    set_text(t.remote, entry->ccCopyFileName);
    set_text(t.user, entry->ccCopyUserName);
    set_text(t.password, entry->ccCopyUserPassword);
    return t;
}

// --- results

// Deliberate: one table serves the TFTP protocol's error codes and the system's error numbers.
static int32_t fail_cause_of_code(int32_t code) {
    switch (code) {
    case 1:
    case 2:
        return COPY_FAIL_BAD_FILE_NAME;
    case 3:
        return COPY_FAIL_NO_SPACE;
    case 101: // ENETUNREACH
    case 110: // ETIMEDOUT
        return COPY_FAIL_TIMEOUT;
    default:
        return COPY_FAIL_GENERAL;
    }
}

int32_t tftperr2miberr(int32_t tftp_error) {
    return fail_cause_of_code(tftp_error < -100 ? -100 - tftp_error : -tftp_error);
}

static int exit_code_of(int wait_status) {
    return wait_status >> 8 & 0xff;
}

// The exit codes of the scripts are an interface: 0 done, 1 timed out, 2 file name refused, 3 no
// space.
static int32_t fail_cause_of_script(int wait_status) {
    if (wait_status < 0) {
        return COPY_FAIL_GENERAL;
    }
    switch (exit_code_of(wait_status)) {
    case 0:
        return 0;
    case 1:
        return COPY_FAIL_TIMEOUT;
    case 2:
        return COPY_FAIL_BAD_FILE_NAME;
    case 3:
        return COPY_FAIL_NO_SPACE;
    default:
        return COPY_FAIL_GENERAL;
    }
}

// --- scripts

static void log_request(const struct transfer &t) {
    if (t.upload) {
        cc_log(EVTRACE_DEBUG, "%s : Putting the file (%s)to the server (%s)\n", t.function, t.local,
               t.remote);
    } else {
        cc_log(EVTRACE_DEBUG, "%s : Getting file %s to local file %s \n", t.function, t.remote,
               t.local);
    }
}

// The VRF part of the trace lines; empty outside a VRF.
struct vrf_part {
    char text[48];
};
static struct vrf_part vrf_part_of(const struct transfer &t) {
    struct vrf_part part = {};
    if (t.vrf_id != nullptr) {
        snprintf(part.text, sizeof part.text, " vrf_id %s", t.vrf_id);
    }
    return part;
}

// Deliberate: the trace lines carry the password in clear.
static void trace_credentials(const struct transfer &t, const char *protocol, int wait_status) {
    fprintf(stderr,
            "%s: %s_%s  add %s ccCopySrcFileName %s ccCopyFileName %s ccCopyUserName %s "
            "ccCopyUserPassword %s%s ret_code 0x%x\n",
            t.function, protocol, t.upload ? "PUT" : "GET", t.server, t.local, t.remote, t.user,
            t.password, vrf_part_of(t).text, (unsigned)wait_status);
}

static int32_t script_result(const struct transfer &t, const char *script, int wait_status) {
    cc_log(EVTRACE_DEBUG, "%s : Return code from %s is  %d\n", t.function, script,
           exit_code_of(wait_status));
    return fail_cause_of_script(wait_status);
}

// Outside a VRF the identifier is null and ends the argument list.
static int32_t ftp_transfer(const struct transfer &t) {
    log_request(t);
    const int status = with_default_sigchld([&] {
        return execute_program_and_wait_redirect(-1, -1, -1, FTP_SCRIPT, t.server,
                                                 t.upload ? t.local : t.remote,
                                                 t.upload ? t.remote : t.local, t.user, t.password,
                                                 t.upload ? "put" : "get", t.vrf_id, nullptr);
    });
    trace_credentials(t, "FTP", status);
    return script_result(t, "ftp.expect", status);
}

static int32_t sftp_transfer(const struct transfer &t) {
    log_request(t);
    const int status = with_default_sigchld([&] {
        return execute_program_and_wait_redirect(
            -1, -1, -1, SFTP_SCRIPT, t.server, t.user, t.password, t.upload ? "put" : "get",
            t.upload ? t.local : t.remote, t.upload ? t.remote : t.local, t.vrf_id, nullptr);
    });
    trace_credentials(t, "SFTP", status);
    return script_result(t, "sftp.expect", status);
}

static int32_t scp_transfer(const struct transfer &t) {
    static constexpr size_t TARGET_SIZE = 256;
    char target[TARGET_SIZE];
    char whole[sizeof t.user + sizeof t.server + sizeof t.remote + 2];
    snprintf(whole, sizeof whole, "%s%s%s:%s", t.user, "@", t.server, t.remote);
    set_text(target, whole);
    const char *from = t.upload ? t.local : target;
    const char *to = t.upload ? target : t.local;
    cc_log(EVTRACE_DEBUG, "%s: executing command: %s %s %s %s", t.function, SCP_SCRIPT, from, to,
           t.password);
    const int status = with_default_sigchld([&] {
        return execute_program_and_wait_redirect(-1, -1, -1, SCP_SCRIPT, from, to, t.password,
                                                 t.vrf_id, nullptr);
    });
    fprintf(stderr, "%s: SCP_%s ccCopySrcFileName %s tmp_buf %s passwd %s%s ret_code 0x%x\n",
            t.function, t.upload ? "PUT" : "GET", t.local, target, t.password, vrf_part_of(t).text,
            (unsigned)status);
    return script_result(t, "scp.expect", status);
}

// Every protocol except TFTP, inside and outside a VRF.
static int32_t transfer_by_script(const struct transfer &t, int32_t protocol) {
    if (protocol == COPY_PROTO_RCP) {
        return COPY_FAIL_GENERAL;
    }
    int32_t (*run)(const struct transfer &) = protocol == COPY_PROTO_FTP    ? ftp_transfer
                                              : protocol == COPY_PROTO_SFTP ? sftp_transfer
                                              : protocol == COPY_PROTO_SCP  ? scp_transfer
                                                                            : nullptr;
    if (run == nullptr) {
        cc_log(EVTRACE_ERROR, "%s : Protocol not supported\n", t.function);
        return COPY_FAIL_UNSUPPORTED_PROTOCOL;
    }
    return t.upload || t.download ? run(t) : (int32_t)COPY_FAIL_GENERAL;
}

// --- outside a VRF

static int32_t tftp_upload(const struct transfer &t) {
    log_request(t);
    const int result = with_default_sigchld([&] { return tftp_put2(t.local, t.remote, 0); });
    if (result < 0) {
        cc_log(EVTRACE_ERROR, "%s : Putting to  the tftp server failed : %s (errno: %d)\n",
               t.function, tftp_strerror(result), result);
        return tftperr2miberr(result);
    }
    cc_log(EVTRACE_DEBUG, "%s : File %s is uploaded\n", t.function, t.remote);
    return 0;
}

static int32_t tftp_download(const struct transfer &t) {
    log_request(t);
    const int result = with_default_sigchld([&] { return tftp_get2(t.remote, t.local, 0); });
    if (result < 0) {
        cc_log(EVTRACE_ERROR, "%s : Getting from tftp server failed :(%d) %s\n", t.function, result,
               tftp_strerror(result));
        return tftperr2miberr(result);
    }
    cc_log(EVTRACE_DEBUG, "%s :  File %s is downloaded\n", t.function, t.remote);
    return 0;
}

static int32_t tftp_transfer(const struct transfer &t, int chassis_result) {
    static constexpr int TIMEOUT_SECONDS = 20;
    static constexpr int DEFAULT_PORT = -1;
    cc_log(EVTRACE_DEBUG, "%s : get chassis type return %d\n", t.function, chassis_result);
    const int timeout_set = tftp_timeout_set(TIMEOUT_SECONDS);
    if (timeout_set < 0) {
        cc_log(EVTRACE_ERROR, "%s : Setting timeout failed : %s\n", t.function,
               tftp_strerror(timeout_set));
        return COPY_FAIL_GENERAL;
    }
    const int connected = tftp_connect(t.server, DEFAULT_PORT);
    if (connected < 0) {
        cc_log(EVTRACE_ERROR, "%s : Connecting to the tftp server failed : %s\n", t.function,
               tftp_strerror(connected));
        return tftperr2miberr(connected);
    }
    return t.upload ? tftp_upload(t) : t.download ? tftp_download(t) : 0;
}

int32_t do_nw_upload_download(int32_t direction, char *work_dir, struct ccCopyEntry *entry) {
    int chassis_type = -1;
    const int chassis_result = hwinfo_get_chassis_type(&chassis_type);
    if (chassis_result == 0 && std::find(std::begin(VRF_CHASSIS_TYPES), std::end(VRF_CHASSIS_TYPES),
                                         chassis_type) != std::end(VRF_CHASSIS_TYPES)) {
        return do_nw_upload_download_on_vrf(direction, work_dir, entry);
    }
    const struct transfer t = transfer_of(__func__, direction, entry);
    return entry->ccCopyProtocol == COPY_PROTO_TFTP ? tftp_transfer(t, chassis_result)
                                                    : transfer_by_script(t, entry->ccCopyProtocol);
}

// --- within a VRF

static constexpr size_t VRF_NAME_SIZE = 32;
static constexpr char DEFAULT_VRF[VRF_NAME_SIZE] = "management";

// The command line, with room for file names in which every character is escaped.
static constexpr size_t COMMAND_SIZE = 512 + 2 * (size_t)CC_FILE_NAME_SIZE + VRF_NAME_SIZE;

// Copies a text, with a backslash before each character for which `special` holds.
static void escape(char *out, const char *text, bool (*special)(char)) {
    for (; *text != '\0'; text++) {
        if (special(*text)) {
            *out++ = '\\';
        }
        *out++ = *text;
    }
    *out = '\0';
}

// Characters that the shell interprets inside double quotes (POSIX, Shell Command Language, 2.2.3).
static bool special_in_quotes(char c) {
    return strchr("\\\"$`", c) != nullptr;
}

// Outside quotes, every character is escaped unless it certainly means nothing to the shell.
static bool special_outside_quotes(char c) {
    return !((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
             strchr("._-:@%+", c) != nullptr);
}

static int32_t tftp_transfer_on_vrf(const struct transfer &t, const char *vrf_name) {
    static constexpr int TFTP_PORT = 69;
    if (!t.upload && !t.download) {
        return 0;
    }
    char local[2 * sizeof t.local];
    char remote[2 * sizeof t.remote];
    char vrf[2 * VRF_NAME_SIZE];
    escape(local, t.local, special_in_quotes);
    escape(remote, t.remote, special_in_quotes);
    escape(vrf, vrf_name, special_outside_quotes);
    char command[COMMAND_SIZE + sizeof t.local];
    snprintf(command, sizeof command, "%s %d %s %d \"%s\" \"%s\" 1 %s", TFTP_PROGRAM,
             t.upload ? 1 : 0, t.server, TFTP_PORT, local, remote, vrf);
    cc_log(EVTRACE_DEBUG, "%s : tftp_cmd %s\n", t.function, command);
    int error = 0;
    const int status = with_default_sigchld([&] {
        const int result = system(command);
        error = errno;
        return result;
    });
    if (status == -1) {
        return fail_cause_of_code(error);
    }
    // the program's own exit code is deliberately ignored; 127: no shell
    return status == 0 ? 0 : (int32_t)COPY_FAIL_GENERAL;
}

int32_t do_nw_upload_download_on_vrf(int32_t direction, char *, struct ccCopyEntry *entry) {
    char vrf_name[VRF_NAME_SIZE];
    memcpy(vrf_name, DEFAULT_VRF, sizeof vrf_name);
    int status = 0;
    const char *context_vrf = snmp_get_ctx_vrf_for_current_req(&status);
    if (status != 0) {
        cc_log(EVTRACE_ERROR, "%s : get vrf failed with %d\n", __func__, status);
    } else {
        snprintf(vrf_name, sizeof vrf_name, "%s", context_vrf);
    }
    // passed on unchanged: reporting an unknown VRF is up to the transport
    const int vrf_id = vrfdir_get_context_id(vrf_name);
    char vrf_id_text[32];
    snprintf(vrf_id_text, sizeof vrf_id_text, "%d", vrf_id);
    cc_log(EVTRACE_DEBUG, "%s : vrf name %s vrf_id %d\n", __func__, vrf_name, vrf_id);

    struct transfer t = transfer_of(__func__, direction, entry);
    t.vrf_id = vrf_id_text;
    return entry->ccCopyProtocol == COPY_PROTO_TFTP ? tftp_transfer_on_vrf(t, vrf_name)
                                                    : transfer_by_script(t, entry->ccCopyProtocol);
}
