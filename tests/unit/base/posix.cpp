#include "base/posix.h"

#include "base/unique_fd.h"
#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

namespace {

struct Thrown {
    int error = 0;
    std::string text;
    bool operator==(const Thrown &) const = default;
};

Thrown thrown_by(const std::function<void()> &call) {
    try {
        call();
    } catch (const std::system_error &error) {
        EXPECT_EQ(error.code().category(), std::generic_category());
        return {error.code().value(), error.what()};
    }
    return {};
}

TEST(Posix, AnErrorSaysWhatFailedAndWhy) {
    EXPECT_EQ(thrown_by([] { ulmo::throw_error(ENOENT, "cannot open", "/a"); }),
              (Thrown{ENOENT, "cannot open /a: No such file or directory"}));
    EXPECT_EQ(thrown_by([] { ulmo::throw_error(ENOENT, "signals"); }),
              (Thrown{ENOENT, "signals: No such file or directory"}));
    EXPECT_EQ(thrown_by([] { ulmo::throw_error(ENOENT, {}, "/a"); }),
              (Thrown{ENOENT, "/a: No such file or directory"}));
    EXPECT_EQ(thrown_by([] { ulmo::throw_error(ENOENT); }),
              (Thrown{ENOENT, "No such file or directory"}));
    EXPECT_EQ(thrown_by([] { errno = EACCES, ulmo::throw_errno("cannot open", "/a"); }),
              (Thrown{EACCES, "cannot open /a: Permission denied"}));
}

TEST(Posix, ACheckedCallThrowsWhenItFailed) {
    EXPECT_EQ(ulmo::check(7, "call"), 7);
    EXPECT_EQ(ulmo::check(ssize_t{0}, "call"), 0);
    EXPECT_EQ(thrown_by([] { ulmo::check(::open("/", O_WRONLY), "cannot open", "/"); }),
              (Thrown{EISDIR, "cannot open /: Is a directory"}));
}

TEST(Posix, AFileIsReadFromItsPositionToItsEnd) {
    const Scratch scratch;
    const std::string content(200'000, 'x'); // many reads
    Scratch::write(scratch.state("file"), "begin" + content);
    const ulmo::UniqueFd file(::open(scratch.state("file").c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(::lseek(file.get(), 5, SEEK_SET), 5);
    EXPECT_EQ(ulmo::read_whole(file.get(), "it", content.size()), content);
    EXPECT_EQ(ulmo::read_whole(file.get(), "it"), "") << "at its end";
    ASSERT_EQ(::lseek(file.get(), 5, SEEK_SET), 5);
    EXPECT_EQ(thrown_by([&] { ulmo::read_whole(file.get(), "it", content.size() - 1); }),
              (Thrown{EFBIG, "it is larger than 199999 octets: File too large"}));
    EXPECT_EQ(thrown_by([] { ulmo::read_whole(-1, "it"); }),
              (Thrown{EBADF, "cannot read it: Bad file descriptor"}));
}

TEST(Posix, AllIsWrittenThatAPipeTakesInParts) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    const ulmo::UniqueFd in(ends[0]);
    ulmo::UniqueFd out(ends[1]);
    const std::string data(300'000, 'x'); // more than a pipe holds
    std::string read;
    std::thread reader([&] { read = ulmo::read_whole(in.get(), "pipe"); });
    ulmo::write_whole(out.get(), data, "pipe");
    out.reset();
    reader.join();
    EXPECT_EQ(read, data);
    const ulmo::UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(thrown_by([&] { ulmo::write_whole(full.get(), "x", "it"); }),
              (Thrown{ENOSPC, "cannot write it: No space left on device"}));
    EXPECT_EQ(thrown_by([&] { ulmo::write_whole(full.get(), "", "it"); }), Thrown{});
}

TEST(Posix, OnlyARegularFileHasAStatus) {
    const Scratch scratch;
    Scratch::write(scratch.state("file"), "12345");
    const ulmo::UniqueFd file(::open(scratch.state("file").c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(ulmo::regular_file_status(file.get(), "it", 5).st_size, 5);
    EXPECT_EQ(thrown_by([&] { ulmo::regular_file_status(file.get(), "it", 4); }),
              (Thrown{EFBIG, "it is larger than 4 octets: File too large"}));
    const ulmo::UniqueFd folder(::open("/", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(thrown_by([&] { ulmo::regular_file_status(folder.get(), "/"); }),
              (Thrown{EISDIR, "not a regular file: /: Is a directory"}));
    const ulmo::UniqueFd device(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(thrown_by([&] { ulmo::regular_file_status(device.get(), "null"); }),
              (Thrown{EINVAL, "not a regular file: null: Invalid argument"}));
}

} // namespace
