// The life of one row of ccCopyTable, from the manager's side. Every request and every answer may
// be lost, and no step may be done twice.
#pragma once

#include "copy_client/session.h"

#include <functional>
#include <utility>
#include <vector>

namespace copy_client {

// What a row reports about its copy.
struct CopyState {
    std::int64_t state = 0; // COPY_STATE_…
    std::int64_t cause = 0; // COPY_FAIL_…, if it failed
    Value started;          // ccCopyTimeStarted and ccCopyTimeCompleted
    Value completed;
};

class CopyRow {
  public:
    explicit CopyRow(Session &session) : session_(session) {}
    CopyRow(const CopyRow &) = delete;
    CopyRow &operator=(const CopyRow &) = delete;

    // In addition to what Session's functions throw, these throw Trouble about a row. Whatever they
    // throw, the row may exist from make() until destroy(), and the caller must call destroy().

    // Creates a row with these columns, set in this order, that waits for its activation.
    void make(const std::vector<std::pair<oid, Value>> &columns);

    [[nodiscard]] oid index() const { return indexes_.back(); }

    // Starts the copy. SNMP_ERR_NOERROR if it runs or has run already, otherwise the agent's reason
    // to refuse.
    long activate();

    CopyState read();

    // Calls `meanwhile` repeatedly until the copy has ended, well or badly.
    CopyState await_end(const std::function<void()> &meanwhile);

    // Destroys every row that may exist, including rows whose creation was not answered. Destroying
    // a row that does not exist is not an error, so this may be repeated. Does not throw Trouble.
    void destroy();

    // Whether a row may still exist; it then ages out.
    [[nodiscard]] bool is_left() const { return !indexes_.empty(); }

  private:
    bool is_there(oid index);
    oid free_index();

    Session &session_;
    std::vector<oid> indexes_; // of all rows that may exist
};

} // namespace copy_client
