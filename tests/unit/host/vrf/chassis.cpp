#include "platform/chassis.h"
#include "platform/host/vrf/vrf.h"
#include "tests/unit/child.h"
#include "tests/unit/own_mounts.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

using host_test::exit_status_of;
using host_test::in_child; // a child has a network namespace of its own
using host_test::start_child;

// A network namespace in /run/netns, as ip-netns(8) makes one.
class NamedNamespace {
  public:
    explicit NamedNamespace(const std::string &suffix)
        : name_("ulmotest" + std::to_string(getpid()) + suffix) {
        made_ = ::system(("ip netns add " + name_).c_str()) == 0;
    }
    NamedNamespace(const NamedNamespace &) = delete;
    NamedNamespace &operator=(const NamedNamespace &) = delete;
    ~NamedNamespace() {
        if (made_ && ::system(("ip netns del " + name_).c_str()) != 0) {
            ADD_FAILURE() << "the namespace " << name_ << " stays";
        }
    }
    [[nodiscard]] const std::string &name() const { return name_; }
    [[nodiscard]] bool made() const { return made_; }
    [[nodiscard]] ino_t inode() const {
        struct stat status {};
        return ::stat(("/run/netns/" + name_).c_str(), &status) == 0 ? status.st_ino : 0;
    }

  private:
    std::string name_;
    bool made_ = false;
};

ino_t own_namespace() {
    struct stat status {};
    return ::stat("/proc/self/ns/net", &status) == 0 ? status.st_ino : 0;
}

TEST(Chassis, TypeComesFromTheSetting) {
    const Scratch scratch;
    int type = 5;
    EXPECT_NE(hwinfo_get_chassis_type(&type), 0);
    EXPECT_EQ(type, 5);
    scratch.configure("chassis_type = 26\n");
    EXPECT_EQ(hwinfo_get_chassis_type(&type), 0);
    EXPECT_EQ(type, 26);
    EXPECT_NE(hwinfo_get_chassis_type(nullptr), 0);
}

TEST(Chassis, InvalidTypeIsNotAnswered) {
    const Scratch scratch;
    for (const char *value : {"", "x", "26x", "0x1a", "99999999999", "2 6"}) {
        scratch.configure(std::string("chassis_type = ") + value + "\n");
        int type = 5;
        EXPECT_NE(hwinfo_get_chassis_type(&type), 0) << value;
        EXPECT_EQ(type, 5) << value;
    }
}

TEST(Vrf, ManagementIsTheOrdinaryTable) {
    const Scratch scratch;
    EXPECT_EQ(vrfdir_get_context_id("management"), 1);
    EXPECT_EQ(ulmo::vrf_name(1), "management");
    EXPECT_EQ(ulmo::vrf_device("management"), std::nullopt);
    const ino_t before = own_namespace();
    std::string why = "old";
    EXPECT_TRUE(ulmo::enter_vrf("management", &why));
    EXPECT_EQ(why, "");
    EXPECT_EQ(own_namespace(), before);
}

TEST(Vrf, UnknownNameHasNoNumberAndCannotBeEntered) {
    const Scratch scratch;
    for (const char *name :
         {"", "nosuchvrf", ".", "..", "../netns", "a/b", "/", "lo", "two\nlines", "Management"}) {
        EXPECT_LT(vrfdir_get_context_id(name), 0) << name;
        std::string why;
        EXPECT_FALSE(ulmo::enter_vrf(name, &why)) << name;
        EXPECT_NE(why, "") << name;
        EXPECT_EQ(ulmo::vrf_device(name), std::nullopt) << name;
    }
    EXPECT_LT(vrfdir_get_context_id(nullptr), 0);
    EXPECT_LT(vrfdir_get_context_id(std::string(5000, 'x').c_str()), 0);
    EXPECT_FALSE(ulmo::enter_vrf("nosuchvrf", nullptr));
    EXPECT_EQ(ulmo::vrf_name(0), std::nullopt);
    EXPECT_EQ(ulmo::vrf_name(-1), std::nullopt);
    EXPECT_EQ(ulmo::vrf_name(2), std::nullopt);
}

