#include "platform/host/history/copy_report.h"

#include "platform/tftp_client.h"
#include "platform/utilities.h"

#include "tests/unit/scratch.h"
#include "tests/unit/tftp/scripted_server.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace {

// FIPS 180-4, its example
constexpr char sha256_of_abc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

class HostCopyReport : public testing::Test {
  protected:
    HostCopyReport() {
        Scratch::write(file_, "");
        ::setenv(ulmo::copy_report_variable, file_.c_str(), 1);
    }
    ~HostCopyReport() override { ::unsetenv(ulmo::copy_report_variable); }

    [[nodiscard]] ulmo::CopyReport report() const { return ulmo::read_copy_report(file_); }

    Scratch scratch_;
    std::filesystem::path file_ = scratch_.run("copy-report.test");
};

TEST_F(HostCopyReport, FirstReasonCounts) {
    ulmo::report_reason("Access violation");
    ulmo::report_reason("cannot put the file");
    EXPECT_EQ(report().reason, "Access violation");
}

TEST_F(HostCopyReport, ReasonIsOneShortLine) {
    ulmo::report_reason(" two\nlines\x1b[31m " + std::string(1000, 'x'));
    const std::string reason = report().reason;
    EXPECT_TRUE(reason.starts_with("two lines?[31m xxx")) << reason;
    EXPECT_LE(reason.size(), ulmo::longest_reason);
}

TEST_F(HostCopyReport, FileIsMeasured) {
    Scratch::write(scratch_.root() / "moved", "abc");
    ulmo::report_file(scratch_.root() / "moved");
    EXPECT_EQ(report().octets, 3U);
    EXPECT_EQ(report().sha256, sha256_of_abc);
}

TEST_F(HostCopyReport, CauseIsANumber) {
    ulmo::report_cause(5);
    EXPECT_EQ(report().cause, 5);
    for (const char *other :
         {"", "cause 0\n", "cause many\n", "cause 5x\n", "cause 4294967301\n"}) {
        Scratch::write(file_, other);
        EXPECT_EQ(report().cause, std::nullopt) << other;
    }
}

TEST_F(HostCopyReport, PartIsOctetsAlone) {
    ulmo::report_moved(512);
    EXPECT_EQ(report().octets, 512U);
    EXPECT_EQ(report().sha256, "");
}

TEST_F(HostCopyReport, FileThatAProgramNamesIsMeasuredOnceItHasEnded) {
    Scratch::write(scratch_.root() / "moved", "abc");
    const std::string script =
        "echo 'file " + (scratch_.root() / "moved").string() + "' >>$ULMO_COPY_REPORT";
    ASSERT_EQ(
        execute_program_and_wait_redirect(-1, -1, -1, "/bin/sh", "-c", script.c_str(), nullptr), 0);
    EXPECT_EQ(report().octets, 3U);
    EXPECT_EQ(report().sha256, sha256_of_abc);
    EXPECT_EQ(report().file, "");
    // And not again after the next program.
    std::filesystem::remove(scratch_.root() / "moved");
    ASSERT_EQ(execute_program_and_wait_redirect(-1, -1, -1, "/bin/true", nullptr), 0);
    EXPECT_EQ(report().octets, 3U);
}

TEST_F(HostCopyReport, NothingButARegularFileIsMeasured) {
    ulmo::report_file("/dev/zero");
    ulmo::report_file(scratch_.root());
    ulmo::report_file(scratch_.root() / "missing");
    std::filesystem::create_symlink("/etc/passwd", scratch_.root() / "link");
    ulmo::report_file(scratch_.root() / "link");
    EXPECT_EQ(report().octets, std::nullopt);
    EXPECT_EQ(report().sha256, "");
}

TEST_F(HostCopyReport, MalformedLinesAreSkipped) {
    Scratch::write(file_, "begun x\nmoved many\nsha256 abc\nmoved 12 \n\nreasonless\nmoved 4");
    EXPECT_EQ(report().octets, 4U);
    EXPECT_EQ(report().sha256, "");
    EXPECT_EQ(report().reason, "");
}

TEST_F(HostCopyReport, TftpTellsWhyItFailed) {
    tftp_connect("192.0.2.300", -1);
    EXPECT_NE(report().reason, "");
    EXPECT_EQ(report().octets, 0U);
}

// More than a configuration may have.
TEST_F(HostCopyReport, TftpTellsTheCauseOfAFileThatIsTooLarge) {
    using namespace tftp_test;
    for (const auto &[octets, cause] :
         {std::pair{"134217729", std::optional(5)}, {"134217728", std::nullopt}}) {
        Scratch::write(file_, "");
        TestServer server([octets = octets](Dialogue &dialogue) {
            dialogue.send(oack({{"tsize", octets}}));
            dialogue.receive();
            dialogue.send(error(1, "gone"));
        });
        ASSERT_EQ(tftp_connect(server.address(), server.port()), 0);
        EXPECT_LT(tftp_get2("remote", (scratch_.root() / "got").c_str(), 0), 0);
        EXPECT_EQ(report().cause, cause);
    }
    EXPECT_FALSE(std::filesystem::exists(scratch_.root() / "got"));
}

TEST_F(HostCopyReport, HugeReportIsNotRead) {
    Scratch::write(file_, "reason x\n" + std::string(100000, '\n'));
    EXPECT_EQ(report().reason, "");
}

// Reporting into a missing file is not an error and creates nothing.
TEST_F(HostCopyReport, AMissingReportDoesNoHarm) {
    std::filesystem::remove(file_);
    errno = EXDEV;
    ulmo::report_reason("no space");
    EXPECT_EQ(errno, EXDEV);
    EXPECT_FALSE(std::filesystem::exists(file_));
    ::unsetenv(ulmo::copy_report_variable);
    ulmo::report_reason("no space");
    ulmo::report_file("/etc/passwd");
    for (const auto &entry : std::filesystem::directory_iterator(scratch_.root() / "run")) {
        // created when a process logs for the first time
        EXPECT_EQ(entry.path().filename(), "history.log");
    }
}

} // namespace
