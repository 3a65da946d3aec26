#include "fake_msgbus.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "config_copy_mib.h"
#include "journal.h"

namespace {

constexpr const char *endpoint_of_nobody = "an endpoint that was not bound";

bool known_endpoint(int32_t handle) {
    return handle == msgbus_response_q || (handle >= 0 && handle < fake_msgbus.next_handle);
}

int next(std::deque<int> &errors) {
    if (errors.empty()) {
        return 0;
    }
    const int error = errors.front();
    errors.pop_front();
    return error;
}

bool is_alive(msgbus_msg message) {
    const bool found = fake_msgbus.alive.contains(message);
    EXPECT_TRUE(found) << "a message that is null or was dropped is used";
    return found;
}

} // namespace

MsgbusFake fake_msgbus;

msgbus_message *MsgbusFake::make(uint32_t opcode, const std::string &payload) {
    return *alive.insert(new msgbus_message{response_queue, opcode, payload, 0}).first;
}

void MsgbusFake::release(msgbus_message *message) {
    EXPECT_EQ(alive.erase(message), 1U);
    delete message;
}

void MsgbusFake::reset() {
    next_handle = 100;
    bind_errors.clear();
    send_errors.clear();
    answers.clear();
    next_token = first_token;
    for (msgbus_message *message : std::exchange(alive, {})) {
        delete message;
    }
    cfg_action_request = nullptr; // the module's pointer to one of them
}

void MsgbusFake::verify() {
    for (const msgbus_message *message : alive) {
        ADD_FAILURE() << "message " << message->opcode << " was not dropped";
    }
    EXPECT_TRUE(bind_errors.empty() && send_errors.empty()) << "scripted calls never came";
    EXPECT_TRUE(answers.empty()) << answers.size() << " answers were not received";
}

extern "C" {

int32_t msgbus_response_q = MsgbusFake::response_queue;

int32_t msgbus_bind(int32_t kind, int32_t second, const struct msgbus_address *address,
                    const char *name) {
    std::string words;
    for (const uint32_t word : address->word) {
        words += (words.empty() ? "" : ",") + std::to_string(word);
    }
    const int error = next(fake_msgbus.bind_errors);
    const int32_t handle = error == 0 ? fake_msgbus.next_handle++ : -1;
    journal.note("bind " + std::to_string(kind) + " " + std::to_string(second) + " " + words + " " +
                 name + " = " + std::to_string(handle));
    errno = error == 0 ? errno : error;
    return handle;
}

int32_t msgbus_unbind(int32_t handle, int32_t second) {
    EXPECT_TRUE(known_endpoint(handle)) << endpoint_of_nobody;
    journal.note("unbind " + std::to_string(handle) + " " + std::to_string(second));
    return 0;
}

int32_t msgbus_send(int32_t handle, uint32_t node, uint32_t sap, uint32_t opcode,
                    const void *payload, uint32_t length, msgbus_msg *store, uint32_t eighth,
                    uint32_t ninth) {
    EXPECT_TRUE(known_endpoint(handle)) << endpoint_of_nobody;
    EXPECT_LE(length, MSGBUS_PAYLOAD_MAX);
    EXPECT_EQ(eighth, 0U);
    EXPECT_EQ(ninth, 0U);
    char head[64];
    snprintf(head, sizeof head, "send %d %x %u %u ", handle, node, sap, opcode);
    journal.note(head + hex(payload, length) + (store == nullptr ? "" : " kept"));
    const int error = next(fake_msgbus.send_errors);
    if (store != nullptr && error == 0) {
        const std::string octets(static_cast<const char *>(payload), length);
        *store = *fake_msgbus.alive
                      .insert(new msgbus_message{handle, opcode, octets, fake_msgbus.next_token++})
                      .first;
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

int32_t msgbus_recv(int32_t handle, msgbus_msg *message,
                    const struct msgbus_recv_options *options) {
    EXPECT_TRUE(known_endpoint(handle)) << endpoint_of_nobody;
    static_assert(sizeof *options == 40);
    EXPECT_EQ(options->wait, 1U);
    EXPECT_TRUE(std::ranges::all_of(options->reserved, [](uint32_t word) { return word == 0; }));
    journal.note("receive " + std::to_string(handle));
    if (fake_msgbus.answers.empty()) {
        ADD_FAILURE() << "no answer is scripted for this receive";
        errno = ECONNRESET;
        return -1;
    }
    const MsgbusFake::Answer answer = fake_msgbus.answers.front();
    fake_msgbus.answers.pop_front();
    if (answer.error != 0) {
        errno = answer.error;
        return -1;
    }
    *message =
        *fake_msgbus.alive.insert(new msgbus_message{handle, answer.opcode, answer.payload, 0})
             .first;
    return 0;
}

void msgbus_drop(int32_t handle, msgbus_msg *message) {
    if (*message == nullptr || !is_alive(*message)) {
        return;
    }
    EXPECT_EQ(handle, (*message)->endpoint);
    journal.note("drop " + std::to_string((*message)->opcode));
    fake_msgbus.release(*message);
    *message = nullptr;
}

uint32_t msgbus_opc_get(msgbus_msg message) {
    return is_alive(message) ? message->opcode : 0;
}

const void *msgbus_payload_get(msgbus_msg message, uint32_t at_least) {
    return is_alive(message) && !message->payload.empty() && message->payload.size() >= at_least
               ? message->payload.data()
               : nullptr;
}

uint32_t msgbus_rr_token_get(msgbus_msg message) {
    return message != nullptr && is_alive(message) ? message->token : 0;
}

} // extern "C"
