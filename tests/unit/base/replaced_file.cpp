#include "base/replaced_file.h"

#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

namespace {

using Manner = ulmo::ReplacedFile::Manner;

class ReplacedFileTest : public ::testing::TestWithParam<Manner> {
  protected:
    // The files of the folder.
    std::set<std::string> names() const {
        std::set<std::string> all;
        for (const auto &entry : std::filesystem::directory_iterator(path_.parent_path())) {
            all.insert(entry.path().filename());
        }
        return all;
    }

    const Scratch scratch_;
    const std::filesystem::path path_ = scratch_.state("file");
};

TEST_P(ReplacedFileTest, TheFileIsTheOldOneUntilItIsTheNewOne) {
    Scratch::write(path_, "old");
    std::filesystem::permissions(path_, std::filesystem::perms::all);
    ulmo::ReplacedFile file(path_, GetParam());
    file.append("new ");
    file.append("content");
    file.finish();
    EXPECT_EQ(Scratch::read(path_), "old");
    if (GetParam() == Manner::unlocked) {
        EXPECT_EQ(names().size(), 1U) << "a killed process would leave a file";
    } else {
        EXPECT_EQ(names().size(), 2U) << "the new content is in the same folder";
    }
    file.commit();
    EXPECT_EQ(Scratch::read(path_), "new content");
    EXPECT_EQ(Scratch::status_of(path_).st_mode & 07777U, 0600U);
    EXPECT_EQ(names(), std::set<std::string>{"file"});
}

TEST_P(ReplacedFileTest, WhatIsNotCommittedIsRemoved) {
    Scratch::write(path_, "old");
    {
        ulmo::ReplacedFile given_up(path_, "new", GetParam());
        std::vector<ulmo::ReplacedFile> moved;
        moved.push_back(std::move(given_up));
        EXPECT_EQ(names().size(), GetParam() == Manner::unlocked ? 1U : 2U);
    }
    EXPECT_EQ(names(), std::set<std::string>{"file"});
    EXPECT_EQ(Scratch::read(path_), "old");
}

TEST_P(ReplacedFileTest, OnceCommittedItRemovesNothing) {
    std::optional<ulmo::ReplacedFile> first(std::in_place, path_, "one", GetParam());
    first->commit();
    ulmo::ReplacedFile second(path_, "two", GetParam());
    first.reset();
    second.commit();
    EXPECT_EQ(Scratch::read(path_), "two");
}

TEST_P(ReplacedFileTest, ALinkIsReplacedAndNotFollowed) {
    Scratch::write(scratch_.root() / "other", "other");
    std::filesystem::create_symlink(scratch_.root() / "other", path_);
    ulmo::ReplacedFile(path_, "new", GetParam()).commit();
    EXPECT_EQ(Scratch::read(scratch_.root() / "other"), "other");
    EXPECT_TRUE(S_ISREG(Scratch::status_of(path_).st_mode));
}

TEST_P(ReplacedFileTest, AFailureNamesTheFile) {
    const auto missing = scratch_.root() / "none" / "file";
    try {
        ulmo::ReplacedFile(missing, "new", GetParam());
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.what(), "cannot make " + missing.string() + ": No such file or directory");
    }
}

INSTANTIATE_TEST_SUITE_P(Manners, ReplacedFileTest,
                         ::testing::Values(Manner::lasting, Manner::passing, Manner::unlocked));

TEST_F(ReplacedFileTest, UnderALockLeftoversOfAKilledProcessGo) {
    Scratch::write(scratch_.state("file.new"), "left over");
    ulmo::ReplacedFile(path_, "new").commit();
    EXPECT_EQ(names(), std::set<std::string>{"file"});
    EXPECT_EQ(Scratch::read(path_), "new");
}

TEST_F(ReplacedFileTest, WithoutALockSeveralMayReplaceAFileAtATime) {
    ulmo::ReplacedFile one(path_, "one", Manner::unlocked);
    ulmo::ReplacedFile other(path_, "other", Manner::unlocked);
    one.commit();
    EXPECT_EQ(Scratch::read(path_), "one");
    other.commit();
    EXPECT_EQ(Scratch::read(path_), "other");
    EXPECT_EQ(names(), std::set<std::string>{"file"});
}

} // namespace
