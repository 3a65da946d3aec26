#include "tftp/transfer.h"

#include "base/posix.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <system_error>
#include <utility>
#include <variant>
#include <vector>

namespace ulmo::tftp {
namespace {

// A repeated acknowledgment that comes sooner is taken for a duplicate packet: on a short path,
// scheduling rather than the network determines how far apart duplicates arrive.
constexpr Clock::duration least_doubt = std::chrono::milliseconds(10);

// The block near `around` that has this number on the wire: numbers have 16 bits and wrap to 0
// after 65535.
std::uint64_t unwrapped(std::uint16_t number, std::uint64_t around) {
    const auto distance = static_cast<std::int16_t>(
        static_cast<std::uint16_t>(number - static_cast<std::uint16_t>(around)));
    return around + static_cast<std::uint64_t>(std::int64_t{distance});
}

std::uint16_t wire_number(std::uint64_t block) {
    return static_cast<std::uint16_t>(block);
}

// What a window may occupy of our socket's receive buffer, which is twice the kernel's usual
// default at least, even if the system allows no more than that default (socket(7)).
constexpr std::size_t own_window_octets = std::size_t{416} * 1024;

// The largest window of such blocks. Each packet costs more in a buffer than its octets.
std::uint16_t window_within(std::size_t window_octets, std::size_t block_size, std::uint16_t most) {
    constexpr std::size_t packet_overhead = 1024;
    return static_cast<std::uint16_t>(
        std::clamp<std::size_t>(window_octets / (block_size + packet_overhead), 1, most));
}

// The largest block that the path takes in one packet.
std::uint16_t block_within_path(const Endpoint &server) {
    const std::size_t payload = std::max(path_payload(server), header_octets) - header_octets;
    return std::min(static_cast<std::uint16_t>(
                        std::clamp<std::size_t>(payload, default_block_size, largest_block_size)),
                    server.block_size);
}

// Either side gives up after about so many of its timeouts.
constexpr int usual_repetitions = 5;

// How soon a transfer ends that is to stop.
constexpr Clock::duration stop_interval = std::chrono::milliseconds(200);

// Whether a transfer keeps to its time limits.
class Pace {
  public:
    explicit Pace(const Limits &limits)
        : limits_(limits), began_(Clock::now()), counted_from_(began_) {}

    void moved(std::uint64_t octets) { counted_ += octets; }

    // When broken() has to be asked next.
    [[nodiscard]] Clock::time_point wake() const {
        return std::min(began_ + limits_.total, counted_from_ + limits_.idle);
    }

    // The limit that is exceeded, in words; empty if there is none.
    std::string broken() {
        const auto now = Clock::now();
        if (now >= began_ + limits_.total) {
            return "not finished within " + std::to_string(limits_.total.count()) + " seconds";
        }
        if (now >= counted_from_ + limits_.idle) {
            if (counted_ < least_progress) {
                return "only " + std::to_string(counted_) + " octets have moved in " +
                       std::to_string(limits_.idle.count()) + " seconds";
            }
            counted_from_ = now;
            counted_ = 0;
        }
        return {};
    }

  private:
    Limits limits_;
    Clock::time_point began_;
    Clock::time_point counted_from_;
    std::uint64_t counted_ = 0; // octets since then
};

// A conversation, from the server's first answer on.
class Conversation {
  public:
    Conversation(const Endpoint &server, Opcode opcode, const std::string &name, std::uint64_t size)
        : Conversation(server) {
        Options asked = options_for(server, opcode, size);
        auto request = encode_request(opcode, name, asked);
        if (!request) {
            // A long name may leave no room for options.
            asked = {};
            request = encode_request(opcode, name, asked);
        }
        if (!request) {
            throw_error(ENAMETOOLONG);
        }
        if (!open(server, opcode, *request, asked)) {
            clock_ = Retransmission(server.timeout);
            open(server, opcode, *encode_request(opcode, name, {}), {});
        }
    }

    // One that a client has begun: answer() is next.
    Conversation(const Endpoint &client, const Options &agreed) : Conversation(client) {
        agreed_ = agreed;
        channel_ = std::make_unique<Channel>(client, true);
    }

