// Reads arbitrary lines of fabric_member. An accepted member has all that a request to it needs,
// and its line, written again, gives the same member. The reason of a refusal is one line without
// the passphrases. Includes the source: the function that reads one line is not in the header.
#include "platform/host/system_manager/fabric_members.cpp"

#include "tests/fuzz/property.h"

using namespace ulmo;

namespace {

const FabricMember defaults{.user = "operator",
                            .auth_protocol = "SHA-256",
                            .auth_passphrase = "f3a09c4e77d2",
                            .priv_protocol = "AES",
                            .priv_passphrase = "58b1e60f2ca4"};

std::string line_of(const FabricMember &member) {
    char address[64] = "";
    require(ip_addr_to_str(&member.address, address, sizeof address) == 0);
    const bool is_ipv6 = member.address.type == INET_ADDRESS_IPV6;
    return wwn_to_text(member.wwn) + (is_ipv6 ? " [" : " ") + address + (is_ipv6 ? "]:" : ":") +
           std::to_string(member.port) + " user=" + member.user +
           " auth-protocol=" + member.auth_protocol + " auth-passphrase=" + member.auth_passphrase +
           " priv-protocol=" + member.priv_protocol + " priv-passphrase=" + member.priv_passphrase;
}

bool are_same(const FabricMember &a, const FabricMember &b) {
    return a.wwn == b.wwn && std::memcmp(&a.address, &b.address, sizeof a.address) == 0 &&
           a.port == b.port && a.user == b.user && a.auth_protocol == b.auth_protocol &&
           a.auth_passphrase == b.auth_passphrase && a.priv_protocol == b.priv_protocol &&
           a.priv_passphrase == b.priv_passphrase;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(octets), size);
    FabricMember member;
    try {
        member = member_from(std::string(text.substr(0, text.find('\n'))), 1, defaults);
    } catch (const std::runtime_error &refusal) {
        const std::string_view reason = refusal.what();
        require(is_one_line(reason));
        require(reason.find(defaults.auth_passphrase) == std::string_view::npos);
        require(reason.find(defaults.priv_passphrase) == std::string_view::npos);
        return 0;
    }
    // From here on a refusal is a defect and ends the fuzzer as an uncaught exception.
    require(member.wwn != Wwn{} && member.port != 0 && !member.user.empty() &&
            member.user.size() <= 32);
    require(member.auth_passphrase.size() >= 8 && member.priv_passphrase.size() >= 8);
    require(are_same(member, member_from(line_of(member), 1, {})));
    return 0;
}
