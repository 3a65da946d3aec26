#include "platform/host/agent/copies.h"

#include "base/address_text.h"
#include "base/copy_names.h"
#include "base/folders.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/state_file.h"
#include "base/unique_fd.h"
#include "platform/agent_extension.h"
#include "platform/copy_table.h"
#include "platform/host/agent/request.h"
#include "platform/host/bus/wire.h"
#include "platform/host/fabric/status.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/last_save.h"
#include "platform/host/system_manager/status.h"
#include "platform/system_manager.h"
#include "platform/utilities.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace ulmo {
namespace {

using Clock = std::chrono::steady_clock;

// The columns that are read, below the module's root at 1.1.1.1.
constexpr std::array known_columns{CC_COLUMN_PROTOCOL,         CC_COLUMN_SOURCE_FILE_TYPE,
                                   CC_COLUMN_DEST_FILE_TYPE,   CC_COLUMN_FILE_NAME,
                                   CC_COLUMN_USER_NAME,        CC_COLUMN_STATE,
                                   CC_COLUMN_TIME_STARTED,     CC_COLUMN_FAIL_CAUSE,
                                   CC_COLUMN_ENTRY_ROW_STATUS, CC_COLUMN_SERVER_ADDRESS_REV1};
constexpr std::array<oid, 4> table_below_root{1, 1, 1, 1};

constexpr std::string_view report_prefix = "copy-report.";
constexpr std::string_view begun_key = "begun ";

std::chrono::milliseconds since(Clock::time_point began) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - began);
}

void forget_report(const std::filesystem::path &report) {
    const ActingAsOwner owner(report.parent_path());
    ::unlink(report.c_str());
}

// Creates the file of a copy's report. It holds the request's line, in case this agent ends before
// the copy. Empty if the file can't be created, which does not affect the copy.
std::filesystem::path make_report(const CopyRequest &request) {
    std::filesystem::path report;
    log_failure("agent: no report of a copy", [&] {
        const std::filesystem::path directory = run_dir();
        const ActingAsOwner owner(directory);
        std::string path = (directory / report_prefix).string() + "XXXXXX";
        const UniqueFd file(check(::mkostemp(path.data(), O_CLOEXEC), "cannot make", path));
        report = path; // the file exists from here on and must be removed
        write_whole(file.get(), std::string(begun_key) + line_of(request) + '\n', path);
    });
    return report;
}

CopyEnd end_of(const CopyReport &report) {
    CopyEnd end;
    end.reason = report.reason;
    end.octets = report.octets;
    end.sha256 = report.sha256;
    return end;
}

// The switches of the fabric that have not saved, with the reasons.
std::string fabric_reason() {
    std::string reason;
    for (const FabricSwitchStatus &each : read_fabric_status()) {
        if (each.text != saved_text) {
            reason += (reason.empty() ? "" : "; ") + wwn_to_text(each.wwn) + ": " + each.text;
        }
    }
    return reason;
}

std::string reason_of_save(std::uint32_t status) {
    std::string reason;
    if (status == warden_err_fabric) {
        reason = fabric_reason();
    } else if (status == warden_err_store) {
        reason = last_save().value_or("");
    }
    return reason.empty() || reason == saved_text ? ::syserr2str(status) : reason;
}

// The reason in a refusal, after its status word.
std::string text_in(msgbus_msg answer) {
    const auto *begin =
        static_cast<const char *>(::msgbus_payload_get(answer, sizeof(std::uint32_t)));
    return begin == nullptr ? "" : std::string(begin, answer->length).substr(sizeof(std::uint32_t));
}

template <typename Work> void for_a_line(Work &&work) noexcept {
    log_failure("agent: no line for a copy", std::forward<Work>(work));
}

} // namespace

// --- rows ---

