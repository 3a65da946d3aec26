// SNMPv3 users. Deriving a key from a passphrase takes milliseconds (RFC 3414, A.2.1), so each is
// derived once per process, however many agents have the user.
#pragma once

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <string>

namespace copy_client {

struct User {
    std::string name;
    std::string auth_protocol; // as Net-SNMP names it, such as SHA-256
    std::string auth_passphrase;
    std::string priv_protocol; // likewise, such as AES
    std::string priv_passphrase;
};

// Gives the session the user, with authentication and privacy. The user's name must outlive the
// session. Threads may call it concurrently. Throws std::runtime_error if no key can be derived
// from a passphrase.
void set_user(netsnmp_session &session, const User &user);

// Gives the session the keys of these passphrases; of one that is null, it keeps those it has.
// Where the session names no protocol, that of snmp.conf counts. Throws std::runtime_error if no
// key can be derived.
void set_keys(netsnmp_session &session, const std::string *auth_passphrase,
              const std::string *priv_passphrase);

// Derives the keys of the passphrases in snmp.conf. Otherwise the library would derive them again
// for each agent, even for sessions of SNMPv1 and v2c, which do not use them. Call it before any
// thread is started.
void keep_keys_of_settings(netsnmp_session &session);

} // namespace copy_client
