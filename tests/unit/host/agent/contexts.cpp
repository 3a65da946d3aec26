// The contexts in which a module's variables are registered, seen in the agent library's own
// registry.
#include "tests/unit/scratch.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <gtest/gtest.h>

#include <iterator>
#include <string>

extern "C" int __wrap_register_mib(const char *, const struct variable *, size_t, size_t,
                                   const oid *, size_t);
extern "C" int __wrap_unregister_mib(oid *, size_t);

namespace {

oid registered_root[] = {1, 3, 6, 1, 4, 1, 41927, 9, 95};
oid registered_column[] = {1, 3, 6, 1, 4, 1, 41927, 9, 95, 1, 2};

unsigned char *read_nothing(struct variable *, oid *, size_t *, int, size_t *, WriteMethod **) {
    return nullptr;
}

class HostContexts : public testing::Test {
  protected:
    static void load() {
        variable7 variables[] = {{1, ASN_INTEGER, NETSNMP_OLDAPI_RONLY, read_nothing, 2, {1, 2}}};
        ASSERT_EQ(__wrap_register_mib("test", reinterpret_cast<struct variable *>(variables),
                                      sizeof(variable7), 1, registered_root,
                                      std::size(registered_root)),
                  MIB_REGISTERED_OK);
    }
    static void unload() {
        EXPECT_EQ(__wrap_unregister_mib(registered_column, std::size(registered_column)),
                  MIB_UNREGISTERED_OK);
    }

    // The number of the module's registrations that a request for the column finds in that context.
    static int registrations(const char *context) {
        int count = 0;
        netsnmp_subtree *found =
            netsnmp_subtree_find(registered_column, std::size(registered_column), nullptr, context);
        for (; found != nullptr; found = found->children) {
            count += found->reginfo != nullptr && std::string(found->reginfo->handlerName) == "test"
                         ? 1
                         : 0;
        }
        return count;
    }

    Scratch scratch_;
};

TEST_F(HostContexts, TheDefaultContextAlone) {
    load();
    EXPECT_EQ(registrations(""), 1);
    EXPECT_EQ(registrations("red"), 0);
    unload();
    EXPECT_EQ(registrations(""), 0);
}

TEST_F(HostContexts, EachConfiguredContextOnce) {
    scratch_.configure("vrf_context = red\nvrf_context = blue sky\nvrf_context = red\n");
    for (int round = 0; round < 3; ++round) { // as SIGHUP does
        load();
        EXPECT_EQ(registrations(""), 1);
        EXPECT_EQ(registrations("red"), 1);
        EXPECT_EQ(registrations("blue sky"), 1);
        EXPECT_EQ(registrations("green"), 0);
        unload();
        EXPECT_EQ(registrations("red"), 0);
    }
}

TEST_F(HostContexts, AChangedSettingHoldsFromTheNextLoadOn) {
    scratch_.configure("vrf_context = red\n");
    load();
    scratch_.configure("vrf_context = green\n");
    unload();
    EXPECT_EQ(registrations("red"), 0);
    load();
    EXPECT_EQ(registrations("red"), 0);
    EXPECT_EQ(registrations("green"), 1);
    unload();
    EXPECT_EQ(registrations("green"), 0);
}

TEST_F(HostContexts, InvalidNamesAreLeftOut) {
    const std::string longest(32, 'x');
    scratch_.configure("vrf_context = " + longest + "\nvrf_context = " + longest +
                       "x\nvrf_context =\n");
    load();
    EXPECT_EQ(registrations(longest.c_str()), 1);
    EXPECT_EQ(registrations((longest + "x").c_str()), 0);
    EXPECT_EQ(registrations(""), 1);
    unload();
}

} // namespace