    // Answers the client's request until the client goes on. To a read request without options the
    // first block is the answer.
    void answer(Opcode request) {
        const bool reads = request == Opcode::read_request;
        if (reads && agreed_.empty()) {
            return;
        }
        const auto answer =
            agreed_.empty() ? encode_acknowledgment(0) : encode_option_acknowledgment(agreed_);
        // Some clients say 0 for a size that they do not know.
        if (!reads && agreed_.transfer_size == 0U) {
            agreed_.transfer_size.reset();
        }
        clock_.sent();
        send(answer);
        for (;;) {
            auto packet = wait();
            if (!packet) {
                send(answer);
            } else if (reads ? starts_plainly(Opcode::write_request, *packet)
                             : std::holds_alternative<Data>(*packet)) {
                clock_.progressed();
                first_ = std::move(*packet);
                return;
            }
        }
    }

    // The block and window sizes and the size of the file, as agreed.
    [[nodiscard]] std::size_t block_size() const {
        return agreed_.block_size.value_or(default_block_size);
    }
    [[nodiscard]] std::uint64_t window_size() const { return agreed_.window_size.value_or(1); }
    [[nodiscard]] std::optional<std::uint64_t> transfer_size() const {
        return agreed_.transfer_size;
    }

    // The server's first answer. If it is a block of data, the next call of wait() overwrites it.
    [[nodiscard]] const Packet &first() const { return first_; }

    // The server's next packet; empty if it is time to repeat. Throws if the server sends an error,
    // and after the timeout.
    std::optional<Packet> wait() {
        auto packet = next();
        if (!packet && !clock_.repeat()) {
            throw_error(channel_->unreachable() != 0 ? channel_->unreachable() : ETIMEDOUT);
        }
        if (const auto *error = packet ? std::get_if<Error>(&*packet) : nullptr) {
            throw reported_error(*error, name_);
        }
        return packet;
    }

    // The server's next packet; empty at `until`, and when the transfer is to stop.
    std::optional<Packet> receive(Clock::time_point until) {
        for (;;) {
            auto packet = channel_->receive(
                stop_.stop_possible() ? std::min(until, Clock::now() + stop_interval) : until);
            if (stop_.stop_requested()) {
                return std::nullopt;
            }
            if (packet || Clock::now() >= until) {
                return packet;
            }
        }
    }

    void send(Octets packet) { channel_->send(packet); }
    Retransmission &clock() { return clock_; }

    // The transfer has made progress, by so many octets.
    void progressed(std::uint64_t octets) {
        clock_.progressed();
        pace_.moved(octets);
    }

    // Tells the server why the transfer ends.
    void refuse(ErrorCode code, const std::string &text) {
        try {
            channel_->send(encode_error(code, text));
        } catch (const std::system_error &) {
            // The result is our reason to refuse, not that the server may have missed it.
        }
    }

    // Does the file work on this side, and tells the server if it fails.
    template <typename Work> auto locally(Work &&work) {
        try {
            return work();
        } catch (const std::system_error &failure) {
            const int number = failure.code().value();
            const bool full = number == ENOSPC || number == EDQUOT || number == EFBIG;
            refuse(full ? ErrorCode::disk_full : ErrorCode::undefined,
                   std::generic_category().message(number));
            throw;
        }
    }

  private:
    explicit Conversation(const Endpoint &server)
        : clock_(server.timeout), pace_(server.limits), name_(server.name), stop_(server.stop) {}

    // The server's next packet; empty if it is time to repeat. Throws when a limit is exceeded.
    std::optional<Packet> next() {
        for (;;) {
            const auto until = clock_.wake();
            auto packet = receive(std::min(until, pace_.wake()));
            if (stop_.stop_requested()) {
                refuse(ErrorCode::undefined, "Transfer given up");
                throw_error(ECANCELED);
            }
            if (const std::string broken = pace_.broken(); !broken.empty()) {
                refuse(ErrorCode::undefined, broken);
                throw_error(ETIMEDOUT, broken);
            }
            if (packet || Clock::now() >= until) {
                return packet;
            }
        }
    }

    // Sends the request until the server answers. Returns false if the server refuses the options.
    bool open(const Endpoint &server, Opcode opcode, Octets request, const Options &asked) {
        // A new socket for each request, so that a repeated answer to an earlier request can't be
        // taken for an answer to this one.
        channel_ = std::make_unique<Channel>(server);
        clock_.sent();
        channel_->send(request);
        for (;;) {
            auto packet = next();
            if (!packet) {
                if (!clock_.repeat()) {
                    throw_error(ETIMEDOUT);
                }
                channel_->send(request);
                continue;
            }
            if (const auto *error = std::get_if<Error>(&*packet)) {
                if (error->code == static_cast<std::uint16_t>(ErrorCode::options_refused) &&
                    !asked.empty()) {
                    return false;
                }
                throw reported_error(*error, name_);
            }
            if (const auto *answer = std::get_if<OptionAcknowledgment>(&*packet)) {
                channel_->adopt();
                const auto agreed = agree(opcode, asked, *answer);
                if (!agreed) {
                    const std::string reason = "Options answered other than asked for";
                    refuse(ErrorCode::options_refused, reason);
                    throw TransferError(-static_cast<int>(ErrorCode::options_refused), reason);
                }
                agreed_ = *agreed;
            } else if (!starts_plainly(opcode, *packet)) {
                continue;
            } else {
                channel_->adopt();
            }
            clock_.progressed();
            first_ = std::move(*packet);
            return true;
        }
    }

