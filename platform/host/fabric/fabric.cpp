// This switch's WWN and addresses, from the settings and the kernel's interfaces and routes, and
// what each switch reported about the last save of the fabric.
#include "platform/fabric.h"

#include "base/c_boundary.h"
#include "base/posix.h"
#include "base/settings.h"
#include "platform/host/fabric/status.h"
#include "platform/host/fabric/wwn.h"
#include "platform/host/history/log.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <net/route.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <memory>
#include <sstream>
#include <vector>

namespace ulmo {
namespace {

struct FreeAddresses {
    void operator()(ifaddrs *list) const { ::freeifaddrs(list); }
};
using InterfaceAddresses = std::unique_ptr<ifaddrs, FreeAddresses>;

InterfaceAddresses interface_addresses() {
    ifaddrs *list = nullptr;
    check(::getifaddrs(&list), "getifaddrs");
    return InterfaceAddresses(list);
}

// The fields that matter here of the kernel's routing table files (proc(5)). The columns before the
// interface name differ between the families.
struct RouteFile {
    const char *path;
    std::size_t name_column, flags_column, metric_column;
    std::vector<std::size_t> zero_columns; // all zero in a default route
};

std::string default_route_interface(const RouteFile &layout) {
    std::ifstream file(layout.path);
    std::string interface;
    unsigned long best = std::numeric_limits<unsigned long>::max();
    const auto number = [](const std::string &text, int base) {
        return std::strtoul(text.c_str(), nullptr, base);
    };
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        const std::vector<std::string> fields{std::istream_iterator<std::string>(words), {}};
        const bool is_default =
            fields.size() > layout.name_column && fields.size() > layout.metric_column &&
            std::all_of(layout.zero_columns.begin(), layout.zero_columns.end(),
                        [&](std::size_t column) {
                            return fields.size() > column &&
                                   fields[column].find_first_not_of('0') == std::string::npos;
                        });
        if (!is_default ||
            (number(fields[layout.flags_column], 16) & (RTF_UP | RTF_REJECT)) != RTF_UP) {
            continue;
        }
        // IPv4 metrics are decimal, IPv6 ones hexadecimal.
        const unsigned long metric =
            number(fields[layout.metric_column], layout.name_column == 0 ? 10 : 16);
        if (interface.empty() || metric < best) {
            interface = fields[layout.name_column];
            best = metric;
        }
    }
    return interface;
}

// The first interface that is up and is not a loopback interface, or else the loopback interface.
std::string any_interface() {
    std::string loopback;
    const auto addresses = interface_addresses();
    for (const ifaddrs *each = addresses.get(); each != nullptr; each = each->ifa_next) {
        if ((each->ifa_flags & IFF_LOOPBACK) != 0) {
            loopback = each->ifa_name;
        } else if ((each->ifa_flags & IFF_UP) != 0) {
            return each->ifa_name;
        }
    }
    return loopback;
}

std::string management_interface() {
    if (std::string named = text_setting("management_interface"); !named.empty()) {
        return named;
    }
    const RouteFile ipv4{"/proc/self/net/route", 0, 3, 6, {1, 7}};
    const RouteFile ipv6{"/proc/self/net/ipv6_route", 9, 8, 5, {0, 1}};
    std::string interface = default_route_interface(ipv4);
    if (interface.empty()) {
        interface = default_route_interface(ipv6);
    }
    return interface.empty() ? any_interface() : interface;
}

enum class Rank { ipv4, ipv6, link_local }; // in the order of the address list

struct RankedAddress {
    Rank rank;
    inet_address address;
};

std::optional<RankedAddress> ranked(const sockaddr &address) {
    RankedAddress result{};
    if (address.sa_family == AF_INET) {
        sockaddr_in ipv4{};
        std::memcpy(&ipv4, &address, sizeof ipv4);
        result.rank = Rank::ipv4;
        result.address.type = INET_ADDRESS_IPV4;
        std::memcpy(result.address.octets, &ipv4.sin_addr, sizeof ipv4.sin_addr);
        return result;
    }
    if (address.sa_family == AF_INET6) {
        sockaddr_in6 ipv6{};
        std::memcpy(&ipv6, &address, sizeof ipv6);
        result.rank = IN6_IS_ADDR_LINKLOCAL(&ipv6.sin6_addr) ? Rank::link_local : Rank::ipv6;
        result.address.type = INET_ADDRESS_IPV6;
        std::memcpy(result.address.octets, &ipv6.sin6_addr, sizeof ipv6.sin6_addr);
        return result;
    }
    return std::nullopt;
}

std::vector<RankedAddress> addresses_of(const std::string &interface) {
    std::vector<RankedAddress> found;
    const auto addresses = interface_addresses();
    for (const ifaddrs *each = addresses.get(); each != nullptr; each = each->ifa_next) {
        if (each->ifa_addr == nullptr || interface != each->ifa_name) {
            continue;
        }
        if (const auto address = ranked(*each->ifa_addr)) {
            found.push_back(*address);
        }
    }
    std::stable_sort(
        found.begin(), found.end(),
        [](const RankedAddress &a, const RankedAddress &b) { return a.rank < b.rank; });
    return found;
}

// The fabric walk: read at its first step, kept until it is over.
std::vector<FabricSwitchStatus> walked;
bool is_walking = false;

Wwn wwn_of(const std::uint32_t first, const std::uint32_t second) {
    Wwn wwn{};
    std::memcpy(wwn.data(), &first, sizeof first);
    std::memcpy(wwn.data() + sizeof first, &second, sizeof second);
    return wwn;
}

const FabricSwitchStatus *switch_after(const Wwn &cursor) {
    const bool begins = cursor == Wwn{};
    if (begins || !is_walking) {
        walked = read_fabric_status();
        is_walking = true;
    }
    auto next = walked.begin();
    if (!begins) {
        next = std::find_if(walked.begin(), walked.end(),
                            [&](const FabricSwitchStatus &each) { return each.wwn == cursor; });
        if (next != walked.end()) {
            ++next;
        }
    }
    return next == walked.end() ? nullptr : &*next;
}

// Nothing if the setting is bad; the reason is logged.
std::optional<Wwn> own_wwn() {
    try {
        return local_wwn();
    } catch (const SettingsError &error) {
        log_error("fabric: %s", error.what());
        return std::nullopt;
    }
}

} // namespace
} // namespace ulmo

