#include "receiver/service.h"

#include "base/address_text.h"
#include "base/posix.h"
#include "base/reason.h"
#include "base/text.h"
#include "receiver/local_file.h"
#include "tftp/transfer.h"

#include <netinet/in.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

namespace receiver {
namespace {

namespace tftp = ulmo::tftp;

// How many requests are looked at before the orders are looked at again.
constexpr int requests_in_a_row = 64;

// How often transfers that were withdrawn are looked at until they have ended.
constexpr int look_again_ms = 100;

// The port is at the same place for both address families.
in_port_t port_of(const sockaddr_storage &address) {
    return reinterpret_cast<const sockaddr_in &>(address).sin_port;
}

std::string text_of(const Peer &peer) {
    const std::string_view octets(reinterpret_cast<const char *>(peer.data()), peer.size());
    const bool is_ipv4 = IN6_IS_ADDR_V4MAPPED(reinterpret_cast<const in6_addr *>(peer.data()));
    constexpr std::size_t before_ipv4 = 12;
    return ulmo::address_text(is_ipv4 ? octets.substr(before_ipv4) : octets);
}

Report ended(std::uint32_t id, std::uint64_t octets, int error, const std::string &text) {
    Report report{Report::Kind::ended, id, octets, error, {}};
    put_text(report.text, text);
    return report;
}

} // namespace

// One transfer, on its own thread.
class Service::Transfer {
  public:
    enum class State { running, failed, complete };

    Transfer(int orders, const Standing &standing, Incoming request, std::chrono::seconds silence,
             std::atomic<std::size_t> &running)
        : orders_(orders), order_(standing.order), file_(standing.file),
          request_(std::move(request)), silence_(silence),
          thread_([this, &running](const std::stop_token &stop) {
              run(stop);
              is_over_ = true;
              --running;
          }) {}

    // Lets the transfer end soon.
    void stop() { thread_.request_stop(); }
    [[nodiscard]] State state() const { return state_; }
    // Whether the thread does nothing more.
    [[nodiscard]] bool is_over() const { return is_over_; }
    [[nodiscard]] bool is_of(const Incoming &request) const {
        return port_of(request.source) == port_of(request_.source) &&
               peer_of(request.source) == peer_of(request_.source);
    }

  private:
    void run(const std::stop_token &stop) {
        try {
            transfer(stop);
        } catch (const tftp::TransferError &error) {
            fail(EPROTO, error);
        } catch (const std::system_error &error) {
            fail(error.code().value(), error);
        } catch (const std::exception &error) {
            fail(ENOMEM, error);
        }
    }

    void transfer(const std::stop_token &stop) {
        tftp::Endpoint client;
        client.address = request_.source;
        client.address_octets =
            request_.source.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        client.local = request_.local;
        client.name = "switch";
        client.stop = stop;
        client.timeout = silence_;
        client.limits.received_octets = order_.most;
        const auto request = tftp::decode_request(request_.octets);
        if (order_.direction == Order::Direction::sends) {
            tftp::answer_read(client, *request, size_of(file_->get()),
                              [this](std::uint64_t offset, std::span<std::uint8_t> block) {
                                  const std::size_t octets = read_at(file_->get(), offset, block);
                                  moved_ = std::max(moved_, offset + octets);
                                  return octets;
                              });
            complete();
        } else {
            tftp::answer_write(
                client, *request,
                [this](tftp::Octets block) {
                    is_file_work_ = true;
                    write_at(file_->get(), moved_, block);
                    is_file_work_ = false;
                    moved_ += block.size();
                },
                [this] { complete(); });
        }
    }

    void complete() {
        state_ = State::complete;
        send(orders_, ended(order_.id, moved_, 0, {}));
    }

    void fail(int error, const std::exception &failure) {
        state_ = State::failed;
        const bool is_too_large = error == EFBIG && !is_file_work_;
        try {
            send(orders_, ended(order_.id, moved_, error,
                                is_too_large ? "the switch sent more than " +
                                                   std::to_string(order_.most) + " octets"
                                             : ulmo::reason_of(failure)));
        } catch (const std::system_error &) {
            // The socket's end ends the program.
        }
    }

