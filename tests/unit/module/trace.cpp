// The private trace file. Each test that opens it runs in a process of its own, because the module
// keeps its stream for the life of the process.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/unit/fakes/fake_time.h"
#include "tests/unit/fakes/module_fixture.h"

namespace {

std::string trace_name() {
    return "/tmp/cfg_snmp_debug.log." + std::to_string(getpid());
}

std::string contents(const std::string &name) {
    std::ifstream file(name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

bool exists(const std::string &name) {
    struct stat status {};
    return lstat(name.c_str(), &status) == 0;
}

// Ends the process of a death test, with 0 if nothing failed in it.
[[noreturn]] void end() {
    exit(::testing::Test::HasFailure() ? 1 : 0);
}

class Trace : public ModuleTest {
  protected:
    void SetUp() override {
        ModuleTest::SetUp();
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
};

// Runs the function in a new process, whose standard error must match.
#define IN_A_FRESH_PROCESS(function, standard_error)                                               \
    EXPECT_EXIT(                                                                                   \
        {                                                                                          \
            function();                                                                            \
            unlink(trace_name().c_str());                                                          \
            end();                                                                                 \
        },                                                                                         \
        ::testing::ExitedWithCode(0), standard_error)

void write_nothing() {
    unlink(trace_name().c_str());
    cc_trace("text\n");
    EXPECT_FALSE(exists(trace_name()));
}

TEST_F(Trace, SwitchedOffMakesNoFile) {
    IN_A_FRESH_PROCESS(write_nothing, "^$");
}

void write_two_records() {
    unlink(trace_name().c_str());
    is_snmp_debug_enabled = 1;
    fake_time.seconds = 1234567890;
    cc_trace("first %d\n", 1);
    const time_t when = 1234567890;
    const std::string stamp = std::string(ctime(&when)).substr(0, 24);
    EXPECT_EQ(contents(trace_name()), "[" + stamp + "] first 1\n\n"); // written at once
    is_snmp_debug_enabled = -1;
    cc_trace("second");
    EXPECT_EQ(contents(trace_name()), "[" + stamp + "] first 1\n\n[" + stamp + "] second\n");
    is_snmp_debug_enabled = 0;
    cc_trace("third");
    EXPECT_EQ(contents(trace_name()), "[" + stamp + "] first 1\n\n[" + stamp + "] second\n");
}

TEST_F(Trace, RecordsCarryTheStamp) {
    IN_A_FRESH_PROCESS(write_two_records, "^$");
}

void traced_function() {
    CC_TRACE(" : text %s\n", "with argument");
}

void write_the_usual_prefix() {
    TraceFile file;
    traced_function();
    EXPECT_EQ(file.take(), std::vector<std::string>{
                               "traced_function(#):traced_function : text with argument\n"});
}

TEST_F(Trace, UsualPrefix) {
    IN_A_FRESH_PROCESS(write_the_usual_prefix, "^$");
}

void append_to_the_file() {
    std::ofstream(trace_name()) << "before\n";
    chmod(trace_name().c_str(), 0600);
    is_snmp_debug_enabled = 1;
    cc_trace("after");
    const std::string text = contents(trace_name());
    EXPECT_EQ(text.substr(0, 8), "before\n[");
}

TEST_F(Trace, FileIsAppendedTo) {
    IN_A_FRESH_PROCESS(append_to_the_file, "^$");
}

void go_on_in_a_deleted_file() {
    FILE *stream = trace_file_get();
    ASSERT_NE(stream, nullptr);
    unlink(trace_name().c_str());
    is_snmp_debug_enabled = 1;
    cc_trace("text");
    EXPECT_FALSE(exists(trace_name()));
    EXPECT_EQ(trace_file_get(), stream);
    struct stat status {};
    EXPECT_EQ(fstat(fileno(stream), &status), 0);
    EXPECT_EQ(status.st_size, 32); // stamp, blank, text and newline
}

TEST_F(Trace, DeletedFileIsNotMadeAgain) {
    IN_A_FRESH_PROCESS(go_on_in_a_deleted_file, "^$");
}

void check_the_mode() {
    unlink(trace_name().c_str());
    umask(0);
    FILE *stream = trace_file_get();
    ASSERT_NE(stream, nullptr);
    struct stat status {};
    EXPECT_EQ(stat(trace_name().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_NE(fcntl(fileno(stream), F_GETFL) & O_APPEND, 0);
}

TEST_F(Trace, FileIsForItsOwnerOnly) {
    IN_A_FRESH_PROCESS(check_the_mode, "^$");
}

void refuse_a_planted_link() {
    unlink(trace_name().c_str());
    const std::string victim = trace_name() + ".victim";
    std::ofstream(victim) << "untouched";
    EXPECT_EQ(symlink(victim.c_str(), trace_name().c_str()), 0);
    is_snmp_debug_enabled = 1;
    EXPECT_EQ(trace_file_get(), nullptr);
    cc_trace("text");
    EXPECT_EQ(contents(victim), "untouched");
    unlink(victim.c_str());
    unlink(trace_name().c_str());
    // The next call tries again.
    cc_trace("text");
    EXPECT_EQ(contents(trace_name()).size(), 32U);
}

// One line for each attempt, without a newline.
TEST_F(Trace, PlantedLinkIsRefused) {
    IN_A_FRESH_PROCESS(refuse_a_planted_link, "^Can't open /tmp/cfg_snmp_debug\\.log\\.[0-9]+Can't "
                                              "open /tmp/cfg_snmp_debug\\.log\\.[0-9]+$");
}

void refuse_what_is_planted() {
    is_snmp_debug_enabled = 1;
    // A pipe without a reader must not block the agent.
    unlink(trace_name().c_str());
    EXPECT_EQ(mkfifo(trace_name().c_str(), 0666), 0);
    cc_trace("text");
    // A second name of another user's file.
    const std::string victim = trace_name() + ".victim";
    unlink(trace_name().c_str());
    std::ofstream(victim) << "untouched";
    EXPECT_EQ(link(victim.c_str(), trace_name().c_str()), 0);
    cc_trace("text");
    EXPECT_EQ(contents(victim), "untouched");
    unlink(victim.c_str());
    unlink(trace_name().c_str());
}

TEST_F(Trace, PlantedPipeAndHardLinkAreRefused) {
    IN_A_FRESH_PROCESS(refuse_what_is_planted,
                       "^Can't open /tmp/cfg_snmp_debug\\.log\\.[0-9]+Can't open "
                       "/tmp/cfg_snmp_debug\\.log\\.[0-9]+$");
}

void close_an_open_file() {
    unlink(trace_name().c_str());
    std::ofstream(trace_name()) << "";
    EXPECT_EQ(chmod(trace_name().c_str(), 0644), 0);
    is_snmp_debug_enabled = 1;
    cc_trace("text");
    struct stat status = {};
    EXPECT_EQ(stat(trace_name().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    unlink(trace_name().c_str());
}

TEST_F(Trace, FileThatOthersCouldReadIsClosedToThem) {
    IN_A_FRESH_PROCESS(close_an_open_file, "^$");
}

void fail_to_open() {
    unlink(trace_name().c_str());
    EXPECT_EQ(mkdir(trace_name().c_str(), 0700), 0);
    is_snmp_debug_enabled = 1;
    errno = ENOTTY;
    cc_trace("text");
    EXPECT_EQ(errno, ENOTTY);
    rmdir(trace_name().c_str());
}

TEST_F(Trace, UnopenableFileCostsOneLine) {
    IN_A_FRESH_PROCESS(fail_to_open, "^Can't open /tmp/cfg_snmp_debug\\.log\\.[0-9]+$");
}

} // namespace
