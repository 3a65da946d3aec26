#include "base/folders.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace {

class HostConfig : public testing::Test {
  protected:
    // Inside a folder that does not exist.
    void SetUp() override { place("folder"); }

    void place(const std::string &name) const {
        ::setenv("ULMO_STATE_DIR", (above() / "state" / name).c_str(), 1);
        ::setenv("ULMO_RUN_DIR", (above() / "run" / name).c_str(), 1);
    }
    [[nodiscard]] std::filesystem::path above() const { return scratch_.root() / "above"; }

    const Scratch scratch_;
};

TEST_F(HostConfig, FoldersAreMadeWithWhatIsAboveThem) {
    EXPECT_EQ(ulmo::state_dir(), above() / "state" / "folder");
    EXPECT_EQ(ulmo::run_dir(), above() / "run" / "folder");
    EXPECT_EQ(Scratch::status_of(ulmo::state_dir()).st_mode, S_IFDIR | 0700U)
        << "only for its owner";
    EXPECT_EQ(Scratch::status_of(ulmo::run_dir()).st_mode, S_IFDIR | 0755U)
        << "others may pass through to what is in it";
}

TEST_F(HostConfig, APathAloneMakesNothing) {
    EXPECT_EQ(ulmo::run_path(), above() / "run" / "folder");
    EXPECT_FALSE(std::filesystem::exists(above()));
}

TEST_F(HostConfig, FoldersThatCannotBeMadeAreFailures) {
    place(std::string(300, 'x'));
    EXPECT_THROW(ulmo::state_dir(), std::system_error);
    EXPECT_THROW(ulmo::run_dir(), std::system_error);
    Scratch::write(scratch_.root() / "file", "");
    ::setenv("ULMO_STATE_DIR", (scratch_.root() / "file" / "state").c_str(), 1);
    EXPECT_THROW(ulmo::state_dir(), std::system_error);
}

TEST_F(HostConfig, AnEmptyVariableMeansTheDefault) {
    ::setenv("ULMO_RUN_DIR", "", 1);
    ::setenv("ULMO_CONF", "", 1);
    EXPECT_EQ(ulmo::run_path(), "/run/ulmo");
    EXPECT_EQ(ulmo::settings_file(), "/etc/ulmo/platform.conf");
}

} // namespace
