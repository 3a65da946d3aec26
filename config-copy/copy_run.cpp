#include "config-copy/copy_run.h"

#include "base/text.h"
#include "base/wwn_text.h"
#include "config-copy/agent_session.h"
#include "config-copy/copy_line.h"
#include "config-copy/interrupt.h"
#include "copy_client/copy_row.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <random>
#include <utility>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

// At random, so that those who wait do not always meet.
Milliseconds some_time() {
    std::random_device source;
    return Milliseconds(std::uniform_int_distribution(300, 1000)(source));
}

std::string time_text(std::time_t time) {
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    std::array<char, 32> text{};
    return {text.data(), std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc)};
}

class Run {
  public:
    Run(Session &session, const CopyOrder &order, const Progress &progress)
        : session_(session), order_(order), progress_(progress),
          row_(session), path_values_{host_value(session.agent()), order.date} {}

    Outcome run() {
        Outcome outcome = planned(order_, session_.agent());
        try {
            start_when_it_is_our_turn(outcome);
            await_end(outcome);
        } catch (const Failure &failure) {
            outcome.fail(failure);
        } catch (const Trouble &trouble) {
            outcome.fail(failure_of(trouble, session_.agent()));
        } catch (const Interrupted &) {
            clean_up();
            throw;
        }
        clean_up();
        if (row_.is_left()) {
            outcome.text += "; its request " + std::to_string(row_.index()) +
                            " could not be removed and goes by itself within 7 minutes";
        }
        return outcome;
    }

    // Sets nothing.
    Outcome rehearse() {
        Outcome outcome = planned(order_, session_.agent());
        try {
            check_table(session_);
            const std::string reason = is_any(COPY_STATE_RUNNING) ? another_copy : reason_to_wait();
            if (!reason.empty() && order_.wait_turn == 0s) {
                throw busy(reason);
            }
            outcome.text = outcome.agent + ": dry run, nothing is set: would copy " + outcome.from +
                           " to " + outcome.to;
            if (order_.has_file()) {
                outcome.text += " (server " + outcome.server + ", file \"" +
                                ulmo::one_line(outcome.file) + "\")";
            }
            outcome.text += reason.empty() ? "" : " when its turn comes, as " + reason;
            outcome.text += "; whether this user may write shows only when a copy is made";
        } catch (const Failure &failure) {
            outcome.fail(failure);
        } catch (const Trouble &trouble) {
            outcome.fail(failure_of(trouble, session_.agent()));
        }
        return outcome;
    }

  private:
    static constexpr const char *another_copy = "another copy is in progress";

    [[nodiscard]] bool is_save() const {
        return !order_.has_file() && order_.from.type == FileType::running;
    }

    // --- our turn ---

