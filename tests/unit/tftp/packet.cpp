#include "tftp/packet.h"

#include "tests/unit/tftp/scripted_server.h"

#include <gtest/gtest.h>

using namespace ulmo::tftp;
namespace wire = tftp_test;

namespace {

Octets octets(const std::string &text) {
    return {reinterpret_cast<const std::uint8_t *>(text.data()), text.size()};
}
std::string text(const std::vector<std::uint8_t> &packet) {
    return {packet.begin(), packet.end()};
}

const Options all_asked{.block_size = 1468, .timeout = 4, .transfer_size = 1000, .window_size = 64};

std::optional<Options> answered(Opcode request,
                                const std::vector<std::pair<std::string, std::string>> &options) {
    const std::string packet = wire::oack(options);
    const auto decoded = decode(octets(packet));
    return agree(request, all_asked, std::get<OptionAcknowledgment>(decoded.value()));
}

} // namespace

TEST(TftpPacket, RequestHasNameModeAndOptions) {
    using namespace std::string_literals;
    EXPECT_EQ(text(*encode_request(Opcode::read_request, "a b", {})), "\0\1a b\0octet\0"s);
    EXPECT_EQ(text(*encode_request(Opcode::write_request, "f", all_asked)),
              "\0\2f\0octet\0blksize\0001468\0timeout\0004\0tsize\0001000\0windowsize\00064\0"s);
}

TEST(TftpPacket, RequestFitsIn512Octets) {
    const std::size_t room = 512 - 2 - 1 - 6;
    EXPECT_EQ(encode_request(Opcode::read_request, std::string(room, 'n'), {})->size(), 512U);
    EXPECT_FALSE(encode_request(Opcode::read_request, std::string(room + 1, 'n'), {}));
    EXPECT_FALSE(encode_request(Opcode::read_request, std::string(room, 'n'), {.timeout = 1}));
}

TEST(TftpPacket, NumbersAreBigEndian) {
    EXPECT_EQ(text(encode_acknowledgment(0x1234)), wire::ack(0x1234));
    EXPECT_EQ(text(encode_error(ErrorCode::disk_full, "full")), wire::error(3, "full"));
    std::vector<std::uint8_t> packet(4);
    put_data_header(packet, 0xfffe);
    EXPECT_EQ(text(packet), wire::data(0xfffe, ""));
}

TEST(TftpPacket, DecodesWhatServersSend) {
    const std::string block = wire::data(7, std::string("x\0y", 3));
    const auto data = std::get<Data>(decode(octets(block)).value());
    EXPECT_EQ(data.block, 7);
    EXPECT_EQ(std::string(data.payload.begin(), data.payload.end()), std::string("x\0y", 3));
    EXPECT_EQ(std::get<Data>(decode(octets(wire::data(9, ""))).value()).payload.size(), 0U);
    EXPECT_EQ(std::get<Acknowledgment>(decode(octets(wire::ack(65535))).value()).block, 65535);
    const auto error = std::get<Error>(decode(octets(wire::error(2, "no\nway\x80"))).value());
    EXPECT_EQ(error.code, 2);
    EXPECT_EQ(error.text, "no way?");
    EXPECT_EQ(
        std::get<Error>(decode(octets(wire::number(5) + wire::number(1) + "bare")).value()).text,
        "bare");
    EXPECT_TRUE(
        std::get<OptionAcknowledgment>(decode(octets(wire::number(6))).value()).options.empty());
}

TEST(TftpPacket, RefusesWhatIsNoPacketOfAServer) {
    for (const std::string &packet :
         {std::string(), std::string(1, '\0'), wire::number(3), wire::number(3) + "x",
          wire::number(4) + "x", wire::number(5), wire::number(0) + wire::number(0),
          wire::number(1) + "file", wire::number(2) + "file", wire::number(7) + wire::number(0),
          wire::number(0x0103) + wire::number(1)}) {
        EXPECT_FALSE(decode(octets(packet))) << packet.size();
    }
    EXPECT_FALSE(decode(octets(wire::number(6) + "tsize")));
    EXPECT_FALSE(decode(octets(wire::number(6) + std::string("tsize\0", 6))));
    EXPECT_FALSE(decode(octets(wire::number(6) + std::string("tsize\00012", 8))));
}

