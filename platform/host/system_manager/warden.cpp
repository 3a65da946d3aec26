#include "platform/host/system_manager/warden.h"

#include "base/boot.h"
#include "base/c_boundary.h"
#include "base/folders.h"
#include "base/posix.h"
#include "base/settings.h"
#include "base/state_file.h"
#include "platform/host/device/device.h"
#include "platform/host/history/log.h"
#include "platform/host/system_manager/status.h"
#include "platform/system_manager.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <string>
#include <utility>

namespace ulmo {
namespace {

UniqueFd signals_that_are_read() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) {
        sigaddset(&set, signal);
    }
    check(::sigprocmask(SIG_BLOCK, &set, nullptr), "signals");
    return UniqueFd(check(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK), "signals"));
}

std::string text_of(const char (&field)[WARDEN_CFG_ACTION_TEXT_SIZE]) {
    return {field, ::strnlen(field, sizeof field)};
}

Action action_of(const warden_cfg_action &request) {
    Action action;
    if (request.fabric != 0) {
        action.scope = Action::Scope::fabric;
    } else if (request.all != 0) {
        action.scope = Action::Scope::all;
    }
    action.user = text_of(request.user);
    action.session = text_of(request.session);
    return action;
}

bool is_known(const warden_cfg_action &request) {
    return ntohl(request.word0) == WARDEN_CFG_ACTION_WORD0 &&
           ntohl(request.word1) == WARDEN_CFG_ACTION_WORD1 &&
           (request.fabric == 0 || request.all == 0);
}

// Answers on the requester's connection; returns whether the answer was sent.
bool answer(const Incoming &request, std::uint32_t opcode, std::uint32_t status,
            const std::string &text = "") {
    const std::uint32_t word = htonl(status);
    std::string payload(sizeof word, '\0');
    std::memcpy(payload.data(), &word, sizeof word);
    payload += text;
    return request.reply(opcode, payload.data(), static_cast<std::uint32_t>(payload.size())) == 0;
}

void drop(const Incoming &incoming, const char *why) {
    log_error("message %u of process %d, %u octets, dropped: %s", incoming.message->opcode,
              incoming.peer.pid, incoming.message->length, why);
}

} // namespace

Warden::Warden() : server_(MSGBUS_SAP_WARDEN), signals_(signals_that_are_read()) {
    // Before it is ready. look_back() reports a failure, and tries again.
    quietly([this] { keep(); }, [](const char *) {});
}

void Warden::run() {
    // Before the first request: a change that was to be undone by now must not be saved.
    look_back();
    while (!is_ending_ || current_ || way_back_) {
        // Once the daemon is ending, new requests are not served and must not wake it either.
        std::array<pollfd, 2> sources{
            {{signals_.get(), POLLIN, 0}, {is_ending_ ? -1 : server_.fd(), POLLIN, 0}}};
        ::poll(sources.data(), sources.size(), time_to_wait());
        for (signalfd_siginfo signal; ::read(signals_.get(), &signal, sizeof signal) ==
                                      static_cast<ssize_t>(sizeof signal);) {
            if (signal.ssi_signo != SIGCHLD) {
                is_ending_ = true;
            }
        }
        // The end of an action is handled before a request that was sent because of it.
        collect();
        look_back();
        if (!is_ending_) {
            server_.serve([this](Incoming incoming) {
                try {
                    take(std::move(incoming));
                } catch (const std::exception &error) {
                    log_error("a message could not be handled: %s", error.what());
                }
            });
            continue;
        }
        if (current_) {
            current_->process->give_up();
        }
        if (way_back_) {
            way_back_->give_up(); // the next system manager goes on
        }
    }
}

// The timeout for poll(2), in milliseconds.
int Warden::time_to_wait() const {
    constexpr int soon = 100;
    if (is_ending_ || (current_ && current_->is_given_up)) {
        return soon;
    }
    if (current_ || way_back_) {
        return -1; // SIGCHLD
    }
    const auto time = std::chrono::ceil<std::chrono::milliseconds>(next_look_ - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(time.count(), 0));
}

void Warden::take(Incoming incoming) {
    switch (incoming.message->opcode) {
    case MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION:
        if (incoming.message->length == sizeof(warden_cfg_action)) {
            take_request(std::move(incoming));
            return;
        }
        break;
    case MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION_ABORT:
        if (incoming.message->length == sizeof(warden_cfg_abort)) {
            take_abort(incoming);
            return;
        }
        break;
    default:
        drop(incoming, "unknown opcode");
        return;
    }
    drop(incoming, "wrong length");
}

