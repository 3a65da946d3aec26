// The agent loads its modules as the superuser, and administrators run commands as the superuser:
// neither may leave files that the platform's own user can't open.
#include "base/ownership.h"

#include "base/replaced_file.h"
#include "base/state_file.h"
#include "platform/host/agent/workers.h"
#include "platform/host/bus/server.h"
#include "platform/host/bus/wire.h"
#include "platform/host/history/history.h"
#include "platform/host/vrf/vrf.h"
#include "tests/unit/child.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>

namespace {

constexpr uid_t platform_user = 4711;
constexpr gid_t platform_group = 4712;

class Ownership : public testing::Test {
  protected:
    void SetUp() override {
        REQUIRE_SUPERUSER("acts as other users");
        make_given(folder_);
        std::filesystem::permissions(scratch_.root(), std::filesystem::perms(0755));
    }

    // Runs `body` as the platform's user in a child process. Returns whether it threw nothing.
    static bool holds_for_platform_user(const std::function<void()> &body) {
        return host_test::in_child([&] {
                   if (::setgid(platform_group) != 0 || ::setuid(platform_user) != 0) {
                       return 1;
                   }
                   body();
                   return 0;
               }) == 0;
    }

    // The superuser and the platform append in turn, each in a process of its own.
    static std::uintmax_t appended_in_turns(const std::filesystem::path &folder) {
        EXPECT_EQ(::setenv("ULMO_RUN_DIR", folder.c_str(), 1), 0);
        const auto append = [] { return ulmo::append_to_history("line\n", 1000), 0; };
        EXPECT_EQ(host_test::in_child(append), 0);
        EXPECT_TRUE(holds_for_platform_user(append));
        EXPECT_EQ(host_test::in_child(append), 0);
        return std::filesystem::file_size(folder / "history.log");
    }

    // A folder of the platform's user.
    static void make_given(const std::filesystem::path &path) {
        std::filesystem::create_directory(path);
        ASSERT_EQ(::chown(path.c_str(), platform_user, platform_group), 0);
    }

    // A folder that only the superuser may change, containing the file "4".
    [[nodiscard]] std::filesystem::path superusers_folder() const {
        const auto path = scratch_.root() / "elsewhere";
        std::filesystem::create_directory(path);
        std::ofstream(path / "4").close();
        return path;
    }

    static void expect_given(const std::filesystem::path &path) {
        EXPECT_EQ(Scratch::status_of(path).st_uid, platform_user) << path;
        EXPECT_EQ(Scratch::status_of(path).st_gid, platform_group) << path;
    }

    static void expect_superusers(const std::filesystem::path &path) {
        EXPECT_EQ(Scratch::status_of(path).st_uid, 0U) << path;
        EXPECT_EQ(Scratch::status_of(path).st_gid, 0U) << path;
    }

