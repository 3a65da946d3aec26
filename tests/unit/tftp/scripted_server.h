// A TFTP server for tests: it behaves well, loses, duplicates or swaps packets, or follows a
// script.
#pragma once

#include "base/unique_fd.h"

#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tftp_test {

// Packets here are strings of octets, written by hand, so that the client's encoder does not test
// itself.
std::string number(unsigned value);
std::string data(unsigned block, const std::string &payload);
std::string ack(unsigned block);
std::string error(unsigned code, const std::string &text);
std::string oack(const std::vector<std::pair<std::string, std::string>> &options);
unsigned opcode_of(const std::string &packet);
unsigned block_of(const std::string &packet);

struct Request {
    unsigned opcode = 0;
    std::string name;
    std::string mode;
    std::map<std::string, std::string> options;
    sockaddr_storage client{};
};

// The server's end of one transfer: a socket of its own, and so a transfer id.
class Dialogue {
  public:
    Dialogue(const Request &request, const char *local_address);
    void send(const std::string &packet);
    // The client's next packet; empty after 2 seconds, or after the given time.
    std::optional<std::string> receive(int milliseconds = 2000);
    [[nodiscard]] const Request &request() const { return request_; }

  private:
    Request request_;
    ulmo::UniqueFd socket_;
};

struct Behaviour {
    enum class OptionHandling { agree, ignore, refuse };
    OptionHandling options = OptionHandling::agree;
    unsigned block_size = 65464; // the largest values that it agrees to
    unsigned window_size = 65535;
    bool answer_block_size = true;
    bool answer_window_size = true;
    bool answer_size = true;
    bool repeats = true; // when it hears nothing
    // What happens to the n-th packet, counted from 1, that the server sends or receives. Empty: no
    // packet is disturbed.
    std::function<bool(unsigned)> lose_sent{};
    std::function<bool(unsigned)> lose_received{};
    std::function<bool(unsigned)> double_sent{};
    std::function<bool(unsigned)> swap_sent{}; // with the next one
};

class TestServer {
  public:
    using Script = std::function<void(Dialogue &)>;

    explicit TestServer(Behaviour behaviour = {}, const char *address = "127.0.0.1");
    explicit TestServer(Script script, const char *address = "127.0.0.1");
    ~TestServer();
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] const char *address() const { return address_; }

    // Sets the files to serve, and returns the stored ones.
    void offer(const std::string &name, const std::string &content);
    [[nodiscard]] std::optional<std::string> stored(const std::string &name);

    // What the client has sent so far.
    std::vector<Request> requests();
    unsigned received(unsigned opcode);

    // Ends the server after its current work.
    void stop();

  private:
    friend class Transmission;
    void open();
    void run();
    void serve(const Request &request);
    void serve_read(class Transmission &line, const std::string &content);
    void serve_write(class Transmission &line, const std::string &name);

    Behaviour behaviour_;
    Script script_;
    const char *address_;
    ulmo::UniqueFd socket_;
    int port_ = 0;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    std::map<std::string, std::string> offered_;
    std::map<std::string, std::string> stored_;
    std::vector<Request> requests_;
    std::map<unsigned, unsigned> received_;
    std::thread thread_;
};

} // namespace tftp_test
