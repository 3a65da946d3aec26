#include "config-copy/copies/copy_run.h"

#include "base/text.h"
#include "base/wwn_text.h"
#include "config-copy/agents/agent_session.h"
#include "config-copy/copies/copy_line.h"
#include "config-copy/copies/local_copy.h"
#include "config-copy/interrupt.h"
#include "copy_client/copy_row.h"

#include <algorithm>
#include <ctime>
#include <random>
#include <utility>

namespace config_copy {
namespace {

using namespace std::chrono_literals;

// Random, so that waiting managers do not always collide.
Milliseconds some_time() {
    std::random_device source;
    return Milliseconds(std::uniform_int_distribution(300, 1000)(source));
}

// What the copy is about, with the values filled in.
void describe(Outcome &outcome, const CopyJob &job, const PathValues &values) {
    outcome.from = endpoint_text(job.from, values);
    outcome.to = endpoint_text(job.to, values);
    if (job.has_file() && !job.is_local()) {
        outcome.file = file_name(job.file(), values);
    }
}

class Run {
  public:
    Run(Session &session, const Agent &agent, const CopyJob &job, const Progress &progress)
        : session_(session), agent_(agent), job_(job), progress_(progress), row_(session),
          path_values_(path_values(job, agent)) {}

    Outcome run() {
        Outcome outcome = planned(job_, agent_);
        try {
            fill_in_name(outcome);
            offer_file(outcome);
            start_when_it_is_our_turn(outcome);
            await_end(outcome);
        } catch (const Failure &failure) {
            outcome.fail(failure);
        } catch (const Trouble &trouble) {
            outcome.fail(failure_of(trouble, session_.agent()));
        } catch (const Interrupted &) {
            clean_up();
            if (row_.is_left()) {
                throw InterruptedWithRequests{{}, session_.agent() + ": its " + what_is_left()};
            }
            throw;
        }
        clean_up();
        if (row_.is_left()) {
            outcome.text += "; its " + what_is_left();
        }
        return outcome;
    }

