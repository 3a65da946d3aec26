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

std::size_t TftpTest::entries() const {
    return static_cast<std::size_t>(
        std::distance(std::filesystem::directory_iterator(directory), {}));
}

} // namespace tftp_test