void CopyRows::learn(const variable *variables, std::size_t size, std::size_t count,
                     const oid *root, std::size_t root_length) {
    columns_.clear();
    for (std::size_t i = 0; i < count; ++i) {
        // The agent steps the same way through arrays whose records differ in the length of their
        // names.
        const auto *each = reinterpret_cast<const variable *>(
            reinterpret_cast<const char *>(variables) + i * size);
        const bool is_in_table =
            each->namelen == table_below_root.size() + 1 &&
            std::equal(table_below_root.begin(), table_below_root.end(), each->name);
        if (!is_in_table || root_length + each->namelen > MAX_OID_LEN) {
            continue;
        }
        const oid column = each->name[table_below_root.size()];
        if (std::find(known_columns.begin(), known_columns.end(), column) == known_columns.end()) {
            continue;
        }
        variable &whole = columns_[column];
        whole = {};
        whole.magic = each->magic;
        whole.type = each->type;
        whole.acl = each->acl;
        whole.findVar = each->findVar;
        whole.namelen = static_cast<u_char>(root_length + each->namelen);
        std::copy(each->name, each->name + each->namelen,
                  std::copy(root, root + root_length, whole.name));
    }
}

const variable *CopyRows::column(oid number) const {
    const auto found = columns_.find(number);
    return found != columns_.end() ? &found->second : nullptr;
}

std::optional<std::string> CopyRows::octets(oid column, oid row) const {
    const auto found = columns_.find(column);
    if (found == columns_.end()) {
        return std::nullopt;
    }
    variable method = found->second;
    std::array<oid, MAX_OID_LEN> name{};
    std::copy(method.name, method.name + method.namelen, name.begin());
    std::size_t length = method.namelen;
    name.at(length++) = row;
    constexpr int exact = 1;
    std::size_t value_length = 0;
    WriteMethod *write_method = nullptr;
    const unsigned char *value =
        method.findVar(&method, name.data(), &length, exact, &value_length, &write_method);
    return value != nullptr
               ? std::optional(std::string(reinterpret_cast<const char *>(value), value_length))
               : std::nullopt;
}

std::optional<long> CopyRows::number(oid column, oid row) const {
    const auto value = octets(column, row);
    std::uint32_t word = 0;
    if (!value || value->size() != sizeof word) {
        return std::nullopt;
    }
    std::memcpy(&word, value->data(), sizeof word);
    return static_cast<long>(word);
}

std::vector<oid> CopyRows::set_by_request(long status, long other_status) const {
    std::vector<oid> rows;
    const netsnmp_pdu *request = current_request();
    const auto found = columns_.find(CC_COLUMN_ENTRY_ROW_STATUS);
    if (request == nullptr || found == columns_.end()) {
        return rows;
    }
    const variable &column = found->second;
    for (const netsnmp_variable_list *each = request->variables; each != nullptr;
         each = each->next_variable) {
        if (each->type == ASN_INTEGER && each->name_length == column.namelen + 1U &&
            ::snmp_oid_compare(each->name, column.namelen, column.name, column.namelen) == 0 &&
            each->val.integer != nullptr &&
            (*each->val.integer == status || *each->val.integer == other_status)) {
            rows.push_back(each->name[column.namelen]);
        }
    }
    return rows;
}

// --- what begins ---

// Only one copy runs at a time: of the rows that a request activates, it is the one that is
// running.
std::optional<oid> CopyWatch::activated_row() const {
    for (const oid row : rows_.set_by_request(ROW_STATUS_ACTIVE, ROW_STATUS_CREATE_AND_GO)) {
        if (rows_.number(CC_COLUMN_STATE, row) == COPY_STATE_RUNNING) {
            return row;
        }
    }
    return std::nullopt;
}

CopyRequest CopyWatch::request_of(oid row) const {
    const auto side = [&](oid column) {
        const long type = rows_.number(column, row).value_or(0);
        if (type != COPY_FILE_NETWORK) {
            return name_or_number(file_type_names, type);
        }
        const long protocol = rows_.number(CC_COLUMN_PROTOCOL, row).value_or(0);
        return url_of(name_or_number(protocol_names, protocol),
                      rows_.octets(CC_COLUMN_USER_NAME, row).value_or(""),
                      address_text(rows_.octets(CC_COLUMN_SERVER_ADDRESS_REV1, row).value_or("")),
                      rows_.octets(CC_COLUMN_FILE_NAME, row).value_or(""));
    };
    CopyRequest request;
    request.began = std::time(nullptr);
    request.index = static_cast<std::uint32_t>(row);
    request.started =
        static_cast<std::uint32_t>(rows_.number(CC_COLUMN_TIME_STARTED, row).value_or(0));
    request.user = requester_name();
    request.requester = requester_address();
    request.from = side(CC_COLUMN_SOURCE_FILE_TYPE);
    request.to = side(CC_COLUMN_DEST_FILE_TYPE);
    return request;
}

