// The copies and saves that managers request from this agent, from the activation to the line that
// is kept of each and sent to the system's log. The module that serves the copy table is not
// involved: the request being served names the row, and the module's own read methods supply its
// columns. For the agent's thread only.
#pragma once

#include "platform/host/history/copy_record.h"
#include "platform/host/history/copy_report.h"
#include "platform/msgbus.h"

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace ulmo {

// Reads columns of the copy table's rows through the methods that the module has registered, except
// the column of the passwords.
class CopyRows {
  public:
    // Notes a module's registration; the arguments are those of register_mib(3).
    void learn(const variable *variables, std::size_t size, std::size_t count, const oid *root,
               std::size_t root_length);

    [[nodiscard]] std::optional<std::string> octets(oid column, oid row) const;
    [[nodiscard]] std::optional<long> number(oid column, oid row) const;

    // A column with its whole name; null when the module has registered none.
    [[nodiscard]] const variable *column(oid number) const;

    // The rows whose status the request being served sets to one of two values, in the request's
    // order.
    [[nodiscard]] std::vector<oid> set_by_request(long status, long other_status) const;

  private:
    std::map<oid, variable> columns_; // with whole names
};

// Why a copy ended whose row is gone.
inline constexpr char request_removed[] = "the request was removed before the end";

class CopyWatch {
  public:
    void learn(const variable *variables, std::size_t size, std::size_t count, const oid *root,
               std::size_t root_length) {
        rows_.learn(variables, size, count, root, root_length);
    }

    // An activated copy, and its worker's report file.
    struct Copy {
        CopyRequest request;
        std::chrono::steady_clock::time_point began;
        std::filesystem::path report;
    };

    // To be called when the agent starts: copies of an earlier agent are marked as ended, as
    // nothing else would report their end.
    void close_unfinished() noexcept;

    [[nodiscard]] const CopyRows &rows() const { return rows_; }

    // The copy for which a worker is about to be forked; nothing if no request is being served.
    std::optional<Copy> begin() noexcept;

    void follow(pid_t worker, std::optional<Copy> copy);

    // The workers whose row was destroyed, or is no longer the row of a running copy.
    [[nodiscard]] std::vector<pid_t> without_row() const noexcept;
    void not_forked(const Copy &copy, int error) noexcept;

    // The cause that the worker's report names in place of the status that the worker sends.
    [[nodiscard]] std::optional<std::int32_t> reported_cause(pid_t worker) const noexcept;

    // The module has received the end of the copy: the worker's own report, or its death.
    void reported(pid_t worker, std::optional<std::int32_t> status) noexcept;
    void died(pid_t worker, const std::string &how) noexcept;
    // The agent has ended the worker and delivered that status to the module.
    void ended(pid_t worker, std::int32_t status, const std::string &reason) noexcept;
    // An action of the system manager has ended, and the module has received the end.
    void action_ended(std::uint32_t status) noexcept;

    // The module has sent a request to the system manager, or has tried to.
    void sent(std::uint32_t opcode) noexcept;
    void answered(msgbus_msg answer) noexcept;
    // The system manager will not report the end of the save: a failure is about to be delivered.
    void save_lost(const std::string &why) noexcept;

  private:
    struct Save {
        CopyRequest request;
        std::chrono::steady_clock::time_point began;
        std::string lost; // why the system manager will not report its end
    };

    [[nodiscard]] std::optional<oid> activated_row() const;
    [[nodiscard]] CopyRequest request_of(oid row) const;
    void end_worker(pid_t worker, const std::function<void(CopyEnd &)> &complete) noexcept;
    void end_copy(const Copy &copy, CopyEnd end);
    void end_save(CopyEnd end);
    void save_sent();

    CopyRows rows_;
    std::map<pid_t, Copy> copies_;
    std::optional<Save> save_;
};

// Of this process; lives to its end.
CopyWatch &copy_watch();

} // namespace ulmo
