#include "platform/host/agent/request.h"

#include "base/c_boundary.h"
#include "base/folders.h"
#include "base/settings.h"
#include "base/state_file.h"
#include "base/unique_fd.h"
#include "platform/agent_extension.h"
#include "platform/host/history/log.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/snmpTCPDomain.h>
#include <net-snmp/library/snmpTCPIPv6Domain.h>
#include <net-snmp/library/snmpUDPDomain.h>
#include <net-snmp/library/snmpUDPIPv6Domain.h>
#include <net-snmp/library/snmpUnixDomain.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

namespace ulmo {
namespace {

// Holds a returned text until the next call of the same function.
using TextBuffer = std::array<char, 256>;

const char *stored(TextBuffer &buffer, std::string_view text) {
    const size_t length = std::min(text.size(), buffer.size() - 1);
    std::memcpy(buffer.data(), text.data(), length);
    buffer[length] = '\0';
    return buffer.data();
}

std::string_view user_of(const netsnmp_pdu &request) {
    if (request.version == SNMP_VERSION_3) {
        return request.securityName != nullptr
                   ? std::string_view(request.securityName, request.securityNameLen)
                   : "";
    }
    return request.community != nullptr
               ? std::string_view(reinterpret_cast<const char *>(request.community),
                                  request.community_len)
               : "";
}

// As it was at the start; the agent removes it from its environment after reporting that it is up.
std::string &watchdog_address() {
    static auto *const address = new std::string;
    return *address;
}

// Sends one datagram to an address in the form of sd_notify(3); a leading '@' means the abstract
// namespace.
void notify_service_manager(std::string target, std::string_view text) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (target.empty() || target.size() >= sizeof address.sun_path) {
        return;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + target.size());
    if (target.front() == '@') {
        target.front() = '\0';
    }
    std::memcpy(address.sun_path, target.data(), target.size());
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket) {
        ::sendto(socket.get(), text.data(), text.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr *>(&address), length);
    }
}

void mark_change(int kind) {
    const auto path = state_dir() / "change-times";
    std::map<int, long long> times;
    std::ifstream previous(path);
    int known = 0;
    for (long long when = 0; previous >> known >> when;) {
        times[known] = when;
    }
    times[kind] = std::time(nullptr);
    std::ostringstream text;
    for (const auto &[marked, when] : times) {
        text << marked << ' ' << when << '\n';
    }
    replace_state_file(path, text.str());
}

// The security name that the agent's settings give to the community at that address.
std::string security_name(const netsnmp_pdu &request) {
    const char *name = nullptr;
    const char *context = nullptr;
    const auto *community = reinterpret_cast<const char *>(request.community);
    const std::size_t length = request.community_len;
    if (request.tDomain == netsnmpUDPDomain || request.tDomain == netsnmp_snmpTCPDomain) {
        netsnmp_udp_getSecName(request.transport_data, request.transport_data_length, community,
                               length, &name, &context);
    } else if (request.tDomain == netsnmp_UDPIPv6Domain ||
               request.tDomain == netsnmp_TCPIPv6Domain) {
        netsnmp_udp6_getSecName(request.transport_data, request.transport_data_length, community,
                                static_cast<int>(length), &name, &context);
    } else if (request.tDomain == netsnmp_UnixDomain) {
        netsnmp_unix_getSecName(request.transport_data, request.transport_data_length, community,
                                length, &name, &context);
    }
    return name != nullptr ? name : "";
}

} // namespace

const netsnmp_pdu *current_request() {
    const netsnmp_agent_session *session = netsnmp_get_current_agent_session();
    return session != nullptr ? session->pdu : nullptr;
}

std::string requester_name() {
    const netsnmp_pdu *request = current_request();
    if (request == nullptr) {
        return "";
    }
    return request->version == SNMP_VERSION_3 ? std::string(user_of(*request))
                                              : security_name(*request);
}

std::string requester_address() {
    const netsnmp_pdu *request = current_request();
    netsnmp_session *session =
        request != nullptr ? netsnmp_get_current_agent_session()->session : nullptr;
    netsnmp_transport *transport =
        session != nullptr ? ::snmp_sess_transport(::snmp_sess_pointer(session)) : nullptr;
    if (transport == nullptr || transport->f_fmtaddr == nullptr) {
        return "";
    }
    // Such as "UDP: [192.0.2.1]:40000->[192.0.2.2]:161".
    const std::unique_ptr<char, void (*)(void *)> text(
        transport->f_fmtaddr(transport, request->transport_data, request->transport_data_length),
        std::free);
    const std::string whole = text ? text.get() : "";
    const auto begin = whole.find('[');
    const auto end = whole.find(']', begin);
    return end == std::string::npos ? whole.substr(0, whole.find(':'))
                                    : whole.substr(begin + 1, end - begin - 1);
}

void remember_watchdog() {
    const char *address = std::getenv("NOTIFY_SOCKET");
    watchdog_address() = address != nullptr ? address : "";
}

void open_debug_file() {
    const std::string path = text_setting("agent_debug_file");
    if (path.empty() || ld_dbg_fp != nullptr) {
        return;
    }
    UniqueFd file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file || (ld_dbg_fp = ::fdopen(file.get(), "a")) == nullptr) {
        log_error("agent: debug file %s can't be opened, errno %d", path.c_str(), errno);
        return;
    }
    static_cast<void>(file.release());
    std::setvbuf(ld_dbg_fp, nullptr, _IOLBF, BUFSIZ);
}

} // namespace ulmo

extern "C" {

FILE *ld_dbg_fp = nullptr;

const char *get_snmp_username(int) {
    static ulmo::TextBuffer buffer;
    const netsnmp_pdu *request = ulmo::current_request();
    return ulmo::stored(buffer, request != nullptr ? ulmo::user_of(*request) : "");
}

const char *get_snmp_sessionid(int) {
    static ulmo::TextBuffer buffer;
    const netsnmp_pdu *request = ulmo::current_request();
    if (request == nullptr) {
        return ulmo::stored(buffer, "");
    }
    std::snprintf(buffer.data(), buffer.size(), "%ld", request->sessid);
    return buffer.data();
}

const char *snmp_get_ctx_vrf_for_current_req(int *status) {
    static ulmo::TextBuffer buffer;
    const netsnmp_pdu *request = ulmo::current_request();
    const bool has_context =
        request != nullptr && request->contextName != nullptr && request->contextNameLen > 0;
    if (status != nullptr) {
        *status = has_context ? 0 : ENOENT;
    }
    return ulmo::stored(
        buffer, has_context ? std::string_view(request->contextName, request->contextNameLen) : "");
}

void snmp_heartbeat_send(void) {
    ulmo::log_failure("agent: watchdog not fed",
                      [] { ulmo::notify_service_manager(ulmo::watchdog_address(), "WATCHDOG=1"); });
}

void set_mgmt_conf_last_change_time_extended(int kind) {
    ulmo::quietly([kind] { ulmo::mark_change(kind); },
                  [kind](const char *why) {
                      ulmo::log_error("agent: time of configuration change %d not marked: %s", kind,
                                      why);
                  });
}

} // extern "C"
