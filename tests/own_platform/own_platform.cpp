// A small platform: all that the module needs of a switch. This one's configurations,
// running.cfg and system.cfg, are files of the folder $OWN_PLATFORM, and so is its TFTP server,
// server/. It has no system manager and refuses saves; it belongs to no fabric, and has no VRF,
// no debug history, and no transfers but TFTP's.
#include "platform/agent_extension.h"
#include "platform/chassis.h"
#include "platform/cli_shell.h"
#include "platform/evtrace.h"
#include "platform/fabric.h"
#include "platform/inet_address.h"
#include "platform/keyedset.h"
#include "platform/msgbus.h"
#include "platform/system_manager.h"
#include "platform/tftp_client.h"
#include "platform/utilities.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <set>
#include <string>

struct msgbus_message {
    uint32_t opcode;
    int32_t status;
};

namespace {

namespace fs = std::filesystem;

const char *const named = std::getenv("OWN_PLATFORM");
const std::string folder = named != nullptr ? named : "/var/lib/own_platform";

// Returns 0, or an error of the system in the form in which the TFTP functions return it.
int copy_file(const fs::path &from, const fs::path &to) {
    std::error_code error;
    fs::copy_file(from, to, fs::copy_options::overwrite_existing, error);
    return error ? -(100 + error.value()) : 0;
}

struct Before {
    using is_transparent = void;
    keyedset_compare compare;
    bool operator()(const void *a, const void *b) const { return compare(a, b) > 0; }
};
using Objects = std::set<void *, Before>;

Objects *objects_of(const keyedset *set) {
    return static_cast<Objects *>(set->impl);
}

std::map<uint32_t, agent_message_handler> handlers;
int bus[2]; // the agent's end, the worker's end
pid_t worker = 0;
msgbus_message refusal{MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, -1};

void deliver(msgbus_message message) {
    const auto found = handlers.find(message.opcode);
    if (found != handlers.end()) {
        oid name[AGENT_NOTIFICATION_OID_MAX];
        uint32_t length = 0;
        uint32_t send = 0; // only the end of a save asks for it
        found->second(&message, name, &length, &send);
    }
}

// The worker has sent its report, or has closed its end without one, which counts as a failure.
void worker_is_done(int end, void *) {
    msgbus_message report{AGENT_OPC_WORKER_STATUS, 1};
    ::recv(end, &report, sizeof report, 0);
    unregister_readfd(end);
    ::close(end);
    if (worker > 0) { // otherwise it could not be forked
        ::waitpid(worker, nullptr, 0);
    }
    deliver(report);
}

} // namespace