int ctlmsg_req_resp(uint32_t request, int /*second*/, const void * /*third*/, void **response,
                    uint32_t *length, int /*sixth*/, int /*seventh*/, uint32_t /*destination*/,
                    int32_t /*queue*/, uint32_t /*timeout*/) {
    if (response == nullptr || length == nullptr) {
        return EINVAL;
    }
    *response = nullptr;
    *length = 0;
    if (request != CTLMSG_REQ_SWITCH_WWN) {
        return ENOTSUP;
    }
    return ulmo::errno_of([=] {
        const auto wwn = ulmo::own_wwn();
        if (!wwn) {
            return EINVAL;
        }
        void *answer = std::malloc(wwn->size());
        if (answer == nullptr) {
            return ENOMEM;
        }
        std::memcpy(answer, wwn->data(), wwn->size());
        *response = answer;
        *length = SWITCH_WWN_SIZE;
        return 0;
    });
}

int fabstat_status_next_get(struct fabstat_status *status, char *text, uint32_t size,
                            uint32_t local_wwn_first, uint32_t local_wwn_second) {
    if (status == nullptr || (text == nullptr && size != 0)) {
        return EINVAL;
    }
    return ulmo::errno_of([=] {
        ulmo::Wwn cursor{};
        std::copy(std::begin(status->wwn), std::end(status->wwn), cursor.begin());
        const ulmo::FabricSwitchStatus *next = ulmo::switch_after(cursor);
        if (next == nullptr) {
            return ENOENT;
        }
        const bool is_local =
            next->is_local || next->wwn == ulmo::wwn_of(local_wwn_first, local_wwn_second);
        *status = {};
        std::copy(next->wwn.begin(), next->wwn.end(), status->wwn);
        status->local = is_local ? 1 : 0;
        if (!is_local) {
            status->address = next->address;
        }
        const std::size_t copied = next->text.copy(text, size);
        if (copied < size) {
            text[copied] = '\0';
        }
        return 0;
    });
}

void fabstat_status_clean(void) {
    ulmo::walked = {};
    ulmo::is_walking = false;
}

void if_index_mgmt_sup_port_init(uint32_t *if_index, uint32_t /*second*/, uint32_t /*third*/) {
    if (if_index == nullptr) {
        return;
    }
    *if_index = 0;
    ulmo::log_failure("the management interface is not known", [=] {
        const std::string interface = ulmo::management_interface();
        *if_index = ::if_nametoindex(interface.c_str());
        if (*if_index == 0) {
            ulmo::log_error("there is no management interface \"%s\"", interface.c_str());
        }
    });
}

int addrcfg_get_if_inet_addrs(int32_t /*queue*/, uint32_t if_index,
                              struct addrcfg_inet_addrs **addresses) {
    if (addresses == nullptr) {
        return EINVAL;
    }
    *addresses = nullptr;
    return ulmo::errno_of([=] {
        char interface[IF_NAMESIZE];
        if (::if_indextoname(if_index, interface) == nullptr) {
            return errno;
        }
        const auto found = ulmo::addresses_of(interface);
        // The record has room for at least one address, even if the list is empty.
        const std::size_t entries = std::max<std::size_t>(found.size(), 1);
        auto *octets = static_cast<char *>(
            std::calloc(1, offsetof(addrcfg_inet_addrs, first) + entries * sizeof(inet_address)));
        if (octets == nullptr) {
            return ENOMEM;
        }
        auto *list = static_cast<addrcfg_inet_addrs *>(static_cast<void *>(octets));
        list->count = static_cast<std::uint32_t>(found.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
            std::memcpy(octets + offsetof(addrcfg_inet_addrs, first) + i * sizeof(inet_address),
                        &found[i].address, sizeof(inet_address));
        }
        *addresses = list;
        return 0;
    });
}
