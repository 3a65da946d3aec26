#include "execution_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

void handle_sigchld(int) {}

} // namespace

const std::string full_user(CC_CREDENTIAL_SIZE, 'u');
const std::string full_password(CC_CREDENTIAL_SIZE, 'p');

std::unique_ptr<ccCopyEntry> copy_request(int32_t source, int32_t dest, int32_t protocol) {
    auto record = std::make_unique<ccCopyEntry>();
    record->ccCopyIndex = 7;
    record->ccCopyProtocol = protocol;
    record->ccCopySourceFileType = source;
    record->ccCopyDestFileType = dest;
    put_text(record->ccCopyFileName, "dir/remote.cfg");
    put_text(record->ccCopyUserName, "alice");
    put_text(record->ccCopyUserPassword, "secret");
    record->ccCopyNotificationOnCompletion = TRUTH_FALSE;
    record->ccCopyState = COPY_STATE_WAITING;
    record->ccCopyFailCause = COPY_FAIL_GENERAL;
    record->ccCopyServerAddressType = INET_ADDRESS_IPV4;
    put_text(record->ccCopyServerAddressRev1, "10.0.0.1");
    return record;
}

void put_full_credentials(ccCopyEntry &record) {
    put_text(record.ccCopyUserName, full_user);
    put_text(record.ccCopyUserPassword, full_password);
    // The field after the password must not show either.
    record.ccCopyNotificationOnCompletion = 0x41414141;
}

Tracing::Tracing() {
    unlink(("/tmp/cfg_snmp_debug.log." + std::to_string(getpid())).c_str());
}

std::string status_word(int32_t status) {
    return hex(&status, sizeof status);
}

Lines status_report(int handle, const std::string &payload) {
    const std::string endpoint = std::to_string(handle);
    return {"bind 1 -1 1,0,1024,0,0,15 config_copy_task = " + endpoint,
            "send " + endpoint + " fe000000 28 10273 " + payload, "unbind " + endpoint + " 0"};
}

Lines operator+(Lines first, const Lines &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

void ExecutionTest::SetUp() {
    ModuleTest::SetUp();
    before_ = fs::current_path();
    char name[] = "/tmp/module_tests.XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    directory_ = name;
    ASSERT_EQ(chdir(name), 0);
    struct sigaction action {};
    action.sa_handler = handle_sigchld;
    ASSERT_EQ(sigaction(SIGCHLD, &action, &action_before_), 0);
}

void ExecutionTest::TearDown() {
    struct sigaction action {};
    sigaction(SIGCHLD, &action_before_, &action);
    EXPECT_EQ(action.sa_handler, handle_sigchld) << "SIGCHLD was not put back";
    ASSERT_EQ(chdir(before_.c_str()), 0);
    fs::remove_all(directory_);
    ModuleTest::TearDown();
}

Lines ExecutionTest::files() const {
    Lines names;
    for (const fs::directory_entry &entry : fs::directory_iterator(directory_)) {
        names.push_back(entry.path().filename());
    }
    std::ranges::sort(names);
    return names;
}

std::string ExecutionTest::contents(const std::string &name) {
    std::ifstream file(name);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}
