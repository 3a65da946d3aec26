// Users of SNMPv3. Making the key of a passphrase takes milliseconds (RFC 3414, A.2.1), so each is
// made once in a process, whatever the number of agents that know the user.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace copy_client {

struct User {
    std::string name;
    std::string auth_protocol; // a name that Net-SNMP knows, such as SHA-256
    std::string auth_passphrase;
    std::string priv_protocol; // likewise, such as AES
    std::string priv_passphrase;
};

// Gives the session the user, with authentication and privacy. The user's name must outlive it.
// Threads may call it side by side. Throws std::runtime_error when a passphrase makes no key.
void set_user(netsnmp_session &session, const User &user);

// Makes the keys of the passphrases in snmp.conf, if the session's are to be made of them:
// otherwise the library makes them anew for each agent. To be called before there are threads.
void keep_keys_of_settings(netsnmp_session &session);

} // namespace copy_client
