// Copy requests, and a fixture for tests of their execution.
#ifndef TESTS_UNIT_EXECUTION_FIXTURE_H
#define TESTS_UNIT_EXECUTION_FIXTURE_H

#include <memory>
#include <string>

#include "journal.h"
#include "module_fixture.h"

// A complete request in a heap block of exactly its size: server 10.0.0.1, file dir/remote.cfg,
// user alice, password secret.
std::unique_ptr<ccCopyEntry> copy_request(int32_t source, int32_t dest,
                                          int32_t protocol = COPY_PROTO_TFTP);

// A user name and a password of the full width, and the fields filled with them: there is no
// terminator between the two.
extern const std::string full_user;
extern const std::string full_password;
void put_full_credentials(ccCopyEntry &record);

// Switches the trace file on, and removes it at the end.
class Tracing {
  public:
    Tracing();
    std::vector<std::string> take() { return file_.take(); }

  private:
    TraceFile file_;
};

// The journal's lines for a status report over this endpoint.
Lines status_report(int handle, const std::string &payload);
// The status as in the report's payload.
std::string status_word(int32_t status);

Lines operator+(Lines first, const Lines &second);

// Runs in a new working directory, with a SIGCHLD handler that must be restored at the end.
class ExecutionTest : public ModuleTest {
  protected:
    void SetUp() override;
    void TearDown() override;

    // The working directory, and a file in it.
    const std::string &directory() const { return directory_; }
    std::string path(const std::string &name) const { return directory_ + "/" + name; }
    // Names of the files in it, sorted.
    Lines files() const;
    static std::string contents(const std::string &name);

  private:
    std::string before_;
    std::string directory_;
    struct sigaction action_before_ {};
};

#endif