    static bool starts_plainly(Opcode opcode, const Packet &packet) {
        if (opcode == Opcode::read_request) {
            const auto *data = std::get_if<Data>(&packet);
            return data != nullptr && data->block == 1;
        }
        const auto *acknowledgment = std::get_if<Acknowledgment>(&packet);
        return acknowledgment != nullptr && acknowledgment->block == 0;
    }

    Retransmission clock_;
    Pace pace_;
    std::string name_;
    std::stop_token stop_;
    std::unique_ptr<Channel> channel_;
    Options agreed_;
    Packet first_;
};

// The receiving side: writes blocks in order, acknowledges each window and, when it sees a gap, the
// last block before the gap.
class Receiver {
  public:
    Receiver(Conversation &conversation, std::uint64_t limit, const Sink &sink)
        : conversation_(conversation), limit_(limit), sink_(sink) {}

    // Throws EFBIG if the announced file is too large.
    void check_announced() { check_limit(conversation_.transfer_size().value_or(0)); }

    void run() {
        check_announced();
        std::optional<Packet> packet = conversation_.first();
        while (!take(packet)) {
            packet = conversation_.wait();
        }
        // The last acknowledgment may get lost. A server then repeats its last block, meets a
        // closed port, and ends.
    }

    // A client must not meet that closed port: it would take the transfer for failed.
    void answer_repetitions(Clock::duration silence) {
        try {
            while (const auto packet = conversation_.receive(Clock::now() + silence)) {
                const auto *data = std::get_if<Data>(&*packet);
                if (data != nullptr && data->block == wire_number(acknowledged_)) {
                    send_acknowledgment();
                }
            }
        } catch (const std::system_error &) {
            // It has closed its port.
        }
    }

  private:
    // Returns true after the last block.
    bool take(const std::optional<Packet> &packet) {
        if (!packet) {
            acknowledge_again();
        } else if (const auto *data = std::get_if<Data>(&*packet)) {
            return take_block(*data);
        } else if (std::holds_alternative<OptionAcknowledgment>(*packet) && expected_ == 1) {
            acknowledge();
        }
        return false;
    }

    bool take_block(const Data &data) {
        const std::uint64_t block = unwrapped(data.block, expected_);
        if (block != expected_) {
            take_out_of_order(block, data.payload);
            previous_ = block;
            return false;
        }
        previous_ = block;
        bool is_last = accept(data.payload);
        while (!is_last && !early_.empty() && early_.begin()->first == expected_) {
            sent_again_ = expected_;
            is_last = accept(early_.extract(early_.begin()).mapped());
        }
        if (is_last || expected_ - 1 - acknowledged_ >= conversation_.window_size()) {
            acknowledge();
        }
        return is_last;
    }

    // After a gap, or a block that was acknowledged before, the server needs to know our position.
    // It may have sent a whole window before it learns it, so it is told again only if it goes back
    // and we still lack that block. It then sends all that follows as well, and what has arrived
    // need not arrive twice.
    void take_out_of_order(std::uint64_t block, Octets payload) {
        if (block > expected_) {
            if (block - acknowledged_ <= conversation_.window_size()) {
                early_.try_emplace(block, payload.begin(), payload.end());
            }
            const bool went_back = block <= previous_ && Clock::now() - acknowledged_at_ >
                                                             conversation_.clock().round_trip() / 2;
            if (!gap_reported_ || went_back) {
                acknowledge_again();
            }
        } else if (block == sent_again_) {
            sent_again_ = 0;
        } else if (block + 1 == expected_ && block == acknowledged_) {
            acknowledge_again();
        }
    }

    // Takes the block that is expected. Returns true if it is the last one.
    bool accept(Octets payload) {
        check(payload.size());
        conversation_.locally([&] { sink_(payload); });
        ++expected_;
        gap_reported_ = false;
        conversation_.progressed(payload.size());
        return payload.size() < conversation_.block_size();
    }

