// The life of one row of ccCopyTable, as a manager leads it: at every step a request or its answer
// may be lost, and nothing may be done twice.
#pragma once

#include "copy_client/session.h"

#include <functional>
#include <utility>
#include <vector>

namespace copy_client {

// What a row tells of its copy.
struct CopyState {
    long state = 0; // COPY_STATE_…
    long cause = 0; // COPY_FAIL_…, of a failed one
    Value started;  // ccCopyTimeStarted and ccCopyTimeCompleted
    Value completed;
};

class CopyRow {
  public:
    explicit CopyRow(Session &session) : session_(session) {}
    CopyRow(const CopyRow &) = delete;
    CopyRow &operator=(const CopyRow &) = delete;

    // Beside those of Session, the functions throw Trouble of a row. Whatever they throw, the row
    // may be there from make() to destroy(), which is the caller's to call.

    // Leaves a row at the agent that waits to be activated and has these columns, in this order.
    void make(const std::vector<std::pair<oid, Value>> &columns);

    [[nodiscard]] oid index() const { return indexes_.back(); }

    // Starts the copy: SNMP_ERR_NOERROR when it runs, or has run already; otherwise why the agent
    // refuses to start it.
    long activate();

    CopyState read();

    // Calls `meanwhile` again and again until the copy has ended, well or badly.
    CopyState await_end(const std::function<void()> &meanwhile);

    // Takes away all that may be there, also rows whose making was not answered: a destroy of what
    // is not there is no error, and may be repeated. Does not throw Trouble.
    void destroy();

    // Whether a row may still be there, which then goes with its age.
    [[nodiscard]] bool is_left() const { return !indexes_.empty(); }

  private:
    bool is_there(oid index);
    oid free_index();

    Session &session_;
    std::vector<oid> indexes_; // of all rows that may be there
};

} // namespace copy_client
