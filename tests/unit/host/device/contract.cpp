// What holds for every kind of device: the same cases with the same outcomes.
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/device.h"
#include "tests/unit/host/device/kinds.h"

#include <stdexcept>

namespace {

using ulmo::ConfigurationError;
using ulmo::ConfigurationStore;

const std::string replace = std::string(ulmo::replace_line) + "\n";

class DeviceContract : public testing::TestWithParam<const DeviceKind *> {
  protected:
    DeviceContract() : kind_(*GetParam()), device_(kind_.device(scratch_.root() / "state")) {}

    std::string shown(ConfigurationStore which = ConfigurationStore::running) const {
        return device_->show(which);
    }
    bool runs(const std::string &statement) const {
        return shown().find(statement) != std::string::npos;
    }
    std::string refusal(const std::string &text) const {
        try {
            device_->apply(text);
        } catch (const ConfigurationError &error) {
            return error.what();
        }
        ADD_FAILURE() << "not refused";
        return {};
    }

    const Scratch scratch_;
    const DeviceKind &kind_;
    const std::unique_ptr<ulmo::Device> device_;
};

TEST_P(DeviceContract, ShowsTheSameUntilItChanges) {
    const std::string before = shown();
    EXPECT_FALSE(before.empty());
    EXPECT_EQ(shown(), before);
    device_->apply(before);
    EXPECT_EQ(shown(), before);
}

TEST_P(DeviceContract, MergesWhatItIsGiven) {
    device_->apply(kind_.one);
    EXPECT_TRUE(runs(kind_.one)) << shown();
    EXPECT_FALSE(runs(kind_.two)) << shown();
    device_->apply(kind_.two);
    EXPECT_TRUE(runs(kind_.one)) << shown();
    EXPECT_TRUE(runs(kind_.two)) << shown();
    const std::string both = shown();
    device_->apply(kind_.one);
    EXPECT_EQ(shown(), both) << "it was so already";
}

TEST_P(DeviceContract, ReplacesTheWholeConfiguration) {
    device_->apply(kind_.one);
    const std::string one = shown();
    device_->apply(kind_.two);
    const std::string both = shown();
    device_->apply(replace + one);
    EXPECT_EQ(shown(), one);
    device_->apply("configuration replace \t\r\n" + both); // blanks at its end, another line end
    EXPECT_EQ(shown(), both);
}

TEST_P(DeviceContract, IsNeverReplacedByNothing) {
    const std::string before = shown();
    for (const std::string nothing : {"", "\n", "\n \n", "\n! a comment\n# another one\n"}) {
        EXPECT_EQ(refusal(std::string(ulmo::replace_line) + nothing),
                  "nothing follows 'configuration replace'");
        EXPECT_EQ(shown(), before);
    }
}

TEST_P(DeviceContract, ARefusedTextChangesNothing) {
    device_->apply(kind_.one);
    device_->save();
    const std::string before = shown();
    const std::string stored = shown(ConfigurationStore::startup);
    for (const std::string &text : {kind_.bad, kind_.two + kind_.bad, kind_.bad + kind_.two,
                                    replace + kind_.bad, replace + kind_.two + kind_.bad}) {
        EXPECT_NE(refusal(text).find(kind_.refusal), std::string::npos) << refusal(text);
        EXPECT_EQ(shown(), before);
        EXPECT_EQ(shown(ConfigurationStore::startup), stored);
    }
}

TEST_P(DeviceContract, ARefusalNamesTheLineOfTheFile) {
    EXPECT_NE(refusal(kind_.one + kind_.bad).find("line 2"), std::string::npos)
        << refusal(kind_.one + kind_.bad);
    EXPECT_NE(refusal(replace + kind_.bad).find("line 2"), std::string::npos)
        << refusal(replace + kind_.bad);
}

TEST_P(DeviceContract, SavesAndComesBack) {
    device_->apply(kind_.one);
    device_->save();
    const std::string saved = shown(ConfigurationStore::startup);
    EXPECT_NE(saved.find(kind_.one), std::string::npos) << saved;
    device_->apply(kind_.two);
    EXPECT_EQ(shown(ConfigurationStore::startup), saved) << "only a save changes it";
    // as the copy of the startup to the running configuration does
    const std::string read = device_->read(scratch_.root() / "state" / "system.cfg");
    EXPECT_EQ(read, saved);
    device_->apply(replace + read);
    EXPECT_FALSE(runs(kind_.two)) << shown();
}

TEST_P(DeviceContract, ASaveThatIsGivenUpChangesNothing) {
    device_->apply(kind_.one);
    device_->save();
    const std::string saved = shown(ConfigurationStore::startup);
    device_->apply(kind_.two);
    EXPECT_THROW(device_->save({}, [] { throw std::runtime_error("given up"); }),
                 std::runtime_error);
    EXPECT_EQ(shown(ConfigurationStore::startup), saved);
    EXPECT_TRUE(runs(kind_.two)) << shown();
}

TEST_P(DeviceContract, SavesToOtherFilesAsWell) {
    device_->apply(kind_.one);
    device_->save({"backup.cfg"}, {});
    std::ifstream file(scratch_.root() / "state" / "backup.cfg");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), shown());
}

TEST_P(DeviceContract, AChangeThatDidNotEndIsUndone) {
    device_->apply(kind_.one);
    const std::string before = shown();
    device_->apply(kind_.two);
    ulmo::WayBack way_back(scratch_.root() / "state");
    way_back.begin(before); // as if its process had died
    EXPECT_EQ(shown(), before);
    EXPECT_FALSE(way_back.has_begun());
}

TEST_P(DeviceContract, AChangeThatIsNotSavedInTimeIsUndone) {
    using namespace std::chrono_literals;
    device_->apply(kind_.one);
    const std::string before = shown();
    device_->apply(kind_.two);
    const std::string after = shown();
    ulmo::WayBack way_back(scratch_.root() / "state");
    const auto wait = [&](std::chrono::milliseconds deadline) {
        way_back.wait({before, std::time(nullptr), 60s, deadline, {}, {}});
    };
    wait(ulmo::time_since_boot() + 60s);
    device_->look_back();
    EXPECT_EQ(shown(), after);
    EXPECT_TRUE(device_->pending());
    wait(0ms);
    device_->look_back();
    EXPECT_EQ(shown(), before);
    EXPECT_FALSE(device_->pending());
    device_->apply(kind_.two);
    wait(0ms);
    device_->save();
    device_->look_back();
    EXPECT_EQ(shown(), after) << "a save confirms it";
}

std::string name_of(const testing::TestParamInfo<const DeviceKind *> &info) {
    return info.param->name;
}

INSTANTIATE_TEST_SUITE_P(Kind, DeviceContract, testing::ValuesIn(device_kinds()), name_of);

} // namespace