void Warden::take_request(Incoming incoming) {
    warden_cfg_action request{};
    std::memcpy(&request, incoming.message->words.data(), sizeof request);
    const Action action = action_of(request);
    log_notice("save to the %s asked by user \"%s\", session \"%s\", process %d",
               name_of(action.scope), action.user.c_str(), action.session.c_str(),
               incoming.peer.pid);
    std::uint32_t refusal = 0;
    if (!is_known(request)) {
        refusal = warden_err_request;
        log_error("refused: the request is not understood");
    } else if (next_ || (current_ && !current_->is_given_up)) {
        refusal = warden_err_busy;
        log_error("refused: another action is in progress");
    } else if (way_back_) {
        refusal = warden_err_busy;
        log_error("refused: the former configuration is being brought back");
    }
    if (refusal != 0) {
        answer(incoming, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, refusal);
        return;
    }
    // The requester waits for the answer, so it is sent first.
    if (!answer(incoming, MSGBUS_OPC_WARDEN_CLI_SYSTEM_CFG_ACTION, WARDEN_CFG_ACTION_INITIATED)) {
        log_error("not begun: the requester is gone");
        return;
    }
    std::optional<Work> &place = current_ ? next_ : current_;
    place = Work{action, std::move(incoming), Clock::now(), nullptr};
    if (&place == &current_) {
        begin(*current_);
    }
}

void Warden::take_abort(const Incoming &incoming) {
    warden_cfg_abort request{};
    std::memcpy(&request, incoming.message->words.data(), sizeof request);
    const std::uint32_t token = ntohl(request.token);
    const auto is_meant = [&](const std::optional<Work> &work) {
        return work && !work->is_given_up && token != 0 && work->request.message->token == token &&
               work->request.peer.pid == incoming.peer.pid;
    };
    if (is_meant(next_)) {
        log_notice("given up before it began, on request of process %d", incoming.peer.pid);
        next_.reset();
    } else if (is_meant(current_)) {
        log_notice("to be given up on request of process %d", incoming.peer.pid);
        current_->is_given_up = true;
        current_->process->give_up();
    } else {
        drop(incoming, "no such action is in progress");
    }
}

void Warden::begin(Work &work) {
    work.began = Clock::now();
    if (yes_no_setting("announce_begin")) {
        work.request.reply(MSGBUS_OPC_WARDEN_CFG_ACTION_BEGIN, nullptr, 0);
    }
    try {
        work.process = std::make_unique<ActionProcess>(work.action);
    } catch (const std::exception &error) {
        end({warden_err_store, std::string("the action could not begin: ") + error.what()});
    }
}

void Warden::collect() {
    if (!current_) {
        return;
    }
    current_->process->kill_if_overdue();
    if (const auto outcome = current_->process->outcome()) {
        end(*outcome);
    }
}

// Reports the end of the current action to the requester and starts the waiting one.
void Warden::end(const ActionOutcome &outcome) {
    const Work work = std::move(*current_);
    current_.reset();
    const auto duration =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - work.began).count();
    if (outcome.status == 0) {
        log_notice("%s, %lld ms%s", outcome.text.c_str(), static_cast<long long>(duration),
                   work.is_given_up ? ": too late to be given up" : "");
    } else {
        log_error("not saved to the %s, %lld ms: %s", name_of(work.action.scope),
                  static_cast<long long>(duration), outcome.text.c_str());
    }
    if (!work.is_given_up) {
        answer(work.request, MSGBUS_OPC_WARDEN_CFG_ACTION_END, outcome.status, outcome.text);
    }
    if (next_) {
        current_ = std::exchange(next_, std::nullopt);
        begin(*current_);
    }
}

// Shows that this process looks after the way back.
void Warden::keep() {
    if (!keeper_) {
        constexpr std::chrono::milliseconds patience{100}; // with what is left of another one
        keeper_.emplace(way_back_keeper(), FileLock::Mode::exclusive, patience);
    }
}

void Warden::look_back() {
    if (way_back_) {
        way_back_->kill_if_overdue();
        if (const auto outcome = way_back_->outcome()) {
            way_back_.reset();
            if (outcome->status != 0 && !is_ending_) {
                put_off(outcome->text);
            } else {
                failed_looks_ = 0;
            }
        }
        return;
    }
    if (current_ || is_ending_ || Clock::now() < next_look_) {
        return;
    }
    constexpr std::chrono::milliseconds pause{500};
    next_look_ = Clock::now() + pause;
    try {
        keep();
        if (const auto time = time_to_way_back(state_dir()); !time) {
            failed_looks_ = 0;
        } else if (time->count() == 0) {
            // It may take long, so it has a process of its own.
            way_back_ = std::make_unique<ActionProcess>([](int) { return ulmo::look_back(); });
        } else {
            next_look_ = Clock::now() + std::min(pause, *time);
        }
    } catch (const std::exception &error) {
        put_off(error.what());
    }
}

// After a look that failed.
void Warden::put_off(const std::string &reason) {
    constexpr std::chrono::seconds longest{60};
    constexpr unsigned most_doublings = 6;
    const auto pause =
        std::min(longest, std::chrono::seconds{1U << std::min(failed_looks_++, most_doublings)});
    next_look_ = Clock::now() + pause;
    log_error("the way back has failed, next attempt in %lld s: %s",
              static_cast<long long>(pause.count()), reason.c_str());
}

void start_switch() {
    const std::filesystem::path mark = run_dir() / "started";
    constexpr std::size_t longest = 4096;
    const std::string boot = boot_id();
    if (read_state_file(mark, longest) == boot) {
        log_notice("the switch has been started before: the running configuration stays");
        return;
    }
    const bool is_ours = make_device()->start();
    replace_state_file(mark, boot);
    log_notice("the switch starts: %s",
               is_ours ? "the startup configuration is the running configuration now"
                       : "its device starts by itself");
}

} // namespace ulmo