TEST(TftpPacket, AgreesToSmallerBlocksAndWindowsAndToFewerOptions) {
    EXPECT_EQ(answered(Opcode::read_request, {}), Options{});
    EXPECT_EQ(answered(Opcode::read_request, {{"BLKSIZE", "1468"}, {"windowSize", "1"}}),
              (Options{.block_size = 1468, .window_size = 1}));
    EXPECT_EQ(
        answered(Opcode::write_request, {{"blksize", "8"}, {"timeout", "4"}, {"tsize", "1000"}}),
        (Options{.block_size = 8, .timeout = 4, .transfer_size = 1000}));
    EXPECT_EQ(answered(Opcode::read_request, {{"tsize", "18446744073709551615"}}),
              (Options{.transfer_size = 18446744073709551615ULL}));
}

TEST(TftpPacket, RefusesAnswersOtherThanAskedFor) {
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", "1469"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", "7"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", ""}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", "512x"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", "-512"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", "66048"}})); // 512 modulo 65536
    EXPECT_FALSE(answered(Opcode::read_request, {{"timeout", "3"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"timeout", "5"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"windowsize", "0"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"windowsize", "65"}}));
    EXPECT_FALSE(answered(Opcode::write_request, {{"tsize", "999"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"tsize", "18446744073709551616"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"blksize", "512"}, {"blksize", "512"}}));
    EXPECT_FALSE(answered(Opcode::read_request, {{"multicast", ""}}));
    EXPECT_FALSE(agree(Opcode::read_request, {}, {.options = {{"blksize", "512"}}}));
}

TEST(TftpPacket, TheTextOfAnErrorIsOneShortLine) {
    const auto text_of = [](const std::string &text) {
        const auto packet = encode_error(ErrorCode::undefined, text);
        return std::get<Error>(decode(packet).value()).text;
    };
    EXPECT_EQ(text_of("a\tb\x1b[1m~\x7f"), "a b?[1m~?");
    EXPECT_EQ(text_of(std::string(1000, 'a')).size(), 256U);
}

TEST(TftpPacket, DecodesRequests) {
    using namespace std::string_literals;
    const auto packet = "\0\2a b\0OCTET\0BlkSize\00099\0color\0blue\0half"s;
    const auto request = decode_request(octets(packet));
    ASSERT_TRUE(request);
    EXPECT_EQ(request->opcode, Opcode::write_request);
    EXPECT_EQ(request->file_name, "a b");
    EXPECT_TRUE(is_octet_mode(*request));
    EXPECT_EQ(request->options, (OptionTexts{{"BlkSize", "99"}, {"color", "blue"}}));
    EXPECT_EQ(asked_options(*request), Options{.block_size = 99});
    const auto text_mode = "\0\1f\0netascii\0"s;
    EXPECT_FALSE(is_octet_mode(*decode_request(octets(text_mode))));
    const auto longer = "\0\1f\0octets\0"s;
    EXPECT_FALSE(is_octet_mode(*decode_request(octets(longer))));
}

TEST(TftpPacket, OtherThanRequestsAreNotDecodedAsSuch) {
    using namespace std::string_literals;
    for (const std::string &packet :
         {""s, "\0"s, "\0\1"s, "\0\1f"s, "\0\1f\0"s, "\0\1f\0octet"s, "\0\3f\0octet\0"s,
          "\0\0f\0octet\0"s, "\1\1f\0octet\0"s, "\0\6tsize\0001\0"s}) {
        EXPECT_FALSE(decode_request(octets(packet))) << packet.size();
    }
}

TEST(TftpPacket, AskedOptionsAreThoseThatTheStandardsAllow) {
    const auto asked = [](const OptionTexts &options) {
        return asked_options({Opcode::read_request, "f", "octet", options});
    };
    EXPECT_EQ(asked({{"blksize", "8"},
                     {"timeout", "255"},
                     {"tsize", "18446744073709551615"},
                     {"windowsize", "65535"}}),
              (Options{.block_size = 8,
                       .timeout = 255,
                       .transfer_size = 18446744073709551615U,
                       .window_size = 65535}));
    EXPECT_EQ(asked({{"blksize", "7"},
                     {"timeout", "256"},
                     {"tsize", "18446744073709551616"},
                     {"windowsize", "0"},
                     {"", ""}}),
              Options{});
    EXPECT_EQ(asked({{"blksize", "65465"}, {"timeout", "0"}}), Options{.block_size = 65464});
    EXPECT_EQ(asked({{"tsize", "1"}, {"TSIZE", "2"}}), Options{.transfer_size = 1});
}

TEST(TftpPacket, AgreedOptionsAreWhatAClientReads) {
    const auto packet = encode_option_acknowledgment(all_asked);
    const auto decoded = decode(packet);
    EXPECT_EQ(
        agree(Opcode::write_request, all_asked, std::get<OptionAcknowledgment>(decoded.value())),
        all_asked);
}
