// The stock agent's loop watches one more descriptor, an epoll(7) instance: of the message bus, the
// workers, the clock and a running save. All that arrives is handled there, on the agent's thread.
#include "platform/agent_extension.h"

#include "base/c_boundary.h"
#include "base/posix.h"
#include "base/settings.h"
#include "platform/copy_table.h"
#include "platform/host/agent/clock.h"
#include "platform/host/agent/copies.h"
#include "platform/host/agent/request.h"
#include "platform/host/agent/workers.h"
#include "platform/host/bus/observer.h"
#include "platform/host/bus/server.h"
#include "platform/host/fabric/status.h"
#include "platform/host/history/log.h"
#include "platform/system_manager.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <arpa/inet.h>
#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace ulmo {
namespace {

// the status of a worker that ended without a report
constexpr int32_t lost_worker_status = 1;
constexpr uint32_t failed_outcome = 1;

// The agent's side of the platform: one set of descriptors in the agent's loop, from the first
// subscription to the end of the process. Modules may come and go meanwhile (SIGHUP); only their
// subscriptions go with them.
class Agent final : public BusObserver {
  public:
    int subscribe(uint32_t opcode, agent_message_handler handler);
    int unsubscribe(uint32_t opcode);
    pid_t fork_worker();
    void look_after_request();

    void sending(uint32_t opcode, const void *payload, uint32_t length) noexcept override;
    void sent(uint32_t opcode, int error) noexcept override;
    void answered(msgbus_msg answer, UniqueFd connection) noexcept override;
    void unanswered(uint32_t token, int error) noexcept override;

  private:
    // A copy for which there is no process.
    struct Unforked {
        CopyWatch::Copy copy;
        int error;
    };

    static constexpr uint64_t no_worker = 0; // in the event data; otherwise the worker's process id

    static void on_readable(int, void *self);
    static void on_watch_alarm(unsigned int, void *self);
    static void on_failed_fork(unsigned int, void *self);
    static void on_lost_save(unsigned int, void *self);

    void start();
    void add_event(int descriptor, uint64_t data);
    void handle_events();
    void receive_messages();
    void receive(const Incoming &incoming);
    void deliver_report(msgbus_message &message, pid_t worker);
    void deliver(msgbus_message &message);
    void deliver_end_of_save(uint32_t status);
    void hear_of_save();
    void forget_save();
    void lose_save(const std::string &why);
    void deliver_status(int32_t status);
    void end_worker(pid_t worker, int32_t status, const std::string &reason);
    void end_workers();
    void settle(const std::vector<pid_t> &ended);
    void follow(pid_t worker);
    [[nodiscard]] std::vector<int> descriptors() const;