std::optional<CopyWatch::Copy> CopyWatch::begin() noexcept {
    std::optional<Copy> copy;
    for_a_line([&] {
        if (const auto row = activated_row()) {
            copy = Copy{request_of(*row), Clock::now(), {}};
            copy->report = make_report(copy->request);
        }
    });
    return copy;
}

void CopyWatch::follow(pid_t worker, std::optional<Copy> copy) {
    if (copy) {
        copies_.insert_or_assign(worker, std::move(*copy));
    }
}

// --- what ends ---

void CopyWatch::end_copy(const Copy &copy, CopyEnd end) {
    end.duration = since(copy.began);
    if (!rows_.number(CC_COLUMN_STATE, copy.request.index) && end.reason.empty()) {
        end.reason = request_removed;
    }
    tell_line(line_of(copy.request) + ' ' + line_of(end));
    if (!copy.report.empty()) {
        forget_report(copy.report);
    }
}

void CopyWatch::not_forked(const Copy &copy, int error) noexcept {
    for_a_line([&] {
        CopyEnd end;
        end.outcome = CopyEnd::Outcome::failed;
        end.cause = cause_name(COPY_FAIL_GENERAL);
        end.reason = std::string("the copy process could not be started: ") + std::strerror(error);
        end_copy(copy, end);
    });
}

// Ends the copy of a worker: what its report says, completed by `complete`.
void CopyWatch::end_worker(pid_t worker, const std::function<void(CopyEnd &)> &complete) noexcept {
    for_a_line([&] {
        if (const auto found = copies_.find(worker); found != copies_.end()) {
            const Copy copy = std::move(found->second);
            copies_.erase(found);
            CopyEnd end = end_of(read_copy_report(copy.report));
            complete(end);
            end_copy(copy, std::move(end));
        }
    });
}

std::optional<std::int32_t> CopyWatch::reported_cause(pid_t worker) const noexcept {
    const auto found = copies_.find(worker);
    return found != copies_.end() ? read_copy_report(found->second.report).cause : std::nullopt;
}

void CopyWatch::reported(pid_t worker, std::optional<std::int32_t> status) noexcept {
    end_worker(worker, [&](CopyEnd &end) {
        end.outcome = status == 0 ? CopyEnd::Outcome::successful : CopyEnd::Outcome::failed;
        if (status == 0) {
            end.reason.clear();
        } else {
            end.cause = cause_name(status.value_or(COPY_FAIL_GENERAL));
        }
    });
}

void CopyWatch::died(pid_t worker, const std::string &how) noexcept {
    end_worker(worker, [&](CopyEnd &end) {
        end.outcome = CopyEnd::Outcome::failed;
        end.cause = cause_name(COPY_FAIL_GENERAL);
        const std::string ending = "the copy process ended " + how;
        end.reason = end.reason.empty() ? ending : end.reason + " (" + ending + ')';
    });
}

void CopyWatch::ended(pid_t worker, std::int32_t status, const std::string &reason) noexcept {
    end_worker(worker, [&](CopyEnd &end) {
        end.outcome = CopyEnd::Outcome::failed;
        end.cause = cause_name(status);
        end.reason = reason;
    });
}

std::vector<pid_t> CopyWatch::without_row() const noexcept {
    std::vector<pid_t> all;
    for_a_line([&] {
        for (const auto &[worker, copy] : copies_) {
            if (rows_.number(CC_COLUMN_STATE, copy.request.index) != COPY_STATE_RUNNING) {
                all.push_back(worker);
            }
        }
    });
    return all;
}

