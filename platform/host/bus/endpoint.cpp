// The sending side of the message bus: a request or message connects to the socket of its access
// point, and the answer comes back on that connection.
#include "platform/msgbus.h"

#include "base/c_boundary.h"
#include "base/settings.h"
#include "platform/host/bus/observer.h"
#include "platform/host/bus/wire.h"
#include "platform/host/history/log.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <random>
#include <string>
#include <utility>

namespace ulmo {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int32_t kind_one_way = 1;
constexpr int32_t kind_requests = 4;
constexpr milliseconds short_wait{100};
// How long sending a message without an answer is tried.
constexpr milliseconds one_way_limit{1000};

BusObserver *observer = nullptr;

// A request whose answer has not come.
struct Exchange {
    UniqueFd connection;
    uint32_t token;
    Clock::time_point deadline;
};

struct Endpoint {
    std::string name;
    uint32_t own_sap = 0;
    bool takes_answers = false;
    // so that a restarted process does not reuse tokens
    uint32_t last_token = std::random_device{}();
    std::optional<Exchange> exchange;
};

// The first endpoint is the response queue's.
constexpr size_t endpoint_limit = 64;
using EndpointTable = std::array<std::optional<Endpoint>, endpoint_limit>;

EndpointTable &endpoints() {
    static EndpointTable *const table = [] {
        auto *made = new EndpointTable; // for the process's life, past all destructors
        made->front().emplace().name = "response queue";
        made->front()->takes_answers = true;
        return made;
    }();
    return *table;
}

Endpoint *find_endpoint(int32_t handle) {
    auto &table = endpoints();
    if (handle < 0 || static_cast<size_t>(handle) >= table.size() ||
        !table[static_cast<size_t>(handle)]) {
        return nullptr;
    }
    return &*table[static_cast<size_t>(handle)];
}

// How long a request may wait for its answer.
milliseconds answer_limit() {
    return milliseconds(number_setting("msgbus_answer_limit").value());
}

uint32_t next_token(Endpoint &endpoint) {
    if (++endpoint.last_token == 0) {
        ++endpoint.last_token;
    }
    return endpoint.last_token;
}

int bind_endpoint(int32_t kind, const msgbus_address *address, const char *name, int32_t &handle) {
    if ((kind != kind_one_way && kind != kind_requests) || address == nullptr) {
        return EINVAL;
    }
    msgbus_dir();
    auto &table = endpoints();
    const auto place = std::find(table.begin(), table.end(), std::nullopt);
    if (place == table.end()) {
        return EMFILE;
    }
    Endpoint &endpoint = place->emplace();
    endpoint.name = name != nullptr ? name : "";
    endpoint.own_sap = address->word[3];
    endpoint.takes_answers = kind == kind_requests;
    handle = static_cast<int32_t>(place - table.begin());
    return 0;
}

int send_message(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode, const void *payload,
                 uint32_t length, msgbus_msg *store) {
    Endpoint *endpoint = find_endpoint(handle);
    if (endpoint == nullptr) {
        return EBADF;
    }
    if (node != MSGBUS_NODE_LOCAL) {
        return EHOSTUNREACH;
    }
    if (length > MSGBUS_PAYLOAD_MAX) {
        return EMSGSIZE;
    }
    if ((payload == nullptr && length > 0) || (store != nullptr && !endpoint->takes_answers)) {
        return EINVAL;
    }
    if (store != nullptr) {
        endpoint->exchange.reset(); // a new request gives up the former one's answer
    }
    const uint32_t token = store != nullptr ? next_token(*endpoint) : 0;
    auto copy = store != nullptr ? std::make_unique<msgbus_message>(opcode, token, payload, length)
                                 : nullptr;
    const auto deadline = Clock::now() + (endpoint->takes_answers ? answer_limit() : one_way_limit);
    int error = 0;
    UniqueFd connection = connect_to(sap, error, deadline);
    if (error == 0) {
        error = send_packet(connection.get(), opcode, token, payload, length);
    }
    if (error != 0) {
        log_debug("msgbus: %s: message %u to access point %u failed, errno %d",
                  endpoint->name.c_str(), opcode, sap, error);
        return error;
    }
    if (store != nullptr) {
        endpoint->exchange = Exchange{std::move(connection), token, deadline};
        *store = copy.release();
    }
    return 0;
}

// Waits until the exchange's connection can be read or `longest` has passed.
void wait_for(const Exchange &exchange, milliseconds longest) {
    const auto left = std::chrono::ceil<milliseconds>(exchange.deadline - Clock::now());
    pollfd wanted{exchange.connection.get(), POLLIN, 0};
    ::poll(&wanted, 1, static_cast<int>(std::clamp(left, milliseconds{0}, longest).count()));
}

// No answer can come any more. Returns `error`.
int end_exchange(Endpoint &endpoint, int error) {
    const uint32_t token = endpoint.exchange->token;
    endpoint.exchange.reset();
    if (observer != nullptr) {
        observer->unanswered(token, error);
    }
    return error;
}

int receive_answer(int32_t handle, msgbus_msg *message, bool wait) {
    Endpoint *endpoint = find_endpoint(handle);
    if (endpoint == nullptr) {
        return EBADF;
    }
    if (message == nullptr) {
        return EINVAL;
    }
    if (!endpoint->exchange) {
        return ENOMSG;
    }
    Exchange &exchange = *endpoint->exchange;
    if (wait) {
        wait_for(exchange, short_wait);
    }
    std::unique_ptr<msgbus_message> answer;
    switch (receive_packet(exchange.connection.get(), answer)) {
    case Receipt::message:
        if (answer->token == exchange.token) {
            UniqueFd connection = std::move(exchange.connection);
            endpoint->exchange.reset();
            *message = answer.release();
            if (observer != nullptr) {
                observer->answered(*message, std::move(connection));
            }
            return 0;
        }
        log_error("msgbus: %s: answer to another request dropped", endpoint->name.c_str());
        break;
    case Receipt::malformed:
        log_error("msgbus: %s: malformed answer dropped", endpoint->name.c_str());
        break;
    case Receipt::closed:
        return end_exchange(*endpoint, ECONNRESET);
    case Receipt::none:
        break;
    }
    if (Clock::now() >= exchange.deadline) {
        log_error("msgbus: %s: no answer within the limit", endpoint->name.c_str());
        return end_exchange(*endpoint, ETIMEDOUT);
    }
    return ETIME;
}

// Runs an operation that returns an errno value or throws; returns 0, or -1 with errno set.
template <typename Operation> int32_t guarded(Operation &&operation) noexcept {
    const int error = errno_of(std::forward<Operation>(operation));
    if (error == 0) {
        return 0;
    }
    errno = error;
    return -1;
}

} // namespace

