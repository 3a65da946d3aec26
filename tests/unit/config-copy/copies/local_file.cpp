// Files of this machine as FROM and TO.
#include "config-copy/copies/local_file.h"

#include "base/posix.h"
#include "tests/unit/config-copy/support.h"
#include "tests/unit/scratch.h"

#include <sys/stat.h>

#include <filesystem>
#include <iterator>
#include <stop_token>
#include <string>
#include <thread>

namespace config_copy {
namespace {

namespace fs = std::filesystem;

class LocalFile : public testing::Test {
  protected:
    std::string path(const char *name) { return scratch_.state(name).string(); }
    static void write(const std::string &path, const std::string &content) {
        Scratch::write(path, content);
    }
    static std::string read(const std::string &path) { return Scratch::read(path); }

    // How many are in the folder, temporary ones included.
    std::size_t files() {
        return static_cast<std::size_t>(
            std::distance(fs::directory_iterator(scratch_.state("")), fs::directory_iterator()));
    }

    Scratch scratch_;
};

TEST_F(LocalFile, ASnapshotStaysAsItWas) {
    write(path("a"), "vlan 1\n");
    const auto content = snapshot(path("a"), false);
    write(path("a"), "vlan 2, longer\n");
    EXPECT_EQ("vlan 1\n", content_of(content.get()));
}

TEST_F(LocalFile, AReplacementHasItsLineOnce) {
    write(path("a"), "vlan 1\n");
    EXPECT_EQ("configuration replace\nvlan 1\n", content_of(snapshot(path("a"), true).get()));
    write(path("a"), "configuration replace\r\nvlan 1\n");
    EXPECT_EQ("configuration replace\r\nvlan 1\n", content_of(snapshot(path("a"), true).get()));
}

TEST_F(LocalFile, WhatCanNotBeSent) {
    const auto refused = [&](const std::string &file) {
        return usage_failure([&] { snapshot(file, false); });
    };
    EXPECT_EQ("the file " + path("none") + " can't be read: No such file or directory",
              refused(path("none")));
    EXPECT_EQ("the file none can't be read: No such file or directory; nor is it running, startup "
              "or a URL",
              refused("none"));
    write(path("empty"), "");
    EXPECT_EQ("the file " + path("empty") + " is empty: there is nothing to send",
              refused(path("empty")));
    EXPECT_EQ("the file " + path("") + " can't be read: Is a directory", refused(path("")));
    write(path("large"), "x");
    fs::resize_file(path("large"), largest_local_file + 1);
    EXPECT_EQ("the file " + path("large") +
                  " has more than the 134217728 octets that a switch "
                  "takes",
              refused(path("large")));
}

TEST_F(LocalFile, AFileThatChangesWhileItIsReadIsNotSent) {
    write(path("a"), "x");
    constexpr std::uintmax_t size = largest_local_file / 2; // much longer to read than to resize
    fs::resize_file(path("a"), size);
    const std::jthread writer([file = path("a")](const std::stop_token &stop) {
        for (std::uintmax_t less = 0; !stop.stop_requested(); ++less) {
            fs::resize_file(file, size - less % 1024);
        }
    });
    EXPECT_EQ("the file " + path("a") + " changed while it was read: try again when it is complete",
              usage_failure([&] { snapshot(path("a"), false); }));
}

TEST_F(LocalFile, ATargetIsReplacedWhole) {
    write(path("a"), "old");
    {
        LocalTarget target(path("a"));
        ulmo::write_whole(target.descriptor(), "new, half", "");
        EXPECT_EQ("old", read(path("a")));
    } // not committed
    EXPECT_EQ("old", read(path("a")));
    EXPECT_EQ(1U, files());

    LocalTarget target(path("a"));
    ulmo::write_whole(target.descriptor(), "new", "");
    EXPECT_TRUE(target.commit());
    EXPECT_EQ("new", read(path("a")));
    EXPECT_EQ(1U, files());
    struct stat status {};
    ASSERT_EQ(0, ::stat(path("a").c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);
}

TEST_F(LocalFile, UnchangedContentLeavesTheFileAlone) {
    write(path("a"), "same");
    fs::permissions(path("a"), fs::perms(0640));
    struct stat before {};
    ASSERT_EQ(0, ::stat(path("a").c_str(), &before));
    LocalTarget target(path("a"));
    ulmo::write_whole(target.descriptor(), "same", "");
    EXPECT_FALSE(target.commit());
    struct stat after {};
    ASSERT_EQ(0, ::stat(path("a").c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(1U, files());
}

TEST_F(LocalFile, TargetsThatAreNoFiles) {
    const std::string advice =
        " is a folder or a device: name a file in it, or - for standard output";
    EXPECT_EQ(path("") + advice, usage_failure([&] { LocalTarget target(path("")); }));
    EXPECT_EQ("/dev/null" + advice, usage_failure([&] { LocalTarget target("/dev/null"); }));
    try {
        LocalTarget target(path("none/a"));
        ADD_FAILURE();
    } catch (const Failure &failure) {
        EXPECT_EQ(ExitStatus::failed, failure.status());
        EXPECT_EQ("the file " + path("none/a") + " can't be written: its folder does not exist",
                  failure.what());
    }
}

} // namespace
} // namespace config_copy