void CopyWatch::close_unfinished() noexcept {
    for_a_line([&] {
        for (const auto &entry : std::filesystem::directory_iterator(run_dir())) {
            const std::filesystem::path &path = entry.path();
            const bool is_ours = std::any_of(copies_.begin(), copies_.end(), [&](const auto &copy) {
                return copy.second.report == path;
            });
            if (is_ours || !path.filename().string().starts_with(report_prefix)) {
                continue;
            }
            constexpr std::size_t limit = std::size_t{64} * 1024;
            const std::string text = read_state_file(path, limit).value_or("");
            CopyEnd end = end_of(read_copy_report(path));
            end.reason = "the agent ended before the copy did";
            if (text.starts_with(begun_key)) {
                tell_line(text.substr(begun_key.size(), text.find('\n') - begun_key.size()) + ' ' +
                          line_of(end));
            }
            forget_report(path);
        }
    });
}

// --- saves ---

void CopyWatch::end_save(CopyEnd end) {
    const Save save = std::move(*save_);
    save_.reset();
    end.duration = since(save.began);
    end.reason = end.reason.substr(0, longest_reason);
    tell_line(line_of(save.request) + ' ' + line_of(end));
}

void CopyWatch::save_sent() {
    if (const auto row = activated_row()) {
        save_ = Save{request_of(*row), Clock::now(), {}};
    }
}

void CopyWatch::sent(std::uint32_t opcode) noexcept {
    for_a_line([&] {
        if (opcode == MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION) {
            save_sent();
        } else if (opcode == MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT && save_) {
            const auto destroyed = rows_.set_by_request(ROW_STATUS_DESTROY, ROW_STATUS_DESTROY);
            if (std::find(destroyed.begin(), destroyed.end(), save_->request.index) !=
                destroyed.end()) {
                CopyEnd end;
                end.outcome =
                    save_->lost.empty() ? CopyEnd::Outcome::unknown : CopyEnd::Outcome::failed;
                end.reason = save_->lost.empty() ? request_removed : save_->lost;
                end_save(std::move(end));
            }
        }
    });
}

void CopyWatch::answered(msgbus_msg answer) noexcept {
    for_a_line([&] {
        if (!save_) {
            return;
        }
        CopyEnd end;
        std::uint32_t status = warden_err_request;
        if (const void *payload = ::msgbus_payload_get(answer, sizeof status)) {
            std::memcpy(&status, payload, sizeof status);
            status = ntohl(status);
        }
        if (status == WARDEN_CFG_ACTION_INITIATED) {
            return;
        }
        if (status == WARDEN_CFG_ACTION_DONE) {
            end.outcome = CopyEnd::Outcome::successful;
        } else {
            end.outcome = CopyEnd::Outcome::failed;
            end.cause = cause_name(COPY_FAIL_WARDEN_REFUSED);
            const std::string text = text_in(answer);
            end.reason = text.empty() ? ::syserr2str(status) : text;
        }
        end_save(std::move(end));
    });
}

void CopyWatch::save_lost(const std::string &why) noexcept {
    for_a_line([&] {
        if (save_) {
            save_->lost = why;
        }
    });
}

void CopyWatch::action_ended(std::uint32_t status) noexcept {
    for_a_line([&] {
        if (!save_) {
            return;
        }
        const auto state = rows_.number(CC_COLUMN_STATE, save_->request.index);
        if (state == COPY_STATE_RUNNING) {
            return; // another action's end
        }
        CopyEnd end;
        if (!state) {
            end.reason = request_removed;
        } else if (state == COPY_STATE_SUCCESSFUL) {
            end.outcome = CopyEnd::Outcome::successful;
        } else {
            end.outcome = CopyEnd::Outcome::failed;
            end.cause =
                cause_name(rows_.number(CC_COLUMN_FAIL_CAUSE, save_->request.index).value_or(0));
            end.reason = save_->lost.empty() ? reason_of_save(status) : save_->lost;
        }
        end_save(std::move(end));
    });
}

CopyWatch &copy_watch() {
    static auto *const watch = new CopyWatch; // for the process's life, past all destructors
    return *watch;
}

} // namespace ulmo