    const Scratch scratch_;
    const std::filesystem::path folder_ = scratch_.root() / "state";
    const std::filesystem::path file_ = folder_ / "file";
};

TEST_F(Ownership, AReplacedFileAndALockBelongToTheFoldersOwner) {
    {
        const ulmo::FileLock lock(folder_ / "lock", ulmo::FileLock::Mode::exclusive,
                                  std::chrono::milliseconds(0));
        ulmo::replace_state_file(file_, "text");
    }
    expect_given(file_);
    expect_given(folder_ / "lock");
    EXPECT_TRUE(holds_for_platform_user([this] {
        const ulmo::FileLock lock(folder_ / "lock", ulmo::FileLock::Mode::exclusive,
                                  std::chrono::milliseconds(0));
        if (ulmo::read_state_file(file_, 100) != "text") {
            throw std::runtime_error("another text");
        }
        ulmo::replace_state_file(file_, "other");
    }));
    EXPECT_EQ(ulmo::read_state_file(file_, 100), "other");
}

TEST_F(Ownership, AFolderThatItsOwnerHasClosedStaysAsItIs) {
    {
        ulmo::ReplacedFile pending(file_, "text");
        std::filesystem::permissions(folder_, std::filesystem::perms(0500));
        EXPECT_THROW(pending.commit(), std::system_error);
    }
    EXPECT_TRUE(std::filesystem::exists(folder_ / "file.new")) << "nor is it removed";
}

TEST_F(Ownership, TheHistoryIsSharedByTheSuperuserAndTheFoldersOwner) {
    EXPECT_EQ(appended_in_turns(folder_), 15U);
    expect_given(folder_ / "history.log");
}

TEST_F(Ownership, OthersHistoriesAreReplaced) {
    std::ofstream(folder_ / "history.log") << "others";
    ASSERT_EQ(::chown((folder_ / "history.log").c_str(), platform_user + 1, platform_group), 0);
    ASSERT_EQ(::chmod((folder_ / "history.log").c_str(), 0600), 0);
    EXPECT_EQ(appended_in_turns(folder_), 15U);
    expect_given(folder_ / "history.log");
}

TEST_F(Ownership, AHistoryInAFolderForAllIsItsMakersAlone) {
    const auto shared = scratch_.root() / "shared";
    std::filesystem::create_directory(shared);
    std::filesystem::permissions(shared, std::filesystem::perms::all);
    EXPECT_EQ(appended_in_turns(shared), 5U) << "each begins its own";
    expect_superusers(shared / "history.log");
}

TEST_F(Ownership, AnAccessPointIsServedByTheSuperuserAndTheRunFoldersOwnerInTurn) {
    ASSERT_EQ(::setenv("ULMO_RUN_DIR", folder_.c_str(), 1), 0);
    {
        const ulmo::MsgbusServer server(4);
        expect_given(ulmo::msgbus_dir());
        expect_given(ulmo::sap_path(4));
        expect_given(ulmo::msgbus_dir() / "4.lock");
    }
    EXPECT_TRUE(holds_for_platform_user([] { const ulmo::MsgbusServer server(4); }));
}

TEST_F(Ownership, VrfNumbersAndWorkersFoldersBelongToTheStateFoldersOwner) {
    ASSERT_EQ(::setenv("ULMO_STATE_DIR", folder_.c_str(), 1), 0);
    EXPECT_EQ(ulmo::vrf_name(2), std::nullopt);
    expect_given(folder_ / "vrfs");
    expect_given(ulmo::worker_directory(1).parent_path());
    const pid_t worker = host_test::start_child([] {
        ulmo::become_worker(::getppid(), {});
        return 0;
    });
    EXPECT_EQ(host_test::exit_status_of(worker), 0);
    expect_given(ulmo::worker_directory(worker));
    ulmo::sweep_worker_directories();
    EXPECT_TRUE(std::filesystem::is_empty(folder_ / "work"));
}

TEST_F(Ownership, NothingIsMadeThatTheFoldersOwnerCouldNotMake) {
    const auto elsewhere = superusers_folder();
    std::filesystem::create_directory_symlink(elsewhere, folder_ / "msgbus");
    ASSERT_EQ(::setenv("ULMO_RUN_DIR", folder_.c_str(), 1), 0);
    EXPECT_THROW(ulmo::MsgbusServer(4), std::system_error);
    EXPECT_FALSE(std::filesystem::exists(elsewhere / "4.lock"));

    const auto others = scratch_.root() / "others";
    std::ofstream(others) << "secret";
    ASSERT_EQ(::chmod(others.c_str(), 0600), 0);
    std::filesystem::create_hard_link(others, folder_ / "lock");
    EXPECT_THROW(ulmo::FileLock(folder_ / "lock", ulmo::FileLock::Mode::exclusive,
                                std::chrono::milliseconds(0)),
                 std::system_error);
    expect_superusers(others);
}

TEST_F(Ownership, NothingIsRemovedThatTheFoldersOwnerCouldNotRemove) {
    ASSERT_EQ(::setenv("ULMO_RUN_DIR", folder_.c_str(), 1), 0);
    auto server = std::make_unique<ulmo::MsgbusServer>(4);
    std::filesystem::rename(folder_ / "msgbus", folder_ / "moved");
    const auto elsewhere = superusers_folder();
    std::filesystem::create_directory_symlink(elsewhere, folder_ / "msgbus");
    server.reset();
    EXPECT_TRUE(std::filesystem::exists(elsewhere / "4")) << "by the end of a server";

    ASSERT_EQ(::setenv("ULMO_STATE_DIR", folder_.c_str(), 1), 0);
    const auto ended = ulmo::worker_directory(4000001);
    make_given(ended);
    std::filesystem::rename(elsewhere, ended / "superusers");
    ulmo::sweep_worker_directories();
    EXPECT_TRUE(std::filesystem::exists(ended / "superusers" / "4")) << "by a sweep";

    const pid_t worker = host_test::start_child([] { return 0; });
    std::filesystem::rename(ended, folder_ / "work" / std::to_string(worker));
    ulmo::WorkerTable workers;
    workers.add(worker);
    siginfo_t information{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(worker), &information, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(workers.reap(worker));
    EXPECT_TRUE(std::filesystem::exists(ulmo::worker_directory(worker) / "superusers" / "4"))
        << "with a worker";
}

TEST_F(Ownership, TheSuperusersRightsReturnAfterwards) {
    {
        const ulmo::ActingAsOwner owner(folder_);
        const ulmo::ActingAsOwner again(folder_);
        EXPECT_EQ(::open("/etc/shadow", O_RDONLY | O_CLOEXEC), -1);
    }
    std::ofstream(scratch_.root() / "mine").close();
    expect_superusers(scratch_.root() / "mine");
    EXPECT_EQ(::access("/etc/shadow", R_OK), 0);
    const ulmo::ActingAsOwner nobody(scratch_.root() / "absent");
    std::ofstream(scratch_.root() / "also mine").close();
    expect_superusers(scratch_.root() / "also mine");
}

TEST_F(Ownership, AProcessThatActsAsAnOwnerBecomesNoOtherOwner) {
    const auto others = scratch_.root() / "others";
    std::filesystem::create_directory(others);
    ASSERT_EQ(::chown(others.c_str(), platform_user + 1, platform_group + 1), 0);
    const ulmo::ActingAsOwner owner(folder_);
    const ulmo::ActingAsOwner other(others);
    std::ofstream(file_).close();
    expect_given(file_);
}

TEST_F(Ownership, FilesInASuperusersFolderStayTheSuperusers) {
    ASSERT_EQ(::chown(scratch_.root().c_str(), 0, platform_group), 0);
    ulmo::replace_state_file(scratch_.root() / "own", "text");
    expect_superusers(scratch_.root() / "own");
}

TEST_F(Ownership, ALinkToAFolderHasTheFoldersOwner) {
    const auto link = scratch_.root() / "link"; // owned by the superuser
    std::filesystem::create_directory_symlink(folder_, link);
    EXPECT_EQ(ulmo::owner_of(link), platform_user);
    ulmo::replace_state_file(link / "file", "text");
    expect_given(file_);
}

} // namespace