    // Only queries; sets nothing.
    Outcome rehearse() {
        Outcome outcome = planned(job_, agent_);
        try {
            check_table(session_);
            fill_in_name(outcome);
            const std::string reason = is_any(COPY_STATE_RUNNING) ? another_copy : "";
            if (!reason.empty() && job_.wait_turn == 0s) {
                throw busy(reason);
            }
            outcome.text = outcome.agent + ": dry run, nothing is set: would copy " + outcome.from +
                           " to " + outcome.to;
            if (!outcome.server.empty()) {
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

    // Fills in the switch's name if a path needs it. Two switches may have the same one.
    void fill_in_name(Outcome &outcome) {
        learn_name(session_, job_, agent_);
        if (agent_.sys_name.empty()) {
            return;
        }
        path_values_ = path_values(job_, agent_);
        describe(outcome, job_, path_values_);
        if (!has_template(job_.to, "name")) {
            return;
        }
        if (const auto other = job_.file_names->taken(outcome.to, agent_.name)) {
            throw Failure(ExitStatus::failed,
                          agent_.name + ": its sysName makes the same file as that of " + *other +
                              ", " + outcome.to +
                              ": nothing is copied; rename one, or write {host}");
        }
    }

    // Finds out where the switch finds the file, or, for a file of this machine, makes it so.
    void offer_file(Outcome &outcome) {
        if (job_.is_local()) {
            local_.emplace(job_, path_values_, session_.address());
            server_ = local_->server();
            outcome.server = address_text(server_.octets);
            outcome.file = file_name_ = local_->name();
        } else if (job_.has_file()) {
            server_ = job_.server;
            file_name_ = file_name(job_.file(), path_values_);
        }
    }

    void start_when_it_is_our_turn(Outcome &outcome) {
        const auto began = Clock::now();
        for (;;) {
            row_.make(columns());
            outcome.index = row_.index();
            check_that_we_may_read_it();
            const std::string reason = activate() ? "" : reason_of_refusal();
            if (reason.empty()) {
                outcome.start_time = utc_text(std::time(nullptr));
                return;
            }
            // A request that waits as long as we may would age out.
            row_.destroy();
            const auto waited =
                std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began);
            if (waited >= job_.wait_turn) {
                throw busy(reason);
            }
            progress_({"waiting for another copy", waited});
            session_.pause(some_time());
            // To wait for its turn takes nothing of the copy's time.
            session_.set_deadline(Clock::now() + job_.time_limit, false);
        }
    }

    [[nodiscard]] Failure busy(const std::string &reason) const {
        return {ExitStatus::busy,
                session_.agent() + ": " + reason +
                    (job_.wait_turn > 0s
                         ? ", and did not end in " + std::to_string(job_.wait_turn.count()) + " s"
                         : ": try again later, or queue with --wait-turn SECONDS")};
    }

    bool is_any(std::int64_t state) {
        const auto states = session_.instances(copy_column(CC_COLUMN_STATE));
        return std::any_of(states.begin(), states.end(),
                           [&](const Binding &row) { return number(row.value) == state; });
    }

    // Why the activation was refused; empty if it succeeds after all. A transfer outlives its
    // request, and then no request shows why the switch is busy. After a transfer that ended since
    // the refusal there is no running request either, so the activation is tried again.
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

    [[nodiscard]] std::vector<std::pair<oid, Value>> columns() const {
        std::vector<std::pair<oid, Value>> columns;
        const auto add = [&](oid column, Value value) {
            columns.emplace_back(column, std::move(value));
        };
        add(CC_COLUMN_SOURCE_FILE_TYPE, static_cast<std::int64_t>(job_.from.type));
        add(CC_COLUMN_DEST_FILE_TYPE, static_cast<std::int64_t>(job_.to.type));
        if (job_.has_file()) {
            add(CC_COLUMN_PROTOCOL, static_cast<std::int64_t>(job_.file().protocol));
            // before the address, which is interpreted by its type
            add(CC_COLUMN_SERVER_ADDRESS_TYPE, server_.type);
            add(CC_COLUMN_SERVER_ADDRESS_REV1, server_.octets);
            add(CC_COLUMN_FILE_NAME, file_name_);
            if (!job_.file().user.empty()) {
                add(CC_COLUMN_USER_NAME, job_.file().user);
            }
            if (!job_.password.empty()) {
                add(CC_COLUMN_USER_PASSWORD, job_.password);
            }
        }
        return columns;
    }

    // A row that can't be read could be started, but would then look as if it had been removed.
    void check_that_we_may_read_it() {
        if (!number(session_.get({copy_cell(CC_COLUMN_STATE, row_.index())}).front())) {
            throw Failure(
                ExitStatus::refused,
                session_.agent() +
                    ": the user may write the copy table but not read it: " + read_view_needed);
        }
    }

    // Returns false if another copy is in progress.
    bool activate() {
        const long status = row_.activate();
        if (status != SNMP_ERR_NOERROR && status != SNMP_ERR_GENERR) {
            throw Failure(ExitStatus::refused,
                          session_.agent() + ": " +
                              describe_refused_activation(status, session_.low_level()));
        }
        return status == SNMP_ERR_NOERROR;
    }

    void await_end(Outcome &outcome) {
        const auto began = Clock::now();
        CopyState end;
        try {
            end = row_.await_end([&] {
                progress_({"copying",
                           std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began),
                           local_ ? local_->octets_arrived() : std::nullopt});
            });
        } catch (const Trouble &trouble) {
            if (trouble.kind != TroubleKind::out_of_time) {
                throw;
            }
            const bool is_save = job_.from.type == FileType::running && !job_.has_file();
            throw Failure(ExitStatus::failed,
                          session_.agent() + ": not finished in " +
                              std::to_string(job_.time_limit.count()) + " s, so the " +
                              (is_save ? "save was given up: does the system manager run?"
                                       : "copy was given up") +
                              " (--time-limit gives more time)");
        }
        report(outcome, end);
    }

    void report(Outcome &outcome, const CopyState &end) {
        const bool is_done = end.state == COPY_STATE_SUCCESSFUL;
        outcome.state = state_name(end.state);
        outcome.seconds = seconds_between(end.started, end.completed);
        outcome.started = number(end.started).value_or(0);
        if (const auto line = line_of_copy(session_, row_.index(), outcome.started)) {
            outcome.reason = line->reason;
            outcome.bytes = line->bytes;
            outcome.sha256 = line->sha256;
        }
        const std::string duration =
            outcome.seconds ? (is_done ? " in " : " after ") + seconds_text(*outcome.seconds) + " s"
                            : "";
        const std::string what = outcome.from + " to " + outcome.to;
        if (is_done) {
            if (local_) {
                local_->finish(outcome);
            }
            outcome.text =
                outcome.agent + ": " + what +
                (outcome.is_unchanged.value_or(false) ? " unchanged" : " copied") + duration +
                (outcome.bytes ? ", " + octets_text(*outcome.bytes, outcome.seconds) : "");
            return;
        }
        const bool is_fabric = job_.to.type == FileType::fabric_startup;
        outcome.status = ExitStatus::failed;
        outcome.cause = cause_name(end.cause);
        const std::string server = local_            ? name_of_this_machine()
                                   : job_.has_file() ? job_.file().host
                                                     : "";
        outcome.text = outcome.agent + ": " + what + " failed" + duration + " (" + outcome.cause +
                       "): " + describe_cause(end.cause, server, is_fabric, outcome.reason);
        if (const std::string trouble = local_ ? local_->trouble() : ""; !trouble.empty()) {
            outcome.text += "; " + trouble;
        }
        if (is_fabric && end.cause == COPY_FAIL_WARDEN_FAILED) {
            try {
                outcome.switches = switches_of(session_, row_.index());
            } catch (const Trouble &trouble) { // that it failed is known
                outcome.text += "; what each switch reported can't be read: ";
                outcome.text += failure_of(trouble, session_.agent()).what();
            }
        }
    }

    [[nodiscard]] std::string name_of_this_machine() const {
        return "on this machine (" + address_text(server_.octets) + ')';
    }

    [[nodiscard]] std::string what_is_left() const {
        return "request " + std::to_string(row_.index()) +
               " could not be removed and expires within 7 minutes";
    }

    void clean_up() {
        session_.begin_to_clean_up(2s);
        session_.set_deadline(Clock::now() + 6s, false); // enough for three removals
        row_.destroy();
    }

    Session &session_;
    Agent agent_;
    const CopyJob &job_;
    const Progress &progress_;
    CopyRow row_;
    PathValues path_values_;
    // of the file that the switch reads or writes
    ServerAddress server_;
    std::string file_name_;
    std::optional<LocalCopy> local_;
};

} // namespace

std::string endpoint_text(const Endpoint &endpoint, const PathValues &values) {
    if (endpoint.type != FileType::network) {
        return std::string(name_of(endpoint.type));
    }
    if (endpoint.is_local()) {
        return local_path(endpoint, values);
    }
    std::string text = url_text(endpoint.url.protocol, endpoint.url.user, endpoint.url.host,
                                file_name(endpoint.url, values));
    if (values.name.empty() && has_template(endpoint, "name")) {
        constexpr std::string_view encoded = "%7Bname%7D";
        for (std::size_t at = 0; (at = text.find(encoded, at)) != std::string::npos;) {
            text.replace(at, encoded.size(), "{name}");
        }
    }
    return text;
}

std::optional<double> seconds_between(const Value &started, const Value &completed) {
    const std::int64_t start = number(started).value_or(0);
    const std::int64_t end = number(completed).value_or(0);
    if (start == 0 || end == 0) {
        return std::nullopt;
    }
    // The agent's clock wraps after 497 days, possibly during the copy.
    return static_cast<double>(static_cast<std::uint32_t>(end - start)) / 100;
}

std::vector<SwitchOutcome> switches_of(Session &session, oid index, std::size_t most) {
    std::vector<SwitchOutcome> switches;
    Oid request = error_column(CC_ERROR_COLUMN_SWITCH_WWN);
    request.push_back(index);
    for (const auto &[name, wwn] : session.instances(request, most)) {
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
            ExitStatus::refused,
            session.agent() +
                " has no copy table that this user may read: does it load config_copy_mib, and "
                "does the user's read view include .1.3.6.1.4.1.41927.9.96?");
    }
}

PathValues path_values(const CopyJob &job, const Agent &agent) {
    PathValues values = job.time;
    values.host = host_value(agent.name);
    values.group = agent.group;
    values.name = agent.sys_name;
    return values;
}

void learn_name(Session &session, const CopyJob &job, Agent &agent) {
    if (!agent.sys_name.empty() ||
        (!has_template(job.from, "name") && !has_template(job.to, "name"))) {
        return;
    }
    const Oid sys_name{1, 3, 6, 1, 2, 1, 1, 5, 0};
    agent.sys_name = name_value(octets(session.get({sys_name}).front()));
    if (agent.sys_name.empty()) {
        throw Failure(ExitStatus::failed,
                      agent.name + ": no sysName that this user may read, so {name} can't be "
                                   "filled in: name the switch, or write {host}");
    }
}

Outcome planned(const CopyJob &job, const Agent &agent) {
    Outcome outcome;
    outcome.agent = agent.name;
    outcome.group = agent.group;
    outcome.is_dry_run = job.is_dry_run;
    describe(outcome, job, path_values(job, agent));
    if (job.has_file() && !job.is_local()) {
        outcome.server = address_text(job.server.octets);
        outcome.user = job.file().user;
    }
    outcome.snmp_user = security_name(*agent.settings);
    return outcome;
}

Outcome copy(Session &session, const Agent &agent, const CopyJob &job, const Progress &progress) {
    Run run(session, agent, job, progress);
    return job.is_dry_run ? run.rehearse() : run.run();
}

Outcome copy(const Agent &agent, const CopyJob &job, const Progress &progress) {
    Outcome outcome = planned(job, agent);
    try {
        Session session = session_with(*agent.settings, agent.name, job.is_verbose, job.time_limit);
        return copy(session, agent, job, progress);
    } catch (const Failure &failure) {
        outcome.fail(failure);
    } catch (const Trouble &trouble) {
        outcome.fail(failure_of(trouble, agent.name));
    }
    return outcome;
}

} // namespace config_copy