    void check(std::size_t octets) {
        if (octets > conversation_.block_size()) {
            const std::string reason = "Block longer than agreed";
            conversation_.refuse(ErrorCode::illegal_operation, reason);
            throw_error(EPROTO, reason);
        }
        total_ += octets;
        check_limit(total_);
        const auto announced = conversation_.transfer_size();
        if (announced && (total_ > *announced ||
                          (octets < conversation_.block_size() && total_ != *announced))) {
            const std::string reason = "File of " + std::to_string(total_) +
                                       (total_ > *announced ? " or more" : "") +
                                       " octets, announced were " + std::to_string(*announced);
            conversation_.refuse(ErrorCode::undefined, reason);
            throw_error(EPROTO, reason);
        }
    }

    void check_limit(std::uint64_t octets) {
        if (octets > limit_) {
            const std::string reason =
                "more than " + std::to_string(limit_) + " octets, the most that is taken";
            conversation_.refuse(ErrorCode::disk_full, reason);
            throw_error(EFBIG, reason);
        }
    }

    void acknowledge() {
        send_acknowledgment();
        conversation_.clock().sent();
    }

    void acknowledge_again() {
        send_acknowledgment();
        conversation_.clock().resent();
        gap_reported_ = true;
    }

    void send_acknowledgment() {
        acknowledged_ = expected_ - 1;
        acknowledged_at_ = Clock::now();
        conversation_.send(encode_acknowledgment(wire_number(acknowledged_)));
    }

    Conversation &conversation_;
    std::uint64_t limit_;
    const Sink &sink_;
    std::uint64_t expected_ = 1;
    std::uint64_t acknowledged_ = 0;
    std::uint64_t total_ = 0;
    std::uint64_t previous_ = 0;   // the last block that came
    std::uint64_t sent_again_ = 0; // the last block that comes twice because of a gap before it
    bool gap_reported_ = false;
    Clock::time_point acknowledged_at_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> early_; // blocks after a gap, of one window
};

// The sending side: keeps a window of blocks under way, and goes back to the first block that the
// server lacks.
class Sender {
  public:
    Sender(Conversation &conversation, std::uint64_t size, const Source &source)
        : conversation_(conversation), size_(size), source_(source),
          last_(size / conversation.block_size() + 1),
          packet_(header_octets + conversation.block_size()) {}

    void run() {
        while (unacknowledged_ <= last_) {
            send_window();
            const auto packet = conversation_.wait();
            if (!packet) {
                next_ = unacknowledged_;
            } else if (const auto *acknowledgment = std::get_if<Acknowledgment>(&*packet)) {
                take(*acknowledgment);
            }
        }
    }

    // Whether each block was sent once at least.
    [[nodiscard]] bool all_sent() const { return highest_ == last_; }

  private:
    void send_window() {
        const std::uint64_t end =
            std::min(unacknowledged_ + conversation_.window_size(), last_ + 1);
        if (next_ == unacknowledged_) {
            window_sent_at_ = Clock::now();
        }
        for (; next_ < end; ++next_) {
            send_block(next_);
        }
    }

    void send_block(std::uint64_t block) {
        const std::uint64_t offset = (block - 1) * conversation_.block_size();
        const std::size_t octets = static_cast<std::size_t>(
            std::min<std::uint64_t>(conversation_.block_size(), size_ - offset));
        const std::span<std::uint8_t> payload = std::span(packet_).subspan(header_octets, octets);
        conversation_.locally([&] {
            if (octets > 0 && source_(offset, payload) != octets) {
                throw_error(EIO, "the file became shorter while it was sent");
            }
        });
        put_data_header(packet_, wire_number(block));
        if (block > highest_) {
            highest_ = block;
            conversation_.clock().sent();
        }
        conversation_.send(Octets(packet_).first(header_octets + octets));
    }

    void take(const Acknowledgment &acknowledgment) {
        const std::uint64_t block = unwrapped(acknowledgment.block, unacknowledged_);
        if (block >= unacknowledged_ && block <= highest_) {
            if (block != highest_) {
                conversation_.clock().resent(); // this is not the answer to the last packet sent
            }
            conversation_.progressed((block + 1 - unacknowledged_) * conversation_.block_size());
            unacknowledged_ = block + 1;
            next_ = unacknowledged_;
        } else if (block + 1 == unacknowledged_ && lacks_first_of_window()) {
            gone_back_to_ = unacknowledged_;
            next_ = unacknowledged_;
            conversation_.clock().resent();
        }
    }

