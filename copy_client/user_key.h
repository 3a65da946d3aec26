// Keys of SNMPv3 users. Making one of a passphrase takes milliseconds (RFC 3414, A.2.1), so each is
// made once in a process, whatever the number of agents that know the user.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace copy_client {

// Sets both keys of a user whose protocols the session has already. Threads may call it side by side.
// Throws std::runtime_error when a passphrase makes no key.
void set_keys(netsnmp_session &session, const std::string &auth_passphrase, const std::string &priv_passphrase);

// Makes the keys of the passphrases in snmp.conf, if the session's are to be made of them: otherwise the
// library makes them anew for each agent. To be called before there are threads.
void keep_keys_of_settings(netsnmp_session &session);

} // namespace copy_client
