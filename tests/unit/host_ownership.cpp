// The superuser, as whom the agent loads its modules and administrators type commands, leaves nothing that the platform's own user can't
// open.
#include "platform/host/ownership.h"

#include "platform/host/history_ring.h"
#include "platform/host/msgbus_server.h"
#include "platform/host/msgbus_wire.h"
#include "platform/host/state_file.h"
#include "tests/unit/host_child.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>

namespace {

constexpr uid_t platform_user = 4711;
constexpr gid_t platform_group = 4712;

class Ownership : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_SUPERUSER("acts as other users");
        std::filesystem::create_directory(folder_);
        ASSERT_EQ(::chown(folder_.c_str(), platform_user, platform_group), 0);
        std::filesystem::permissions(scratch_.root(), std::filesystem::perms(0755));
    }

    // In a process of the platform's user: whether `body` throws nothing.
    static bool holds_for_platform_user(const std::function<void()> &body) {
        return host_test::in_child([&] {
                   if (::setgid(platform_group) != 0 || ::setuid(platform_user) != 0) {
                       return 1;
                   }
                   body();
                   return 0;
               }) == 0;
    }

    static void expect_given(const std::filesystem::path &path) {
        EXPECT_EQ(Scratch::status_of(path).st_uid, platform_user) << path;
        EXPECT_EQ(Scratch::status_of(path).st_gid, platform_group) << path;
    }

    const Scratch scratch_;
    const std::filesystem::path folder_ = scratch_.root() / "state";
    const std::filesystem::path file_ = folder_ / "file";
};

TEST_F(Ownership, AReplacedFileAndALockBelongToTheFoldersOwner) {
    {
        const ulmo::FileLock lock(folder_ / "lock", ulmo::FileLock::Mode::exclusive, std::chrono::milliseconds(0));
        ulmo::replace_state_file(file_, "text");
    }
    expect_given(file_);
    expect_given(folder_ / "lock");
    EXPECT_TRUE(holds_for_platform_user([this] {
        const ulmo::FileLock lock(folder_ / "lock", ulmo::FileLock::Mode::exclusive, std::chrono::milliseconds(0));
        if (ulmo::read_state_file(file_, 100) != "text") {
            throw std::runtime_error("another text");
        }
        ulmo::replace_state_file(file_, "other");
    }));
    EXPECT_EQ(ulmo::read_state_file(file_, 100), "other");
}

TEST_F(Ownership, TheHistoryIsSharedByTheSuperuserAndTheFoldersOwner) {
    ulmo::HistoryRing ring = ulmo::HistoryRing::open(file_, 64);
    expect_given(file_);
    EXPECT_TRUE(holds_for_platform_user([this] { ulmo::HistoryRing::open(file_, 64).write(1, 100, "by the platform"); }));
    ulmo::HistoryRing::open(file_, 64).write(1, 100, "by the superuser");
    EXPECT_TRUE(ring.is_in(file_)) << "somebody has begun a new history";
    EXPECT_EQ(ring.end() - ring.begin(), 2U);
}

TEST_F(Ownership, OthersHistoriesAreReplaced) {
    std::ofstream(file_).close();
    ASSERT_EQ(::chown(file_.c_str(), platform_user + 1, platform_group), 0);
    ASSERT_EQ(::chmod(file_.c_str(), 0600), 0);
    const ulmo::HistoryRing ring = ulmo::HistoryRing::open(file_, 64);
    EXPECT_TRUE(ring.is_in(file_));
    expect_given(file_);
}

TEST_F(Ownership, TheFolderOfTheBusBelongsToTheRunFoldersOwner) {
    ASSERT_EQ(::setenv("ULMO_RUN_DIR", folder_.c_str(), 1), 0);
    expect_given(ulmo::msgbus_dir());
}

TEST_F(Ownership, NothingIsDoneThatTheFoldersOwnerCouldNotDo) {
    const auto elsewhere = scratch_.root() / "elsewhere";
    std::filesystem::create_directory(elsewhere); // the superuser's
    std::filesystem::create_directory_symlink(elsewhere, folder_ / "msgbus");
    ASSERT_EQ(::setenv("ULMO_RUN_DIR", folder_.c_str(), 1), 0);
    EXPECT_THROW(ulmo::MsgbusServer(4), std::system_error);
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));

    const auto others = scratch_.root() / "others";
    std::ofstream(others) << "secret";
    ASSERT_EQ(::chmod(others.c_str(), 0600), 0);
    std::filesystem::create_hard_link(others, folder_ / "lock");
    EXPECT_THROW(ulmo::FileLock(folder_ / "lock", ulmo::FileLock::Mode::exclusive, std::chrono::milliseconds(0)), std::system_error);
    EXPECT_EQ(Scratch::status_of(others).st_uid, 0U);
}

TEST_F(Ownership, TheSuperuserIsHimselfAgainAfterwards) {
    {
        const ulmo::ActingAsOwner owner(folder_);
        const ulmo::ActingAsOwner again(folder_);
        EXPECT_EQ(::open("/etc/shadow", O_RDONLY | O_CLOEXEC), -1);
    }
    std::ofstream(scratch_.root() / "mine").close();
    EXPECT_EQ(Scratch::status_of(scratch_.root() / "mine").st_uid, 0U);
    EXPECT_EQ(::access("/etc/shadow", R_OK), 0);
    const ulmo::ActingAsOwner nobody(scratch_.root() / "absent");
    std::ofstream(scratch_.root() / "also mine").close();
    EXPECT_EQ(Scratch::status_of(scratch_.root() / "also mine").st_uid, 0U);
}

TEST_F(Ownership, AFolderOfTheSuperusersKeepsWhatHeMakes) {
    ulmo::replace_state_file(scratch_.root() / "own", "text");
    EXPECT_EQ(Scratch::status_of(scratch_.root() / "own").st_uid, 0U);
}

} // namespace
