#include "tests/unit/tftp/scripted_server.h"

#include <arpa/inet.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace tftp_test {
namespace {

constexpr int repeat_after = 100; // milliseconds
constexpr int repetitions = 60;

ulmo::UniqueFd bound_socket(const char *address, int *port) {
    sockaddr_storage local{};
    socklen_t octets = 0;
    if (auto &ipv4 = reinterpret_cast<sockaddr_in &>(local);
        ::inet_pton(AF_INET, address, &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        octets = sizeof ipv4;
    } else {
        auto &ipv6 = reinterpret_cast<sockaddr_in6 &>(local);
        ::inet_pton(AF_INET6, address, &ipv6.sin6_addr);
        ipv6.sin6_family = AF_INET6;
        octets = sizeof ipv6;
    }
    ulmo::UniqueFd opened(::socket(local.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (::bind(opened.get(), reinterpret_cast<sockaddr *>(&local), octets) != 0 ||
        ::getsockname(opened.get(), reinterpret_cast<sockaddr *>(&local), &octets) != 0) {
        throw std::runtime_error("cannot bind the test server");
    }
    if (port != nullptr) {
        *port = ntohs(reinterpret_cast<sockaddr_in &>(local).sin_port);
    }
    return opened;
}

std::optional<std::string> receive_from(const ulmo::UniqueFd &socket, sockaddr_storage &source,
                                        int milliseconds) {
    pollfd readable{socket.get(), POLLIN, 0};
    if (::poll(&readable, 1, milliseconds) <= 0) {
        return std::nullopt;
    }
    thread_local std::array<char, 65536> packet;
    socklen_t octets = sizeof source;
    const ssize_t received = ::recvfrom(socket.get(), packet.data(), packet.size(), MSG_DONTWAIT,
                                        reinterpret_cast<sockaddr *>(&source), &octets);
    if (received < 0) {
        return std::nullopt;
    }
    return std::string(packet.data(), static_cast<std::size_t>(received));
}

Request parse_request(const std::string &packet) {
    Request request;
    request.opcode = opcode_of(packet);
    std::vector<std::string> texts;
    for (std::size_t at = 2; at < packet.size();) {
        texts.emplace_back(packet.c_str() + at);
        at += texts.back().size() + 1;
    }
    request.name = texts.at(0);
    request.mode = texts.at(1);
    for (std::size_t at = 2; at + 1 < texts.size(); at += 2) {
        request.options[texts[at]] = texts[at + 1];
    }
    return request;
}

unsigned number_at(const std::string &packet, std::size_t at) {
    const auto octet = [&packet](std::size_t index) {
        return static_cast<unsigned>(static_cast<unsigned char>(packet[index]));
    };
    return packet.size() < at + 2 ? 0 : octet(at) << 8U | octet(at + 1);
}

bool disturbed(const std::function<bool(unsigned)> &fate, unsigned turn) {
    return fate && fate(turn);
}

} // namespace

std::string number(unsigned value) {
    return {static_cast<char>(value >> 8U & 0xffU), static_cast<char>(value & 0xffU)};
}
std::string data(unsigned block, const std::string &payload) {
    return number(3) + number(block) + payload;
}
std::string ack(unsigned block) {
    return number(4) + number(block);
}
std::string error(unsigned code, const std::string &text) {
    return number(5) + number(code) + text + '\0';
}

std::string oack(const std::vector<std::pair<std::string, std::string>> &options) {
    std::string packet = number(6);
    for (const auto &[name, value] : options) {
        packet += name + '\0' + value + '\0';
    }
    return packet;
}

unsigned opcode_of(const std::string &packet) {
    return number_at(packet, 0);
}
unsigned block_of(const std::string &packet) {
    return number_at(packet, 2);
}

Dialogue::Dialogue(const Request &request, const char *local_address)
    : request_(request), socket_(bound_socket(local_address, nullptr)) {}

void Dialogue::send(const std::string &packet) {
    ::sendto(socket_.get(), packet.data(), packet.size(), 0,
             reinterpret_cast<const sockaddr *>(&request_.client),
             request_.client.ss_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
}

std::optional<std::string> Dialogue::receive(int milliseconds) {
    sockaddr_storage source{};
    return receive_from(socket_, source, milliseconds);
}

// A dialogue over a line with the described behaviour.
class Transmission {
  public:
    Transmission(TestServer &server, Dialogue &dialogue) : server_(server), dialogue_(dialogue) {}

    ~Transmission() { send_held(); }
    Transmission(const Transmission &) = delete;
    Transmission &operator=(const Transmission &) = delete;

    void send(const std::string &packet) {
        const unsigned turn = ++sent_;
        const Behaviour &behaviour = server_.behaviour_;
        if (disturbed(behaviour.lose_sent, turn)) {
            return;
        }
        if (disturbed(behaviour.swap_sent, turn)) {
            held_ = packet;
            return;
        }
        dialogue_.send(packet);
        if (disturbed(behaviour.double_sent, turn)) {
            dialogue_.send(packet);
        }
        send_held();
    }

    std::optional<std::string> receive(int milliseconds = repeat_after) {
        auto packet = dialogue_.receive(milliseconds);
        if (!packet) {
            send_held();
        }
        if (packet) {
            const std::lock_guard lock(server_.mutex_);
            ++server_.received_[opcode_of(*packet)];
        }
        return packet && disturbed(server_.behaviour_.lose_received, ++received_) ? std::nullopt
                                                                                  : packet;
    }

    // Agrees on the requested options. Returns true if an OACK must be sent.
    bool negotiate(std::size_t content) {
        const Behaviour &behaviour = server_.behaviour_;
        const auto &asked = dialogue_.request().options;
        if (behaviour.options == Behaviour::OptionHandling::ignore || asked.empty()) {
            return false;
        }
        std::vector<std::pair<std::string, std::string>> answer;
        for (const auto &[name, value] : asked) {
            if (name == "blksize" && behaviour.answer_block_size) {
                block_size = std::min<std::size_t>(std::stoul(value), behaviour.block_size);
                // option names are case-insensitive
                answer.emplace_back("BlkSize", std::to_string(block_size));
            } else if (name == "windowsize" && behaviour.answer_window_size) {
                window_size = std::min<std::size_t>(std::stoul(value), behaviour.window_size);
                answer.emplace_back(name, std::to_string(window_size));
            } else if (name == "tsize" && behaviour.answer_size) {
                answer.emplace_back(name, dialogue_.request().opcode == 1 ? std::to_string(content)
                                                                          : value);
            } else if (name == "timeout") {
                answer.emplace_back(name, value);
            }
        }
        agreement = oack(answer);
        return true;
    }

    std::size_t block_size = 512;
    std::size_t window_size = 1;
    std::string agreement;

  private:
    void send_held() {
        if (held_) {
            dialogue_.send(*std::exchange(held_, std::nullopt));
        }
    }

    TestServer &server_;
    Dialogue &dialogue_;
    unsigned sent_ = 0;
    unsigned received_ = 0;
    std::optional<std::string> held_;
};

TestServer::TestServer(Behaviour behaviour, const char *address)
    : behaviour_(std::move(behaviour)), address_(address) {
    open();
}
TestServer::TestServer(Script script, const char *address)
    : script_(std::move(script)), address_(address) {
    open();
}

TestServer::~TestServer() {
    stop();
}

void TestServer::open() {
    socket_ = bound_socket(address_, &port_);
    thread_ = std::thread([this] { run(); });
}

void TestServer::stop() {
    stopping_ = true;
    if (thread_.joinable()) {
        thread_.join();
    }
}

void TestServer::offer(const std::string &name, const std::string &content) {
    const std::lock_guard lock(mutex_);
    offered_[name] = content;
}

std::optional<std::string> TestServer::stored(const std::string &name) {
    const std::lock_guard lock(mutex_);
    const auto found = stored_.find(name);
    return found == stored_.end() ? std::nullopt : std::optional(found->second);
}

std::vector<Request> TestServer::requests() {
    const std::lock_guard lock(mutex_);
    return requests_;
}

unsigned TestServer::received(unsigned opcode) {
    const std::lock_guard lock(mutex_);
    return received_[opcode];
}

void TestServer::run() {
    for (;;) {
        sockaddr_storage client{};
        const auto packet = receive_from(socket_, client, 20);
        if (!packet) {
            if (stopping_) { // nothing of an earlier client is left
                return;
            }
            continue;
        }
        Request request = parse_request(*packet);
        request.client = client;
        {
            const std::lock_guard lock(mutex_);
            requests_.push_back(request);
        }
        serve(request);
    }
}

void TestServer::serve(const Request &request) {
    Dialogue dialogue(request, address_);
    if (script_) {
        script_(dialogue);
        return;
    }
    Transmission line(*this, dialogue);
    if (behaviour_.options == Behaviour::OptionHandling::refuse && !request.options.empty()) {
        line.send(error(8, "no options here"));
    } else if (request.opcode == 2) {
        serve_write(line, request.name);
    } else {
        std::string content;
        {
            const std::lock_guard lock(mutex_);
            content = offered_[request.name];
        }
        serve_read(line, content);
    }
}

void TestServer::serve_read(Transmission &line, const std::string &content) {
    const std::size_t last = (line.negotiate(content.size()), content.size() / line.block_size + 1);
    // block 0 means the answer to the options
    std::size_t base = line.agreement.empty() ? 1 : 0;
    bool send_again = true;
    for (int silent = 0; base <= last && silent < repetitions && !stopping_;) {
        const std::size_t end = base == 0 ? 0 : std::min(base + line.window_size - 1, last);
        if (send_again && base == 0) {
            line.send(line.agreement);
        }
        for (std::size_t block = base; send_again && block != 0 && block <= end; ++block) {
            const std::size_t offset = (block - 1) * line.block_size;
            line.send(data(static_cast<unsigned>(block & 0xffffU),
                           content.substr(offset, line.block_size)));
        }
        const auto packet = line.receive();
        send_again = !packet && behaviour_.repeats;
        silent = packet ? 0 : silent + 1;
        if (packet && opcode_of(*packet) == 4) {
            for (std::size_t block = base == 0 ? 0 : base - 1; block <= end; ++block) {
                if ((block & 0xffffU) == block_of(*packet)) {
                    // Without a window, a repeated acknowledgment must not be answered.
                    send_again = block >= base || line.window_size > 1;
                    base = block + 1;
                    break;
                }
            }
        } else if (packet && opcode_of(*packet) == 5) {
            return;
        }
    }
}

void TestServer::serve_write(Transmission &line, const std::string &name) {
    line.negotiate(0);
    const std::string agreed = line.agreement.empty() ? ack(0) : line.agreement;
    std::string content;
    std::size_t expected = 1;
    std::size_t acknowledged = 0;
    bool gap_told = false;
    const auto acknowledge = [&] {
        acknowledged = expected - 1;
        line.send(acknowledged == 0 && expected == 1
                      ? agreed
                      : ack(static_cast<unsigned>(acknowledged & 0xffffU)));
    };
    acknowledge();
    for (int silent = 0; silent < repetitions && !stopping_;) {
        const auto packet = line.receive();
        silent = packet ? 0 : silent + 1;
        if (!packet) {
            if (behaviour_.repeats) {
                gap_told = true;
                acknowledge();
            }
        } else if (opcode_of(*packet) == 5) {
            return;
        } else if (block_of(*packet) == (expected & 0xffffU)) {
            content += packet->substr(4);
            gap_told = false;
            ++expected;
            const bool last = packet->size() - 4 < line.block_size;
            if (last) {
                const std::lock_guard lock(mutex_);
                stored_[name] = content;
            }
            if (last || expected - 1 - acknowledged == line.window_size) {
                acknowledge();
            }
            if (last) {
                break;
            }
        } else if (block_of(*packet) == (acknowledged & 0xffffU) ||
                   (line.window_size > 1 && !gap_told)) {
            gap_told = true;
            if (expected > 1) {
                acknowledge();
            } else if (line.window_size > 1) {
                line.send(ack(0));
            }
        }
    }
    if (!behaviour_.lose_sent) {
        return;
    }
    // The last acknowledgment may have been lost.
    while (const auto packet = line.receive(3 * repeat_after)) {
        if (opcode_of(*packet) == 5) {
            return;
        }
        acknowledge();
    }
}

} // namespace tftp_test
