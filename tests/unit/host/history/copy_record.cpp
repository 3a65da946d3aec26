#include "platform/host/history/copy_record.h"

#include "tests/unit/scratch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using namespace std::chrono_literals;

ulmo::CopyRequest backup() {
    ulmo::CopyRequest request;
    request.began = 1795306502;
    request.index = 7;
    request.started = 4711;
    request.user = "operator";
    request.requester = "192.0.2.1";
    request.from = "running";
    request.to = ulmo::url_of("tftp", "", "192.0.2.20", "x.cfg");
    return request;
}

TEST(HostCopyRecord, LineTellsTheRequest) {
    EXPECT_EQ(ulmo::line_of(backup()),
              "2026-11-22T00:15:02Z request=7 started=4711 user=operator requester=192.0.2.1 "
              "from=running to=tftp://192.0.2.20/x.cfg");
}

TEST(HostCopyRecord, LineTellsTheEnd) {
    ulmo::CopyEnd end;
    end.outcome = ulmo::CopyEnd::Outcome::failed;
    end.cause = "timeout";
    end.reason = "no \"answer\" \\ yet\n\xC3\xBC";
    end.octets = 0;
    end.duration = 120ms;
    EXPECT_EQ(ulmo::line_of(end), "outcome=failed cause=timeout reason=\"no \\\"answer\\\" \\\\ "
                                  "yet\\x0a\\xc3\\xbc\" bytes=0 seconds=0.12");
}

TEST(HostCopyRecord, WhatIsNotKnownIsLeftOut) {
    ulmo::CopyEnd end;
    EXPECT_EQ(ulmo::line_of(end), "outcome=unknown");
    end.outcome = ulmo::CopyEnd::Outcome::successful;
    EXPECT_EQ(ulmo::line_of(end), "outcome=successful");
}

// A chosen name can't add words to the line.
TEST(HostCopyRecord, NamesStayOneValue) {
    ulmo::CopyRequest request = backup();
    request.user = "a b=c";
    request.requester = "";
    const std::string line = ulmo::line_of(request);
    EXPECT_NE(line.find(" user=\"a b=c\" requester=\"\" "), std::string::npos) << line;
}

TEST(HostCopyRecord, UrlEncodesItsParts) {
    EXPECT_EQ(ulmo::url_of("sftp", "me@home:x", "2001:db8::20", "/dir/a b%\"\n.cfg"),
              "sftp://me%40home%3Ax@[2001:db8::20]//dir/a%20b%25%22%0A.cfg");
}

TEST(HostCopyRecord, NothingIsKeptAtFirst) {
    const Scratch scratch;
    EXPECT_EQ(ulmo::kept_copy_lines(), "");
}

TEST(HostCopyRecord, TheLastOnesAreKeptNewestFirst) {
    const Scratch scratch;
    for (std::size_t i = 0; i < ulmo::copies_kept + 3; ++i) {
        ulmo::keep_copy_line("line " + std::to_string(i));
    }
    const std::string lines = ulmo::kept_copy_lines();
    EXPECT_EQ(static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n')),
              ulmo::copies_kept);
    EXPECT_TRUE(lines.starts_with("line 34\nline 33\n")) << lines;
    EXPECT_TRUE(lines.ends_with("line 4\nline 3\n")) << lines;
    EXPECT_EQ(Scratch::status_of(scratch.run("last-copies")).st_mode & 07777U, 0600U);
}

} // namespace