void observe_bus(BusObserver &new_observer) {
    observer = &new_observer;
}

} // namespace ulmo

extern "C" {

int32_t msgbus_response_q = 0;

int32_t msgbus_bind(int32_t kind, int32_t, const struct msgbus_address *address, const char *name) {
    int32_t handle = -1;
    const int32_t result =
        ulmo::guarded([&] { return ulmo::bind_endpoint(kind, address, name, handle); });
    return result == 0 ? handle : result;
}

int32_t msgbus_unbind(int32_t handle, int32_t) {
    return ulmo::guarded([&] {
        if (handle == msgbus_response_q || ulmo::find_endpoint(handle) == nullptr) {
            return EBADF;
        }
        ulmo::endpoints()[static_cast<size_t>(handle)].reset();
        return 0;
    });
}

int32_t msgbus_send(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode,
                    const void *payload, uint32_t length, msgbus_msg *store, uint32_t, uint32_t) {
    if (ulmo::observer != nullptr) {
        ulmo::observer->sending(opcode, payload, length);
    }
    const int32_t result = ulmo::guarded(
        [&] { return ulmo::send_message(handle, node, sap, opcode, payload, length, store); });
    if (ulmo::observer != nullptr) {
        const int saved_errno = errno;
        ulmo::observer->sent(opcode, result == 0 ? 0 : saved_errno);
        errno = saved_errno;
    }
    return result;
}

int32_t msgbus_recv(int32_t handle, msgbus_msg *message,
                    const struct msgbus_recv_options *options) {
    return ulmo::guarded([&] {
        return ulmo::receive_answer(handle, message, options != nullptr && options->wait == 1);
    });
}

void msgbus_drop(int32_t, msgbus_msg *message) {
    if (message != nullptr) {
        delete *message;
        *message = nullptr;
    }
}

uint32_t msgbus_opc_get(msgbus_msg message) {
    return message->opcode;
}

const void *msgbus_payload_get(msgbus_msg message, uint32_t at_least) {
    return message->length >= at_least ? message->words.data() : nullptr;
}

uint32_t msgbus_rr_token_get(msgbus_msg message) {
    return message == nullptr ? 0 : message->token;
}

} // extern "C"