    int orders_;
    Order order_;
    std::shared_ptr<ulmo::UniqueFd> file_;
    Incoming request_;
    std::chrono::seconds silence_;
    std::uint64_t moved_ = 0;
    bool is_file_work_ = false; // and not the network's
    std::atomic<State> state_ = State::running;
    std::atomic<bool> is_over_ = false;
    std::jthread thread_; // the last one: it uses the others
};

Service::Service(int orders, std::vector<RequestSocket> sockets, std::chrono::seconds silence,
                 std::size_t transfers)
    : orders_(orders), sockets_(std::move(sockets)), silence_(silence), transfers_(transfers) {}

Service::~Service() {
    for (auto &[id, standing] : standings_) {
        if (standing.transfer) {
            standing.transfer->stop(); // all of them, before the first is waited for
        }
    }
}

void Service::run() {
    std::vector<pollfd> waiting{{orders_, POLLIN, 0}};
    for (const RequestSocket &socket : sockets_) {
        waiting.push_back({socket.descriptor(), POLLIN, 0});
    }
    for (;;) {
        if (::poll(waiting.data(), waiting.size(), leaving_.empty() ? -1 : look_again_ms) < 0) {
            if (errno == EINTR) {
                continue;
            }
            ulmo::throw_errno("cannot wait for requests");
        }
        std::erase_if(leaving_, [](const auto &transfer) { return transfer->is_over(); });
        if (!take_orders()) {
            return;
        }
        for (std::size_t at = 0; at < sockets_.size(); ++at) {
            std::optional<Incoming> incoming;
            for (int count = 0; waiting[at + 1].revents != 0 && count < requests_in_a_row &&
                                (incoming = sockets_[at].receive());
                 ++count) {
                take_request(sockets_[at], *incoming);
            }
        }
    }
}

bool Service::take_orders() {
    for (;;) {
        pollfd readable{orders_, POLLIN, 0};
        if (::poll(&readable, 1, 0) <= 0) {
            return true;
        }
        auto received = receive_order(orders_);
        if (!received) {
            return false;
        }
        if (received->order.kind == Order::Kind::serve) {
            serve(std::move(*received));
        } else {
            withdraw(received->order.id);
        }
    }
}

void Service::serve(ReceivedOrder received) {
    const Order &order = received.order;
    const std::string name = order.name.data();
    try {
        size_of(received.file.get());
        if (name.empty() || standings_.contains(order.id) || ids_.contains(name)) {
            ulmo::throw_error(EEXIST, "the order has no name, or the id or name of another one");
        }
    } catch (const std::system_error &failure) {
        send(orders_, ended(order.id, 0, failure.code().value(), ulmo::reason_of(failure)));
        return;
    }
    ids_.emplace(name, order.id);
    ++expected_[order.peer];
    standings_.emplace(
        order.id,
        Standing{order, std::make_shared<ulmo::UniqueFd>(std::move(received.file)), nullptr});
}

void Service::withdraw(std::uint32_t id) {
    const auto found = standings_.find(id);
    if (found == standings_.end()) {
        return;
    }
    Standing &standing = found->second;
    if (standing.transfer) {
        standing.transfer->stop();
        leaving_.push_back(std::move(standing.transfer));
    }
    const auto peer = expected_.find(standing.order.peer);
    if (--peer->second == 0) {
        expected_.erase(peer);
    }
    ids_.erase(ids_.find(std::string_view(standing.order.name.data())));
    standings_.erase(found);
}

void Service::take_request(RequestSocket &socket, const Incoming &incoming) {
    const auto request = tftp::decode_request(incoming.octets);
    if (!request || port_of(incoming.source) == 0) {
        return;
    }
    const Peer peer = peer_of(incoming.source);
    auto id = ids_.find(request->file_name);
    if (id == ids_.end()) {
        take_orders(); // of which one may have come before this request
        id = ids_.find(request->file_name);
    }
    if (id != ids_.end()) {
        Standing &standing = standings_.at(id->second);
        if (standing.order.peer == peer) {
            take_request_for(standing, socket, incoming, *request);
            return;
        }
        socket.answer(incoming, tftp::encode_error(tftp::ErrorCode::access_violation,
                                                   "Not for this address"));
        if (!standing.stranger_reported) {
            Report report{Report::Kind::stranger, id->second, 0, 0, {}};
            put_text(report.text, text_of(peer));
            standing.stranger_reported = send_now(orders_, report);
        }
    } else if (expected_.contains(peer)) {
        socket.answer(incoming,
                      tftp::encode_error(tftp::ErrorCode::file_not_found, "File not found"));
    }
}

// A request under the right name from the right address.
void Service::take_request_for(Standing &standing, RequestSocket &socket, const Incoming &incoming,
                               const tftp::Request &request) {
    const auto refuse = [&](tftp::ErrorCode code, std::string_view text) {
        socket.answer(incoming, tftp::encode_error(code, text));
    };
    const Transfer *last = standing.transfer.get();
    if (last != nullptr && last->state() != Transfer::State::failed) {
        if (last->is_of(incoming)) {
            return; // a repetition: the transfer repeats its answer itself
        }
        if (last->state() == Transfer::State::complete) {
            refuse(tftp::ErrorCode::file_not_found, "This file was transferred already");
        } else {
            // The client has given that one up, and repeats this request.
            standing.transfer->stop();
        }
        return;
    }
    const bool reads = request.opcode == tftp::Opcode::read_request;
    if (reads != (standing.order.direction == Order::Direction::sends)) {
        refuse(tftp::ErrorCode::access_violation,
               reads ? "This file is only for writing" : "This file is only for reading");
    } else if (!tftp::is_octet_mode(request)) {
        refuse(tftp::ErrorCode::illegal_operation, "Only octet mode is served");
    } else if ((last == nullptr || last->is_over()) && running_ < transfers_) {
        begin(standing, incoming);
    }
}

void Service::begin(Standing &standing, const Incoming &incoming) {
    standing.transfer.reset();
    ++running_;
    try {
        standing.transfer =
            std::make_unique<Transfer>(orders_, standing, incoming, silence_, running_);
    } catch (const std::system_error &) {
        --running_; // no thread is left; the client repeats its request
    }
}

} // namespace receiver