extern "C" {

// agent_extension.h, and what the module calls in the place of fork()
FILE *ld_dbg_fp = nullptr;

int register_for_notification(uint32_t opcode, agent_message_handler handler) {
    handlers[opcode] = handler;
    return 0;
}
int unregister_for_notification(uint32_t opcode) {
    return handlers.erase(opcode) == 1 ? 0 : ENOENT;
}

netsnmp_variable_list *build_varbind(netsnmp_variable_list *previous, const void *value,
                                     uint8_t type, uint32_t length, const oid *name,
                                     uint32_t name_length) {
    long word = 0;
    if (type == ASN_INTEGER || type == ASN_TIMETICKS) {
        word = type == ASN_INTEGER ? long{*static_cast<const int32_t *>(value)}
                                   : long{*static_cast<const uint32_t *>(value)};
        value = &word;
        length = sizeof word;
    }
    netsnmp_variable_list *list = nullptr;
    snmp_varlist_add_variable(&list, name, name_length, type, value, length);
    if (list != nullptr && previous != nullptr) {
        previous->next_variable = list;
    }
    return list;
}

int enqueue_notification(int, const oid *name, uint32_t length, netsnmp_variable_list *list) {
    const oid up_time_name[] = {1, 3, 6, 1, 2, 1, 1, 3, 0};
    const oid trap_name[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
    const u_long up_time = netsnmp_get_agent_uptime();
    netsnmp_variable_list *all = nullptr;
    snmp_varlist_add_variable(&all, up_time_name, std::size(up_time_name), ASN_TIMETICKS, &up_time,
                              sizeof up_time);
    snmp_varlist_add_variable(&all, trap_name, std::size(trap_name), ASN_OBJECT_ID, name,
                              length * sizeof(oid));
    all->next_variable->next_variable = list;
    send_v2trap(all);
    snmp_free_varbind(all);
    return 0;
}

const char *get_snmp_username(int) {
    return "";
}
const char *get_snmp_sessionid(int) {
    return "";
}
const char *snmp_get_ctx_vrf_for_current_req(int *status) {
    return *status = ENOENT, "";
}
void snmp_heartbeat_send(void) {}
void set_mgmt_conf_last_change_time_extended(int) {}

pid_t __real_fork(void);
pid_t __wrap_fork(void) {
    ::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, bus);
    worker = __real_fork();
    if (worker == 0) {
        ::close(bus[0]);                    // a real one closes the agent's sockets, too
        fs::current_path(folder + "/work"); // it writes files whose names a manager chose
    } else {
        ::close(bus[1]);
        register_readfd(bus[0], worker_is_done, nullptr);
    }
    return worker;
}

// msgbus.h: a worker's report to the agent; each request to the system manager is refused
int32_t msgbus_response_q = 0;
int32_t msgbus_bind(int32_t, int32_t, const struct msgbus_address *, const char *) {
    return 0;
}
int32_t msgbus_unbind(int32_t, int32_t) {
    return 0;
}
int32_t msgbus_send(int32_t, uint32_t, uint32_t sap, uint32_t opcode, const void *payload,
                    uint32_t length, msgbus_msg *store, uint32_t, uint32_t) {
    if (sap == MSGBUS_SAP_WARDEN && store != nullptr) {
        *store = &refusal;
        return 0;
    }
    msgbus_message message{opcode, 0};
    if (sap != MSGBUS_SAP_AGENT || length != sizeof message.status) {
        errno = ENOENT;
        return -1;
    }
    std::memcpy(&message.status, payload, length);
    return ::send(bus[1], &message, sizeof message, MSG_NOSIGNAL) < 0 ? -1 : 0;
}
int32_t msgbus_recv(int32_t, msgbus_msg *message, const struct msgbus_recv_options *) {
    *message = &refusal;
    return 0;
}
void msgbus_drop(int32_t, msgbus_msg *message) {
    *message = nullptr;
}
uint32_t msgbus_opc_get(msgbus_msg message) {
    return message->opcode;
}
const void *msgbus_payload_get(msgbus_msg message, uint32_t at_least) {
    return at_least <= sizeof message->status ? &message->status : nullptr;
}
uint32_t msgbus_rr_token_get(msgbus_msg message) {
    return message != nullptr ? 1 : 0;
}

// keyedset.h; a real one counts to the n-th object in O(log n) and returns null without memory
int keyedset_create(struct keyedset *set, int, int, keyedset_compare compare, int) {
    if (keyedset_size(set) > 0) {
        return 0;
    }
    delete objects_of(set);
    set->impl = new Objects(Before{compare});
    return KEYEDSET_CREATED;
}
void *keyedset_add(struct keyedset *set, const void *, void *object) {
    Objects *all = objects_of(set);
    return all != nullptr && all->insert(object).second ? object : nullptr;
}
void *keyedset_find(const struct keyedset *set, const void *key) {
    Objects *all = objects_of(set);
    const auto found = all != nullptr ? all->find(key) : Objects::iterator{};
    return all != nullptr && found != all->end() ? *found : nullptr;
}
void *keyedset_find_nextgreater(const struct keyedset *set, const void *key) {
    Objects *all = objects_of(set);
    const auto found = all != nullptr ? all->upper_bound(key) : Objects::iterator{};
    return all != nullptr && found != all->end() ? *found : nullptr;
}
void *keyedset_find_nth_obj(const struct keyedset *set, uint32_t n) {
    return n >= 1 && n <= keyedset_size(set) ? *std::next(objects_of(set)->begin(), n - 1)
                                             : nullptr;
}
void *keyedset_remove(struct keyedset *set, const void *key) {
    void *found = keyedset_find(set, key);
    return found != nullptr && objects_of(set)->erase(found) == 1 ? found : nullptr;
}
uint32_t keyedset_size(const struct keyedset *set) {
    return objects_of(set) != nullptr ? static_cast<uint32_t>(objects_of(set)->size()) : 0;
}
void keyedset_destroy(struct keyedset *set) {
    delete objects_of(set);
    set->impl = nullptr;
}

// inet_address.h
int ip_addr_from_str(const char *text, struct inet_address *address) {
    struct inet_address read = {};
    if (::inet_pton(AF_INET, text, read.octets) == 1) {
        read.type = INET_ADDRESS_IPV4;
    } else if (::inet_pton(AF_INET6, text, read.octets) == 1) {
        read.type = INET_ADDRESS_IPV6;
    } else {
        return EINVAL;
    }
    *address = read;
    return 0;
}
int ip_addr_to_str(const struct inet_address *address, char *text, size_t size) {
    const int family = address->type == INET_ADDRESS_IPV4 ? AF_INET : AF_INET6;
    return ::inet_ntop(family, address->octets, text, static_cast<socklen_t>(size)) ? 0 : ENOSPC;
}

// tftp_client.h
int tftp_timeout_set(int) {
    return 0;
}
int tftp_connect(const char *, int) {
    return 0;
}
int tftp_put2(const char *local, const char *remote, int) {
    return copy_file(local, folder + "/server/" + remote);
}
int tftp_get2(const char *remote, const char *local, int) {
    return copy_file(folder + "/server/" + remote, local);
}
const char *tftp_strerror(int error) {
    return std::strerror(-error - 100);
}

// utilities.h: the one program that this switch runs prints a configuration
int execute_program_and_wait_redirect(int, int out, int, const char *, ...) {
    std::error_code error;
    fs::copy_file(folder + "/running.cfg", "/proc/self/fd/" + std::to_string(out),
                  fs::copy_options::overwrite_existing, error);
    return error ? -1 : 0;
}
void log_set_error(uint32_t, uint32_t) {}
const char *syserr2str(uint32_t) {
    return "failed";
}
const char *syserr_format(uint32_t) {
    return "failed";
}

// cli_shell.h
uint32_t cmdshell_execute_cfg_file2(const struct cmdshell_exec_params *params) {
    return copy_file(params->file, folder + "/running.cfg") == 0 ? 0 : CMDSHELL_ERR_BAD_FILE;
}
int cmdshell_notify_cfg_update(int32_t, int, int, int) {
    return 0;
}

// system_manager.h
const char *warden_cli_dir_get(int32_t, int32_t) {
    return folder.c_str();
}
uint32_t warden_cli_write_ascii_cfg(int32_t, const char *path) {
    return copy_file(path, folder + "/" WARDEN_STARTUP_FILE) == 0 ? 0 : 1;
}

// fabric.h
int ctlmsg_req_resp(uint32_t, int, const void *, void **response, uint32_t *, int, int, uint32_t,
                    int32_t, uint32_t) {
    *response = nullptr;
    return ENOENT;
}
int fabstat_status_next_get(struct fabstat_status *, char *, uint32_t, uint32_t, uint32_t) {
    return ENOENT;
}
void fabstat_status_clean(void) {}
void if_index_mgmt_sup_port_init(uint32_t *if_index, uint32_t, uint32_t) {
    *if_index = 0;
}
int addrcfg_get_if_inet_addrs(int32_t, uint32_t, struct addrcfg_inet_addrs **) {
    return ENOENT;
}

// chassis.h
int hwinfo_get_chassis_type(int *) {
    return ENOENT;
}
int vrfdir_get_context_id(const char *) {
    return -1;
}

// evtrace.h
int evtrace_hist_event_subtype_check(uint32_t, uint32_t) {
    return 1;
}
void evtrace_hist_event(uint32_t, uint32_t, uint32_t, const char *) {}
int evtrace_chk_int(uint32_t, int32_t, int32_t, int32_t) {
    return 0;
}
void dbgprint(const char *, ...) {}

} // extern "C"
