// Loads and unloads the built module with the host platform many times, as the agent's dlmod does:
// each load registers the same variables, and each unload leaves nothing behind.
#include "tests/unit/scratch.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstddef>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <vector>

#ifdef CCM_SANITIZE
#include <sanitizer/allocator_interface.h>
#endif

namespace {

constexpr int rounds = 100;
constexpr int settled = 10; // rounds after which everything that is made only once exists
constexpr std::size_t smallest_allocation = 16;
constexpr int starttime_change = 9;

std::filesystem::path module_file() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "lib" /
           "config_copy_mib.so";
}

// Octets that all libraries together have on the heap.
std::size_t octets_in_use() {
#ifdef CCM_SANITIZE
    return __sanitizer_get_current_allocated_bytes();
#else
    return ::mallinfo2().uordblks;
#endif
}

// The variables of the module that the agent serves in the context, in order.
std::vector<std::vector<oid>> served(const char *context) {
    std::vector<std::vector<oid>> names;
    for (const netsnmp_subtree *tree = netsnmp_subtree_find_first(context); tree != nullptr;
         tree = tree->next) {
        for (const netsnmp_subtree *each = tree; each != nullptr; each = each->children) {
            const netsnmp_handler_registration *registration = each->reginfo;
            if (registration != nullptr &&
                std::string_view(registration->handlerName) == "config_copy_mib") {
                names.emplace_back(registration->rootoid,
                                   registration->rootoid + registration->rootoid_len);
            }
        }
    }
    return names;
}

std::ptrdiff_t descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

class Module {
  public:
    Module() : library_(::dlopen(module_file().c_str(), RTLD_NOW)) {
        if (library_ == nullptr) {
            throw std::runtime_error(::dlerror());
        }
    }
    ~Module() { ::dlclose(library_); }
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;

    int init() const { return function<int (*)()>("init_config_copy_mib")(); }
    void deinit() const { function<void (*)()>("deinit_config_copy_mib")(); }

  private:
    template <typename Function> Function function(const char *name) const {
        return reinterpret_cast<Function>(::dlsym(library_, name));
    }

    void *library_;
};

TEST(Reload, ServesTheSameEachTimeAndLeavesNothing) {
    const Scratch scratch;
    scratch.configure("vrf_context = red\n");
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    init_agent("reload");
    std::vector<std::vector<oid>> first;
    std::size_t in_use = 0;
    std::ptrdiff_t opened = 0;
    for (int round = 1; round <= rounds; ++round) {
        SCOPED_TRACE(round);
        {
            const Module module;
            ASSERT_EQ(module.init(), 0);
            const auto now = served("");
            if (round == 1) {
                first = now;
                EXPECT_EQ(first.size(), 19U);
            }
            EXPECT_EQ(now, first);
            EXPECT_EQ(served("red"), first);
            EXPECT_EQ(snmp_count_callbacks(SNMP_CALLBACK_LIBRARY, starttime_change), 1);
            module.deinit();
        }
        EXPECT_EQ(served("").size(), 0U);
        EXPECT_EQ(served("red").size(), 0U);
        if (round == settled) {
            in_use = octets_in_use();
            opened = descriptors();
        }
    }
    // Less than one allocation a round, because the heap's own bookkeeping varies.
    EXPECT_LT(octets_in_use(), in_use + (rounds - settled) * smallest_allocation);
    EXPECT_EQ(descriptors(), opened);
    // Rows, an alarm and a callback may outlive the unload, so their code must stay mapped.
    void *const still = ::dlopen(module_file().c_str(), RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(still, nullptr);
    ::dlclose(still);
}

} // namespace