    // Whether a repeated acknowledgment means that the server lacks the first block of the window,
    // rather than that the network duplicated a packet. Answering a mere duplicate would duplicate
    // every packet from then on (RFC 1123, section 4.2.3.1). So: never without a window, never
    // sooner than the server could have noticed the gap, and never for two windows in a row.
    [[nodiscard]] bool lacks_first_of_window() const {
        const std::uint64_t window = conversation_.window_size();
        const Clock::duration soonest =
            std::max<Clock::duration>(conversation_.clock().round_trip() / 2, least_doubt);
        return window > 1 && Clock::now() - window_sent_at_ > soonest &&
               (!gone_back_to_ || unacknowledged_ > *gone_back_to_ + window);
    }

    Conversation &conversation_;
    std::uint64_t size_;
    const Source &source_;
    std::uint64_t last_;
    std::vector<std::uint8_t> packet_;
    std::uint64_t unacknowledged_ = 1; // first block that the server has not acknowledged
    std::uint64_t next_ = 1;           // next block to send
    std::uint64_t highest_ = 0;        // highest block sent so far
    Clock::time_point window_sent_at_;
    // first block of the last window that was sent again because of a repeated acknowledgment
    std::optional<std::uint64_t> gone_back_to_;
};

// What the client asks for, within our bounds.
Options agreed_with(const Endpoint &client, const Request &request) {
    Options agreed = asked_options(request);
    if (agreed.block_size) {
        agreed.block_size = std::min(*agreed.block_size, block_within_path(client));
    }
    if (agreed.window_size) {
        // What the client has room for, it says itself.
        const std::uint16_t most =
            request.opcode == Opcode::read_request
                ? client.window_size
                : window_within(own_window_octets, agreed.block_size.value_or(default_block_size),
                                client.window_size);
        agreed.window_size = std::min(*agreed.window_size, most);
    }
    return agreed;
}

// With the timeout that lets a client repeat as often as usual.
Endpoint patient(Endpoint client, const Options &agreed) {
    client.timeout = std::max(client.timeout,
                              usual_repetitions * std::chrono::seconds(agreed.timeout.value_or(0)));
    return client;
}

} // namespace

Options options_for(const Endpoint &server, Opcode opcode, std::uint64_t transfer_size) {
    // Of a server's socket buffer we know only the kernel's usual default of 208 KiB.
    const std::size_t window_octets =
        opcode == Opcode::read_request ? own_window_octets : std::size_t{160} * 1024;
    Options options;
    options.block_size = block_within_path(server);
    // This makes the server wait as long as we do. The measured round trip detects losses sooner.
    options.timeout = static_cast<std::uint8_t>(
        std::clamp<std::chrono::seconds::rep>(server.timeout.count() / usual_repetitions, 1, 255));
    options.transfer_size = transfer_size;
    options.window_size = window_within(window_octets, *options.block_size, server.window_size);
    return options;
}

void write_file(const Endpoint &server, const std::string &name, std::uint64_t size,
                const Source &source) {
    Conversation conversation(server, Opcode::write_request, name, size);
    Sender sender(conversation, size, source);
    try {
        sender.run();
    } catch (const std::system_error &failure) {
        // This also happens if the server has all blocks and its last acknowledgment is lost.
        if (failure.code() == std::errc::connection_refused && sender.all_sent()) {
            throw_error(ECONNREFUSED, "the server ended without confirming the last block: its "
                                      "file may be whole");
        }
        throw;
    }
}

void read_file(const Endpoint &server, const std::string &name, const Sink &sink) {
    Conversation conversation(server, Opcode::read_request, name, 0);
    Receiver(conversation, server.limits.received_octets, sink).run();
}

void answer_read(const Endpoint &client, const Request &request, std::uint64_t size,
                 const Source &source) {
    Options agreed = agreed_with(client, request);
    if (agreed.transfer_size) {
        agreed.transfer_size = size;
    }
    Conversation conversation(patient(client, agreed), agreed);
    conversation.answer(request.opcode);
    Sender sender(conversation, size, source);
    try {
        sender.run();
    } catch (const std::system_error &failure) {
        if (failure.code() != std::errc::connection_refused || !sender.all_sent()) {
            throw;
        }
    }
}

void answer_write(const Endpoint &client, const Request &request, const Sink &sink,
                  const std::function<void()> &complete) {
    const Options agreed = agreed_with(client, request);
    const Endpoint waiting = patient(client, agreed);
    Conversation conversation(waiting, agreed);
    Receiver receiver(conversation, client.limits.received_octets, sink);
    receiver.check_announced();
    conversation.answer(request.opcode);
    receiver.run();
    complete();
    receiver.answer_repetitions(waiting.timeout);
}

} // namespace ulmo::tftp