    std::map<uint32_t, agent_message_handler> handlers_;
    UniqueFd events_;
    std::unique_ptr<MsgbusServer> server_;
    std::unique_ptr<ClockWatch> clock_;
    WorkerTable workers_;
    std::optional<Unforked> unforked_;
    UniqueFd save_; // the system manager reports the end of the module's save here
    unsigned int lost_save_alarm_ = 0; // runs if no report will come
    unsigned int watch_alarm_ = 0;     // runs while there are workers
};

// Lives as long as the process, past all destructors: the agent's loop and alarms hold its address.
Agent &agent() {
    static Agent *const instance = new Agent;
    return *instance;
}

// Runs a callback of the agent's loop; no exception leaves it.
template <typename Operation> void guarded(Operation &&operation) noexcept {
    log_failure("agent", std::forward<Operation>(operation));
}

uint32_t first_word_or_failure(const msgbus_message &message) {
    return message.length >= sizeof(uint32_t) ? ntohl(message.words[0]) : failed_outcome;
}

std::string why_not_asked(int error) {
    return error == ENOENT || error == ECONNREFUSED
               ? "the system manager is not running"
               : std::string("the system manager can't be asked: ") + std::strerror(error);
}

// A worker's status; nothing if the message has none.
std::optional<int32_t> status_in(const msgbus_message &message) {
    std::optional<int32_t> status;
    if (message.length >= sizeof(int32_t)) {
        std::memcpy(&status.emplace(), message.words.data(), sizeof(int32_t));
    }
    return status;
}

int Agent::subscribe(uint32_t opcode, agent_message_handler handler) {
    if (handler == nullptr) {
        return EINVAL;
    }
    // The subscription holds even if the access point can't be served: the end of a worker must
    // still be delivered.
    handlers_[opcode] = handler;
    start();
    return 0;
}

int Agent::unsubscribe(uint32_t opcode) {
    return handlers_.erase(opcode) == 1 ? 0 : ENOENT;
}

void Agent::start() {
    if (!events_) {
        remember_watchdog();
        open_debug_file();
        sweep_worker_directories();
        UniqueFd events(check(::epoll_create1(EPOLL_CLOEXEC), "event set"));
        if (register_readfd(events.get(), on_readable, this) != FD_REGISTERED_OK) {
            throw_error(ENFILE, "event set");
        }
        events_ = std::move(events);
    }
    if (!clock_) {
        auto clock = std::make_unique<ClockWatch>();
        add_event(clock->fd(), no_worker);
        clock_ = std::move(clock);
    }
    if (!server_) {
        auto server = std::make_unique<MsgbusServer>(MSGBUS_SAP_AGENT);
        add_event(server->fd(), no_worker);
        server_ = std::move(server);
        observe_bus(*this);
        copy_watch().close_unfinished();
    }
}

void Agent::add_event(int descriptor, uint64_t data) {
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.u64 = data;
    check(::epoll_ctl(events_.get(), EPOLL_CTL_ADD, descriptor, &wanted), "event set");
}

void Agent::on_readable(int, void *self) {
    guarded([self] { static_cast<Agent *>(self)->handle_events(); });
}

void Agent::handle_events() {
    std::array<epoll_event, 16> happened;
    const int count =
        ::epoll_wait(events_.get(), happened.data(), static_cast<int>(happened.size()), 0);
    std::vector<pid_t> ended;
    for (int i = 0; i < count; ++i) {
        if (happened[static_cast<size_t>(i)].data.u64 != no_worker) {
            ended.push_back(static_cast<pid_t>(happened[static_cast<size_t>(i)].data.u64));
        }
    }
    if (clock_) {
        clock_->handle_change();
    }
    settle(ended);
}

void Agent::receive_messages() {
    if (server_) {
        server_->serve([this](const Incoming &incoming) { guarded([&] { receive(incoming); }); });
    }
}

void Agent::receive(const Incoming &incoming) {
    if (incoming.message->opcode == AGENT_OPC_WORKER_STATUS &&
        !workers_.take_report(incoming.peer.pid)) {
        log_error("agent: status message of process %d dropped: no worker that has to report",
                  incoming.peer.pid);
        return;
    }
    if (incoming.message->opcode == MSGBUS_OPC_WARDEN_CFG_ACTION_END) {
        deliver_end_of_save(first_word_or_failure(*incoming.message));
        return;
    }
    if (incoming.message->opcode == AGENT_OPC_WORKER_STATUS) {
        deliver_report(*incoming.message, incoming.peer.pid);
        return;
    }
    deliver(*incoming.message);
}

void Agent::deliver_report(msgbus_message &message, pid_t worker) {
    auto status = status_in(message);
    const bool has_failed = status.value_or(0) != 0;
    if (const auto cause = has_failed ? copy_watch().reported_cause(worker) : std::nullopt) {
        status = cause;
        deliver_status(*cause);
    } else {
        deliver(message);
    }
    copy_watch().reported(worker, status);
}

void Agent::deliver(msgbus_message &message) {
    const auto found = handlers_.find(message.opcode);
    if (found == handlers_.end()) {
        log_error("agent: message %u dropped: nobody has subscribed", message.opcode);
        return;
    }
    std::array<oid, AGENT_NOTIFICATION_OID_MAX> notification{};
    uint32_t notification_length =
        message.opcode == MSGBUS_OPC_WARDEN_CFG_ACTION_END ? first_word_or_failure(message) : 0;
    uint32_t send_flag = 0;
    const agent_message_handler handler = found->second; // it may end its own subscription
    netsnmp_variable_list *list =
        handler(&message, notification.data(), &notification_length, &send_flag);
    if (list != nullptr && send_flag == 1) {
        enqueue_notification(SNMP_TRAP_ENTERPRISESPECIFIC, notification.data(), notification_length,
                             list);
    } else {
        snmp_free_varbind(list);
    }
}

void Agent::settle(const std::vector<pid_t> &ended) {
    // A report sent before the worker's end takes precedence.
    receive_messages();
    hear_of_save();
    for (const pid_t worker : ended) {
        const auto end = workers_.reap(worker);
        if (!end) {
            continue;
        }
        if (end->watch) {
            // Closing alone does not end the watch while another worker, just forked, still holds
            // a copy of the descriptor.
            ::epoll_ctl(events_.get(), EPOLL_CTL_DEL, end->watch.get(), nullptr);
        }
        if (!end->reported) {
            log_error("agent: worker %d ended %s without a report", worker, end->how.c_str());
            deliver_status(lost_worker_status);
            copy_watch().died(worker, end->how);
        }
    }
}

void Agent::deliver_status(int32_t status) {
    msgbus_message report(AGENT_OPC_WORKER_STATUS, 0, &status, sizeof status);
    deliver(report);
}

// --- the save that the module has asked for ---

// The outcomes of an earlier save of the fabric must not pass for those of this one. The system
// manager may end before it forgets them.
void Agent::sending(uint32_t opcode, const void *payload, uint32_t length) noexcept {
    warden_cfg_action action{};
    if (opcode != MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION || payload == nullptr ||
        length != sizeof action) {
        return;
    }
    std::memcpy(&action, payload, sizeof action);
    if (action.fabric != 0) {
        log_failure("agent: the outcomes of the last save of the fabric can't be removed",
                    [] { write_fabric_status({}); });
    }
}

void Agent::sent(uint32_t opcode, int error) noexcept {
    copy_watch().sent(opcode);
    if (opcode == MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION && error != 0) {
        guarded([=, this] { lose_save(why_not_asked(error)); });
    } else if (opcode == MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION ||
               opcode == MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT) {
        forget_save();
    }
}

void Agent::answered(msgbus_msg answer, UniqueFd connection) noexcept {
    guarded([&] {
        if (answer->opcode != MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION) {
            lose_save("the system manager's answer makes no sense");
            return;
        }
        copy_watch().answered(answer);
        if (first_word_or_failure(*answer) == WARDEN_CFG_ACTION_INITIATED) {
            add_event(connection.get(), no_worker);
            save_ = std::move(connection);
        }
    });
}

void Agent::unanswered(uint32_t token, int error) noexcept {
    guarded([=] {
        // The request may have been sent after all: a save reported as failed must not be made
        // later.
        const warden_cfg_abort request{htonl(token), 0};
        int failure = 0;
        const UniqueFd connection = connect_to(MSGBUS_SAP_WARDEN, failure);
        if (failure == 0) {
            send_packet(connection.get(), MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT, 0,
                        &request, sizeof request);
        }
    });
    guarded([=, this] {
        lose_save(std::string("the system manager did not answer: ") + std::strerror(error));
    });
}

// Nobody will report the end of the save. The request that activated it may still be being served
// and leaves the row running, so the module is told once that is done.
void Agent::lose_save(const std::string &why) {
    forget_save();
    log_error("agent: a save has failed: %s", why.c_str());
    copy_watch().save_lost(why);
    lost_save_alarm_ = snmp_alarm_register_hr(timeval{0, 1000}, 0, on_lost_save, this);
}

void Agent::on_lost_save(unsigned int, void *self) {
    guarded([self] { static_cast<Agent *>(self)->deliver_end_of_save(failed_outcome); });
}

// Later messages do not belong to an earlier save.
void Agent::forget_save() {
    if (save_) {
        // As above: a worker just forked may still hold a copy of the descriptor.
        ::epoll_ctl(events_.get(), EPOLL_CTL_DEL, save_.get(), nullptr);
        save_.reset();
    }
    if (lost_save_alarm_ != 0) {
        snmp_alarm_unregister(std::exchange(lost_save_alarm_, 0));
    }
}

void Agent::hear_of_save() {
    while (save_) {
        std::unique_ptr<msgbus_message> message;
        const Receipt receipt = receive_packet(save_.get(), message);
        if (receipt == Receipt::none) {
            return;
        }
        if (receipt == Receipt::closed) {
            lose_save("the system manager ended before the save did");
        } else if (message && message->opcode == MSGBUS_OPC_WARDEN_CFG_ACTION_END) {
            deliver_end_of_save(first_word_or_failure(*message));
        } else if (message && message->opcode == MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN) {
            deliver(*message);
        }
    }
}

void Agent::deliver_end_of_save(uint32_t status) {
    forget_save();
    const uint32_t word = htonl(status);
    msgbus_message end(MSGBUS_OPC_WARDEN_CFG_ACTION_END, 0, &word, sizeof word);
    deliver(end);
    copy_watch().action_ended(status);
}

// Ends a worker and everything that it runs. The failure is delivered to the module at once, so the
// next copy may begin while the kernel is still cleaning up.
void Agent::end_worker(pid_t worker, int32_t status, const std::string &reason) {
    if (!workers_.take_report(worker)) {
        return;
    }
    kill_with_descendants(worker);
    log_error("agent: worker %d ended: %s", worker, reason.c_str());
    deliver_status(status);
    copy_watch().ended(worker, status, reason);
}

void Agent::end_workers() {
    receive_messages(); // an outcome that has already arrived counts
    for (const pid_t worker : copy_watch().without_row()) {
        end_worker(worker, lost_worker_status, request_removed);
    }
    const long limit = number_setting("copy_time_limit").value();
    for (const pid_t worker : workers_.running_for(std::chrono::seconds(limit))) {
        end_worker(worker, COPY_FAIL_TIMEOUT,
                   "not finished within copy_time_limit, " + std::to_string(limit) + " seconds");
        kill_with_descendants(worker); // also if it has reported, and has not ended since
    }
}

void Agent::on_watch_alarm(unsigned int, void *self) {
    auto *agent = static_cast<Agent *>(self);
    guarded([agent] { agent->settle(agent->workers_.ended()); });
    guarded([agent] { agent->end_workers(); });
    if (agent->workers_.empty()) {
        snmp_alarm_unregister(agent->watch_alarm_);
        agent->watch_alarm_ = 0;
    }
}

// Runs before the agent's loop serves the next request.
void Agent::look_after_request() {
    if (!workers_.empty()) {
        constexpr timeval at_once{0, 1};
        const auto look = [](unsigned int, void *self) {
            guarded([self] { static_cast<Agent *>(self)->end_workers(); });
        };
        snmp_alarm_register_hr(at_once, 0, look, this);
    }
}

void Agent::on_failed_fork(unsigned int, void *self) {
    guarded([self] {
        log_error("agent: a worker could not be started");
        auto *agent = static_cast<Agent *>(self);
        agent->deliver_status(lost_worker_status);
        if (const auto unforked = std::exchange(agent->unforked_, std::nullopt)) {
            copy_watch().not_forked(unforked->copy, unforked->error);
        }
    });
}

pid_t Agent::fork_worker() {
    // another agent may have held the access point when this one was loaded
    guarded([this] { start(); });
    // logged by this process, not again by each worker
    guarded([] { settings_problems(); });
    const std::vector<int> own = descriptors();
    auto copy = copy_watch().begin();
    const pid_t self = ::getpid();
    const pid_t worker = ::fork();
    if (worker == 0) {
        ::setenv(copy_report_variable, copy ? copy->report.c_str() : "", 1);
        become_worker(self, own);
    } else if (worker > 0) {
        guarded([&] { copy_watch().follow(worker, std::move(copy)); });
        guarded([=, this] { follow(worker); });
    } else {
        // The caller goes on as if there were a worker; its end is reported once the request has
        // been served.
        const int saved_errno = errno;
        if (copy) {
            unforked_ = Unforked{std::move(*copy), saved_errno};
        }
        snmp_alarm_register_hr(timeval{0, 1000}, 0, on_failed_fork, this);
        errno = saved_errno;
    }
    return worker;
}

void Agent::follow(pid_t worker) {
    const int watch = workers_.add(worker);
    epoll_event wanted{};
    wanted.events = EPOLLIN;
    wanted.data.u64 = static_cast<uint64_t>(worker);
    if (watch >= 0 && events_) { // otherwise the alarm sees the end
        static_cast<void>(::epoll_ctl(events_.get(), EPOLL_CTL_ADD, watch, &wanted));
    }
    if (watch_alarm_ == 0) {
        watch_alarm_ = snmp_alarm_register(1, SA_REPEAT, on_watch_alarm, this);
    }
}

std::vector<int> Agent::descriptors() const {
    std::vector<int> all = workers_.descriptors();
    if (events_) {
        all.push_back(events_.get());
    }
    if (clock_) {
        all.push_back(clock_->fd());
    }
    if (server_) {
        const auto of_server = server_->descriptors();
        all.insert(all.end(), of_server.begin(), of_server.end());
    }
    return all;
}

} // namespace

void row_status_is_set() noexcept {
    guarded([] { agent().look_after_request(); });
}

} // namespace ulmo

extern "C" {

int register_for_notification(uint32_t opcode, agent_message_handler handler) {
    return ulmo::errno_of([=] {
        try {
            return ulmo::agent().subscribe(opcode, handler);
        } catch (const std::exception &failure) {
            ulmo::log_error("agent: messages can't be received: %s", failure.what());
            throw;
        }
    });
}

int unregister_for_notification(uint32_t opcode) {
    return ulmo::agent().unsubscribe(opcode);
}

pid_t __wrap_fork(void) {
    return ulmo::result_or_errno([] { return ulmo::agent().fork_worker(); });
}

} // extern "C"
