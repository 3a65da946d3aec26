#include "copy_client/user.h"

#include <algorithm>
#include <array>
#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

namespace copy_client {
namespace {

using Key = std::vector<u_char>;
using Hash = std::vector<oid>;

Key made_key(const Hash &hash, const std::string &passphrase) {
    std::array<u_char, USM_AUTH_KU_LEN> key{};
    std::size_t length = key.size();
    if (::generate_Ku(hash.data(), static_cast<u_int>(hash.size()),
                      reinterpret_cast<const u_char *>(passphrase.data()), passphrase.size(),
                      key.data(), &length) != SNMPERR_SUCCESS) {
        throw std::runtime_error("no key can be made of a passphrase");
    }
    return {key.begin(), key.begin() + static_cast<std::ptrdiff_t>(length)};
}

// Threads that want a key which is being derived wait for it.
Key key_of(const Hash &hash, const std::string &passphrase) {
    static std::mutex mutex;
    static std::map<std::pair<Hash, std::string>, Key> keys;
    const std::lock_guard lock(mutex);
    Key &key = keys[{hash, passphrase}];
    if (key.empty()) {
        key = made_key(hash, passphrase);
    }
    return key;
}

} // namespace

void set_user(netsnmp_session &session, const User &user) {
    session.version = SNMP_VERSION_3;
    session.securityModel = SNMP_SEC_MODEL_USM;
    session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    session.securityName = const_cast<char *>(user.name.c_str()); // the library copies it
    session.securityNameLen = user.name.size();
    session.securityAuthProto = ::sc_get_auth_oid(
        ::usm_lookup_auth_type(user.auth_protocol.c_str()), &session.securityAuthProtoLen);
    session.securityPrivProto = ::sc_get_priv_oid(
        ::usm_lookup_priv_type(user.priv_protocol.c_str()), &session.securityPrivProtoLen);
    set_keys(session, &user.auth_passphrase, &user.priv_passphrase);
}

void set_keys(netsnmp_session &session, const std::string *auth_passphrase,
              const std::string *priv_passphrase) {
    if (session.securityAuthProto == nullptr) {
        session.securityAuthProto =
            const_cast<oid *>(::get_default_authtype(&session.securityAuthProtoLen));
    }
    const Hash hash(session.securityAuthProto,
                    session.securityAuthProto + session.securityAuthProtoLen);
    if (auth_passphrase != nullptr) {
        const Key key = key_of(hash, *auth_passphrase);
        std::copy(key.begin(), key.end(), session.securityAuthKey);
        session.securityAuthKeyLen = key.size();
    }
    if (priv_passphrase != nullptr) {
        if (session.securityPrivProto == nullptr) {
            session.securityPrivProto =
                const_cast<oid *>(::get_default_privtype(&session.securityPrivProtoLen));
        }
        const Key key = key_of(hash, *priv_passphrase);
        std::copy(key.begin(), key.end(), session.securityPrivKey);
        session.securityPrivKeyLen = key.size();
    }
}

// Opening a session derives them. If it can't be opened, the sessions with the agents will report
// why.
void keep_keys_of_settings(netsnmp_session &session) {
    std::string nobody = "udp:127.0.0.1:161";
    netsnmp_session settings = session;
    settings.peername = nobody.data();
    settings.flags |= SNMP_FLAGS_DONT_PROBE;
    if (void *handle = ::snmp_sess_open(&settings)) {
        const netsnmp_session &opened = *::snmp_sess_session(handle);
        std::copy_n(opened.securityAuthKey, opened.securityAuthKeyLen, session.securityAuthKey);
        std::copy_n(opened.securityPrivKey, opened.securityPrivKeyLen, session.securityPrivKey);
        session.securityAuthKeyLen = opened.securityAuthKeyLen;
        session.securityPrivKeyLen = opened.securityPrivKeyLen;
        ::snmp_sess_close(handle);
    }
}

} // namespace copy_client
