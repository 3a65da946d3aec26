#include "tests/unit/tftp/fixture.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace tftp_test {

std::string content_of(std::size_t octets) {
    std::mt19937 random(static_cast<unsigned>(octets));
    std::string content(octets, '\0');
    for (char &octet : content) {
        octet = static_cast<char>(random());
    }
    return content;
}

TftpTest::TftpTest() {
    std::string name = (std::filesystem::temp_directory_path() / "host-tftp-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("cannot make a directory");
    }
    directory = name;
    session.set_timeout(10);
}

TftpTest::~TftpTest() {
    std::filesystem::remove_all(directory);
}

std::string TftpTest::write(const std::string &name, const std::string &content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
}

std::string TftpTest::read(const std::string &name) const {
    std::ifstream file(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void TftpTest::expect_there_and_back(TestServer &server, const std::string &content) {
    EXPECT_EQ(session.put(write("local", content), "remote"), 0) << session.text(-1);
    server.offer("other", content);
    EXPECT_EQ(session.get("other", path("got")), 0) << session.text(-1);
    server.stop();
    EXPECT_EQ(server.stored("remote"), content);
    EXPECT_EQ(read("got"), content);
}

std::size_t TftpTest::entries() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(directory), {}));
}

} // namespace tftp_test
