#include "copy_client/copy_row.h"

#include "copy_client/message_text.h"

#include <algorithm>
#include <random>

namespace copy_client {
namespace {

using namespace std::chrono_literals;

constexpr int most_attempts = 8; // to create a row, each with another index, and to activate it
constexpr int removals = 3;      // of one row, at least; each may get lost
constexpr int most_looks = 32;   // for a free index, of which there are 2^31

// How v1 agents map v2's finer error statuses (RFC 3584, section 4.4).
bool is_taken(long status) {
    return status == SNMP_ERR_INCONSISTENTVALUE || status == SNMP_ERR_BADVALUE;
}

} // namespace

bool CopyRow::is_there(oid index) {
    return number(session_.get({copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, index)}).front()).has_value();
}

// Random, because another manager may be looking for a free index at the same time.
oid CopyRow::free_index() {
    std::random_device source;
    std::uniform_int_distribution<oid> any(1, largest_index);
    for (int look = 0; look < most_looks; ++look) {
        if (const oid index = any(source); !is_there(index)) {
            return index;
        }
    }
    throw Trouble(TroubleKind::no_free_index, most_looks);
}

// Each attempt uses a new index: a second createAndWait that meets a late first one would block the
// row.
void CopyRow::make(const std::vector<std::pair<oid, Value>> &columns) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        indexes_.push_back(free_index());
        std::vector<Binding> bindings{
            {copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, index()), ROW_STATUS_CREATE_AND_WAIT}};
        for (const auto &[column, value] : columns) {
            bindings.push_back({copy_cell(column, index()), value});
        }
        const auto result = session_.set(bindings);
        if (!result) {
            if (is_there(index())) {
                return; // the answer was lost
            }
        } else if (result->status == SNMP_ERR_NOERROR) {
            return;
        } else if (result->at == 1 && is_taken(result->status)) {
            indexes_.pop_back(); // taken by another manager since we looked
        } else {
            const std::size_t refused =
                result->at > 0 && result->at <= bindings.size() ? result->at - 1 : 0;
            const Oid &name = bindings[refused].name;
            throw Trouble(TroubleKind::making_refused, result->status, session_.low_level(),
                          name[name.size() - 2]);
        }
    }
    throw Trouble(TroubleKind::making_lost);
}

// In a SET of its own, so that a refusal does not damage the row.
long CopyRow::activate() {
    bool is_sure = true; // that no earlier activation is under way
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        const auto result =
            session_.set({{copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, index()), ROW_STATUS_ACTIVE}});
        if (result && result->status == SNMP_ERR_NOERROR) {
            return SNMP_ERR_NOERROR;
        }
        if ((!result || !is_sure) && read().state != COPY_STATE_WAITING) {
            return SNMP_ERR_NOERROR; // it was carried out, but its answer was lost
        }
        if (result) {
            return result->status;
        }
        is_sure = false;
    }
    throw Trouble(TroubleKind::activation_lost);
}

CopyState CopyRow::read() {
    std::vector<Oid> names;
    for (const oid column : {CC_COLUMN_STATE, CC_COLUMN_FAIL_CAUSE, CC_COLUMN_TIME_STARTED,
                             CC_COLUMN_TIME_COMPLETED}) {
        names.push_back(copy_cell(column, index()));
    }
    const std::vector<Value> values = session_.get(names);
    const auto state = number(values[0]);
    if (!state) {
        indexes_.pop_back();
        throw Trouble(TroubleKind::row_gone);
    }
    if (*state < COPY_STATE_WAITING || *state > COPY_STATE_FAILED) {
        throw Trouble(TroubleKind::wrong_answer, 0, describe_name(names[0]));
    }
    return {*state, number(values[1]).value_or(0), values[2], values[3]};
}

CopyState CopyRow::await_end(const std::function<void()> &meanwhile) {
    // A save takes about ten milliseconds, a transfer seconds or minutes: the end is noticed after
    // a fifth of the time at most.
    constexpr Milliseconds shortest = 5ms;
    constexpr Milliseconds longest = 1s;
    const auto began = Clock::now();
    for (;;) {
        CopyState now = read();
        if (now.state == COPY_STATE_SUCCESSFUL || now.state == COPY_STATE_FAILED) {
            return now;
        }
        meanwhile();
        const auto elapsed = std::chrono::duration_cast<Milliseconds>(Clock::now() - began);
        session_.pause(std::clamp(elapsed / 5, shortest, longest));
    }
}

void CopyRow::destroy() {
    std::vector<oid> left;
    try {
        while (!indexes_.empty()) {
            std::optional<SetResult> result;
            const int attempts = std::max(removals, session_.attempts());
            for (int attempt = 0; attempt < attempts && !result; ++attempt) {
                result = session_.set(
                    {{copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, index()), ROW_STATUS_DESTROY}});
            }
            if (!result) {
                break; // silent now, so also for the other rows
            }
            if (result->status == SNMP_ERR_GENERR) {
                left.push_back(index()); // blocked, for instance by a refused request
            }
            indexes_.pop_back();
        }
    } catch (const Trouble &) { // the rows that are left age out
    }
    indexes_.insert(indexes_.end(), left.rbegin(), left.rend());
}

} // namespace copy_client