    void start_when_it_is_our_turn(Outcome &outcome) {
        const auto began = Clock::now();
        for (;;) {
            std::string reason = reason_to_wait();
            if (reason.empty()) {
                row_.make(columns());
                outcome.index = row_.index();
                check_that_we_may_read_it();
                reason = activate() ? "" : reason_of_refusal();
                if (reason.empty()) {
                    outcome.start_time = time_text(std::time(nullptr));
                    return;
                }
                // A row that waits would be taken for the next save that begins on the switch,
                // whoever asks for it.
                row_.destroy();
            }
            const auto waited =
                std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began);
            if (waited >= order_.wait_turn) {
                throw busy(reason);
            }
            progress_("waiting for another copy", waited);
            session_.pause(some_time());
        }
    }

    [[nodiscard]] Failure busy(const std::string &reason) const {
        return {Ending::busy,
                session_.agent() + ": " + reason +
                    (order_.wait_turn > 0s
                         ? ", and did not end in " + std::to_string(order_.wait_turn.count()) + " s"
                         : ": try again later, or queue with --wait-turn SECONDS")};
    }

    bool is_any(long state) {
        const auto states = session_.instances(copy_column(CC_COLUMN_STATE));
        return std::any_of(states.begin(), states.end(),
                           [&](const Binding &row) { return number(row.value) == state; });
    }

    // Why the activation was refused; nothing when it succeeds after all. A transfer outlives its
    // request, and then no request shows why the switch is busy. One that ended since the refusal
    // has no request that runs either, so the switch is asked once more.
    std::string reason_of_refusal() {
        if (is_any(COPY_STATE_RUNNING)) {
            return another_copy;
        }
        if (activate()) {
            return {};
        }
        return is_any(COPY_STATE_RUNNING) ? another_copy
                                          : "a transfer whose request was removed is still running";
    }

    // When a save begins, the agent marks the first request that waits as running, and when it
    // ends, the first one that runs as ended. So a save of ours would leave another manager's
    // request running for ever, and that one would block the switch.
    std::string reason_to_wait() {
        if (!is_save()) {
            return {};
        }
        const auto states = session_.instances(copy_column(CC_COLUMN_STATE));
        const auto waiting = std::find_if(states.begin(), states.end(), [](const Binding &state) {
            return number(state.value) == COPY_STATE_WAITING;
        });
        if (waiting == states.end()) {
            return {};
        }
        const std::string index = std::to_string(waiting->name.back());
        return "another manager's request " + index +
               " waits to be started, and this save would disturb it (`config-copy abort " +
               session_.agent() + ' ' + index + "` removes it)";
    }

    // --- the request ---

    [[nodiscard]] std::vector<std::pair<oid, Value>> columns() const {
        std::vector<std::pair<oid, Value>> columns;
        const auto add = [&](oid column, Value value) {
            columns.emplace_back(column, std::move(value));
        };
        add(CC_COLUMN_SOURCE_FILE_TYPE, static_cast<long>(order_.from.type));
        add(CC_COLUMN_DEST_FILE_TYPE, static_cast<long>(order_.to.type));
        if (order_.has_file()) {
            add(CC_COLUMN_PROTOCOL, static_cast<long>(order_.file().protocol));
            // before the address, which is read by it
            add(CC_COLUMN_SERVER_ADDRESS_TYPE, order_.server.type);
            add(CC_COLUMN_SERVER_ADDRESS_REV1, order_.server.octets);
            add(CC_COLUMN_FILE_NAME, file_name(order_.file(), path_values_));
            if (!order_.file().user.empty()) {
                add(CC_COLUMN_USER_NAME, order_.file().user);
            }
            if (!order_.password.empty()) {
                add(CC_COLUMN_USER_PASSWORD, order_.password);
            }
        }
        return columns;
    }

    // A row that can't be read could be started, and would then seem to be gone.
    void check_that_we_may_read_it() {
        if (!number(session_.get({copy_cell(CC_COLUMN_STATE, row_.index())}).front())) {
            throw Failure(
                Ending::refused,
                session_.agent() +
                    ": the user may write the copy table but not read it: " + read_view_needed);
        }
    }

    // False when another copy is in progress.
    bool activate() {
        const long status = row_.activate();
        if (status != SNMP_ERR_NOERROR && status != SNMP_ERR_GENERR) {
            throw Failure(Ending::refused,
                          session_.agent() + ": " +
                              words_of_refused_activation(status, session_.low_level()));
        }
        return status == SNMP_ERR_NOERROR;
    }

    // --- the outcome ---

    void await_end(Outcome &outcome) {
        const auto began = Clock::now();
        const CopyState end = row_.await_end([&] {
            const auto elapsed =
                std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began);
            if (elapsed >= order_.time_limit) {
                const std::string rest = words_of_what_goes_on(order_.from.type, order_.to.type);
                throw Failure(Ending::failed,
                              session_.agent() + ": not finished in " +
                                  std::to_string(order_.time_limit.count()) + " s, so the " +
                                  (rest.empty() ? "save was given up: does the system manager run?"
                                                : "request was removed; " + rest) +
                                  " (--time-limit gives more time)");
            }
            progress_("copy running", elapsed);
        });
        tell(outcome, end);
    }

    void tell(Outcome &outcome, const CopyState &end) {
        const bool is_done = end.state == COPY_STATE_SUCCESSFUL;
        outcome.state = state_name(end.state);
        outcome.seconds = seconds_between(end.started, end.completed);
        if (const auto line =
                line_of_copy(session_, row_.index(), number(end.started).value_or(0))) {
            outcome.reason = line->reason;
            outcome.bytes = line->bytes;
            outcome.sha256 = line->sha256;
        }
        const std::string duration =
            outcome.seconds ? (is_done ? " in " : " after ") + seconds_text(*outcome.seconds) + " s"
                            : "";
        const std::string what = outcome.from + " to " + outcome.to;
        if (is_done) {
            outcome.text = outcome.agent + ": " + what + " copied" + duration +
                           (outcome.bytes ? ", " + std::to_string(*outcome.bytes) + " octets" : "");
            return;
        }
        const bool is_fabric = order_.to.type == FileType::fabric_startup;
        outcome.ending = Ending::failed;
        outcome.cause = cause_name(end.cause);
        const std::string server = order_.has_file() ? order_.file().host : "";
        outcome.text = outcome.agent + ": " + what + " failed" + duration + " (" + outcome.cause +
                       "): " + words_of_cause(end.cause, server, is_fabric, outcome.reason);
        if (is_fabric && end.cause == COPY_FAIL_WARDEN_FAILED) {
            outcome.switches = switches_of(session_, row_.index());
        }
    }

    void clean_up() {
        session_.begin_to_clean_up(2s);
        row_.destroy();
    }

    Session &session_;
    const CopyOrder &order_;
    const Progress &progress_;
    CopyRow row_;
    PathValues path_values_;
};

} // namespace