class VrfNamespace : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_SUPERUSER("makes network namespaces");
        ASSERT_TRUE(blue.made() && red.made());
    }
    Scratch scratch;
    NamedNamespace blue{"b"};
    NamedNamespace red{"r"};
};

TEST_F(VrfNamespace, KeepsItsNumber) {
    EXPECT_EQ(vrfdir_get_context_id(blue.name().c_str()), 2);
    EXPECT_EQ(vrfdir_get_context_id(red.name().c_str()), 3);
    EXPECT_EQ(vrfdir_get_context_id(blue.name().c_str()), 2);
    EXPECT_EQ(ulmo::vrf_name(2), blue.name());
    EXPECT_EQ(ulmo::vrf_name(3), red.name());
    EXPECT_EQ(ulmo::vrf_name(4), std::nullopt);
    EXPECT_EQ(Scratch::status_of(scratch.state("vrfs")).st_mode, S_IFREG | 0600U);
}

TEST_F(VrfNamespace, DirectorySurvivesDamagedLines) {
    Scratch::write(scratch.state("vrfs"),
                   "garbage\n1 management\n-3 x\n7 other\n99999999999 huge\n8\n9 \n5 cut sho");
    EXPECT_EQ(vrfdir_get_context_id(blue.name().c_str()), 8);
    EXPECT_EQ(ulmo::vrf_name(8), blue.name());
    EXPECT_EQ(ulmo::vrf_name(7), "other");
}

TEST_F(VrfNamespace, DirectoryIsNotReachedThroughALink) {
    Scratch::write(scratch.root() / "elsewhere", "");
    std::filesystem::create_symlink(scratch.root() / "elsewhere", scratch.state("vrfs"));
    EXPECT_LT(vrfdir_get_context_id(blue.name().c_str()), 0);
    EXPECT_EQ(Scratch::read(scratch.root() / "elsewhere"), "");
}

TEST_F(VrfNamespace, TwoProcessesNeverShareANumber) {
    const auto number_of = [](const std::string &name) {
        return in_child([&] { return vrfdir_get_context_id(name.c_str()); });
    };
    const pid_t other =
        start_child([&] { return vrfdir_get_context_id(red.name().c_str()) > 0 ? 0 : 1; });
    const int first = number_of(blue.name());
    EXPECT_EQ(exit_status_of(other), 0);
    const int second = number_of(red.name());
    EXPECT_EQ(first + second, 2 + 3);
    EXPECT_NE(first, second);
}

TEST_F(VrfNamespace, IsEntered) {
    const ino_t expected = blue.inode();
    const int result = in_child([&] {
        std::string why;
        return ulmo::enter_vrf(blue.name(), &why) && why.empty() && own_namespace() == expected ? 0
                                                                                                : 1;
    });
    EXPECT_EQ(result, 0);
    EXPECT_NE(own_namespace(), expected);
    EXPECT_EQ(ulmo::vrf_device(blue.name()), std::nullopt);
}

TEST_F(VrfNamespace, NamedManagementTakesPrecedence) {
    // In a mount namespace of its own, so that no other process sees a namespace of that name.
    const ino_t expected = blue.inode();
    const int result = in_child([&] {
        if (!get_own_mounts()) {
            return 2;
        }
        const std::string kept = scratch.root() / "net";
        Scratch::write(kept, "");
        if (::mount(("/run/netns/" + blue.name()).c_str(), kept.c_str(), nullptr, MS_BIND,
                    nullptr) != 0 ||
            ::mount("tmpfs", "/run/netns", "tmpfs", 0, nullptr) != 0) {
            return 3;
        }
        Scratch::write("/run/netns/management", "");
        if (vrfdir_get_context_id("management") != 1) {
            return 4; // a file that is not a namespace
        }
        if (std::string why; ulmo::enter_vrf("management", &why) || why.empty()) {
            return 5;
        }
        if (::mount(kept.c_str(), "/run/netns/management", nullptr, MS_BIND, nullptr) != 0) {
            return 6;
        }
        if (vrfdir_get_context_id("management") != 2) {
            return 7;
        }
        std::string why;
        return ulmo::enter_vrf("management", &why) && own_namespace() == expected ? 0 : 8;
    });
    EXPECT_EQ(result, 0);
}

} // namespace