std::string side_text(const CopySide &side, const PathValues &values) {
    if (side.type != FileType::network) {
        return std::string(name_of(side.type));
    }
    return url_text(side.url.protocol, side.url.user, side.url.host, file_name(side.url, values));
}

std::optional<double> seconds_between(const Value &started, const Value &completed) {
    const long start = number(started).value_or(0);
    const long end = number(completed).value_or(0);
    if (start == 0 || end == 0) {
        return std::nullopt;
    }
    // The agent's clock may have begun anew meanwhile, after 497 days.
    return static_cast<double>(static_cast<std::uint32_t>(end - start)) / 100;
}

std::vector<SwitchOutcome> switches_of(Session &session, oid index) {
    std::vector<SwitchOutcome> switches;
    Oid request = error_column(CC_ERROR_COLUMN_SWITCH_WWN);
    request.push_back(index);
    for (const auto &[name, wwn] : session.instances(request)) {
        const std::vector<Value> values =
            session.get({error_cell(CC_ERROR_COLUMN_DEVICE_ADDR, index, name.back()),
                         error_cell(CC_ERROR_COLUMN_TEXT, index, name.back())});
        const std::string address = octets(values[0]);
        switches.push_back({address.empty() ? "" : address_text(address),
                            ulmo::wwn_to_text(octets(wwn)), ulmo::one_line(octets(values[1]))});
    }
    return switches;
}

void check_table(Session &session) {
    if (!session.has_object(copy_cell(CC_COLUMN_ENTRY_ROW_STATUS, largest_index))) {
        throw Failure(
            Ending::refused,
            session.agent() +
                " has no copy table that this user may read: does it load config_copy_mib, and "
                "does the user's read view hold .1.3.6.1.4.1.41927.9.96?");
    }
}

Outcome planned(const CopyOrder &order, const std::string &agent) {
    const PathValues values{host_value(agent), order.date};
    Outcome outcome;
    outcome.agent = agent;
    outcome.is_dry_run = order.is_dry_run;
    outcome.from = side_text(order.from, values);
    outcome.to = side_text(order.to, values);
    if (order.has_file()) {
        outcome.server = address_text(order.server.octets);
        outcome.file = file_name(order.file(), values);
        outcome.user = order.file().user;
    }
    outcome.snmp_user = order.snmp_user;
    return outcome;
}

Outcome copy(Session &session, const CopyOrder &order, const Progress &progress) {
    Run run(session, order, progress);
    return order.is_dry_run ? run.rehearse() : run.run();
}

Outcome copy(const netsnmp_session &defaults, const std::string &agent, const CopyOrder &order,
             const Progress &progress) {
    Outcome outcome = planned(order, agent);
    try {
        Session session = session_with(defaults, agent, order.is_verbose);
        return copy(session, order, progress);
    } catch (const Failure &failure) {
        outcome.fail(failure);
    } catch (const Trouble &trouble) {
        outcome.fail(failure_of(trouble, agent));
    }
    return outcome;
}

} // namespace config_copy
