// FROM and TO on the command line.
#include "config-copy/copies/endpoint.h"
#include "config-copy/agents/server_address.h"
#include "config-copy/copies/copy_run.h"

#include "tests/unit/config-copy/support.h"

#include <cstdlib>

namespace config_copy {
namespace {

std::string refusal(const std::string &text) {
    return usage_failure([&] { parse_endpoint(text); });
}

std::string pair_refusal(const char *from, const char *to) {
    return usage_failure([&] { check_pair(parse_endpoint(from), parse_endpoint(to)); });
}

std::string name_in(const std::string &url) {
    return file_name(parse_endpoint(url).url,
                     {"sw-1", "2026-11-21", "01-30-00", "2026-11-21T01-30-00", "core", "spine.7"});
}

TEST(Endpoint, Configurations) {
    EXPECT_EQ(FileType::running, parse_endpoint("running").type);
    EXPECT_EQ(FileType::startup, parse_endpoint("startup").type);
    EXPECT_EQ(FileType::fabric_startup, parse_endpoint("fabric-startup").type);
    EXPECT_EQ(FileType::all_startup, parse_endpoint("all-startup").type);
}

TEST(Endpoint, FilesOfThisMachine) {
    for (const char *path : {"./switch.cfg", "new.cfg", "/var/backups/sw", "backup", "-",
                             "running.conf", "./running"}) {
        const Endpoint endpoint = parse_endpoint(path);
        EXPECT_EQ(FileType::network, endpoint.type);
        EXPECT_EQ(path, endpoint.local);
        EXPECT_TRUE(endpoint.is_local());
    }
    EXPECT_FALSE(parse_endpoint("running").is_local());
    EXPECT_FALSE(parse_endpoint("tftp://h/a").is_local());
    const Endpoint endpoint = parse_endpoint("backup/{host}-{date}%20.cfg");
    EXPECT_EQ("backup/sw-1-2026-11-21%20.cfg",
              local_path(endpoint, {"sw-1", "2026-11-21", "", "", "", ""}));
    EXPECT_TRUE(has_template(endpoint, "host"));
    EXPECT_FALSE(has_template(parse_endpoint("tftp://h/a"), "host"));
    EXPECT_EQ(
        "\"{hots}\" can't be filled in: {host}, {name}, {group}, {date}, {time} and {datetime} can",
        refusal("{hots}.cfg"));
    EXPECT_EQ("FROM or TO is empty: write running, startup, a URL or a file's name", refusal(""));
}

TEST(Endpoint, AMisspeltWordIsNoFile) {
    for (const char *word : {"Running", "runing", "startpu", "running_config", "fabric-statup"}) {
        EXPECT_EQ(0U, refusal(word).find("did you mean ")) << word;
    }
    EXPECT_EQ("did you mean running? A file of this machine named \"runing\" is written ./runing",
              refusal("runing"));
}

TEST(Endpoint, WhatDiffCompares) {
    const auto check = [](const char *one, const char *other) {
        check_comparison(parse_endpoint(one), parse_endpoint(other));
    };
    EXPECT_NO_THROW(check("running", "startup"));
    EXPECT_NO_THROW(check("running", "a.cfg"));
    EXPECT_NO_THROW(check("a.cfg", "startup"));
    const auto refused = [&](const char *one, const char *other) {
        return usage_failure([&] { check(one, other); });
    };
    const std::string two = "diff compares a configuration of the switch with another one or a "
                            "file: name running or startup, and something else";
    EXPECT_EQ(two, refused("running", "running"));
    EXPECT_EQ(two, refused("a.cfg", "b.cfg"));
    EXPECT_EQ("diff compares running, startup and files of this machine, not a file on a server",
              refused("running", "tftp://h/a"));
    EXPECT_EQ("diff compares running, startup and files of this machine, not fabric-startup",
              refused("fabric-startup", "running"));
}

TEST(Endpoint, Urls) {
    const Endpoint tftp = parse_endpoint("tftp://192.0.2.1/dir/a.cfg");
    EXPECT_EQ(FileType::network, tftp.type);
    EXPECT_EQ(Protocol::tftp, tftp.url.protocol);
    EXPECT_EQ("192.0.2.1", tftp.url.host);
    EXPECT_EQ("", tftp.url.user);
    EXPECT_EQ("dir/a.cfg", tftp.url.path);
    const Endpoint ftp = parse_endpoint("FTP://Joe@files.example.net/a");
    EXPECT_EQ(Protocol::ftp, ftp.url.protocol);
    EXPECT_EQ("Joe", ftp.url.user);
    EXPECT_EQ("files.example.net", ftp.url.host);
    EXPECT_EQ(Protocol::sftp, parse_endpoint("sftp://u@h/a").url.protocol);
    EXPECT_EQ(Protocol::scp, parse_endpoint("scp://u@h/a").url.protocol);
}

TEST(Endpoint, Ipv6InBrackets) {
    const FileUrl url = parse_endpoint("sftp://u@[2001:db8::20]/a").url;
    EXPECT_EQ("2001:db8::20", url.host);
    EXPECT_EQ("u", url.user);
    EXPECT_EQ("write the IPv6 address in brackets, as in tftp://[2001:db8::1]/file",
              refusal("tftp://2001:db8::20/a"));
    EXPECT_EQ("no ']' after the IPv6 address in \"tftp://[2001:db8::20/a\"",
              refusal("tftp://[2001:db8::20/a"));
    EXPECT_EQ("no host in \"tftp://[]/a\": write tftp://host/path", refusal("tftp://[]/a"));
}

TEST(Endpoint, PercentEncoding) {
    EXPECT_EQ("a b%/{c}", name_in("tftp://h/a%20b%25%2f%7Bc%7D"));
    EXPECT_EQ("j@d", parse_endpoint("scp://j%40d@h/a").url.user);
    EXPECT_EQ("/etc/a", name_in("sftp://u@h//etc/a"));
    const std::string digits =
        " two hexadecimal digits must follow each '%'; a '%' itself is written %25";
    EXPECT_EQ("in \"a%2\"" + digits, refusal("tftp://h/a%2"));
    EXPECT_EQ("in \"a%g0\"" + digits, refusal("tftp://h/a%g0"));
    EXPECT_EQ("in \"%\"" + digits, refusal("tftp://h/%"));
    EXPECT_EQ("the file name contains a control character, which the switch does not accept",
              refusal("tftp://h/a%00b"));
    EXPECT_EQ("the user name contains a control character, which the switch does not accept",
              refusal("scp://a%0a@h/b"));
}

TEST(Endpoint, Templates) {
    EXPECT_EQ("x/sw-1-2026-11-21.cfg", name_in("tftp://h/x/{host}-{date}.cfg"));
    EXPECT_EQ("core/spine.7_01-30-00_2026-11-21T01-30-00",
              name_in("tftp://h/{group}/{name}_{time}_{datetime}"));
    const std::string known = " can't be filled in: {host}, {name}, {group}, {date}, {time} and "
                              "{datetime} can; a brace itself is written %7B or %7D";
    EXPECT_EQ("\"{hosts}\"" + known, refusal("tftp://h/{hosts}"));
    EXPECT_EQ("\"{host\"" + known, refusal("tftp://h/{host"));
    EXPECT_TRUE(has_template(parse_endpoint("tftp://h/{host}"), "host"));
    EXPECT_FALSE(has_template(parse_endpoint("tftp://h/{date}"), "host"));
    EXPECT_FALSE(has_template(parse_endpoint("tftp://h/%7Bhost%7D"), "host"));
}

TEST(Endpoint, AValueThatIsNotKnownYetStays) {
    PathValues values;
    values.host = "a";
    EXPECT_EQ("a-{name}", file_name(parse_endpoint("tftp://h/{host}-{name}").url, values));
    EXPECT_EQ("tftp://h/a-{name}%20{name}",
              endpoint_text(parse_endpoint("tftp://h/{host}-{name}%20{name}"), values));
    values.name = "b";
    EXPECT_EQ("tftp://h/a-b%20b",
              endpoint_text(parse_endpoint("tftp://h/{host}-{name}%20{name}"), values));
}

TEST(Endpoint, AValueIsNotDecoded) {
    PathValues values;
    values.host = "a%20b";
    EXPECT_EQ("a%20b", file_name(parse_endpoint("tftp://h/{host}").url, values));
}

TEST(Endpoint, ValueOfName) {
    EXPECT_EQ("spine-7.example.net", name_value("spine 7.example.net"));
    EXPECT_EQ("etc-passwd", name_value("../../etc/passwd"));
    EXPECT_EQ("hidden", name_value(".hidden"));
    EXPECT_EQ(std::string(64, 'x'), name_value(std::string(200, 'x')));
    for (const char *nothing : {"", "..", "/", "\xc3\xa4", ". -"}) {
        EXPECT_EQ("", name_value(nothing)) << nothing;
    }
}

TEST(Endpoint, ValuesOfTime) {
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
    const PathValues values = values_of_time(1'795'311'000);
    EXPECT_EQ("2026-11-22", values.date);
    EXPECT_EQ("01-30-00", values.time);
    EXPECT_EQ("2026-11-22T01-30-00", values.datetime);
}

TEST(Endpoint, TwoAgentsDoNotWriteOneFile) {
    FileNames names;
    EXPECT_EQ(std::nullopt, names.taken("a", "switch1"));
    EXPECT_EQ(std::nullopt, names.taken("b", "switch2"));
    EXPECT_EQ("switch1", names.taken("a", "switch2"));
    EXPECT_EQ(std::nullopt, names.taken("a", "switch1"));
}

TEST(Endpoint, LengthOfNames) {
    EXPECT_EQ(128U, name_in("tftp://h/" + std::string(128, 'x')).size());
    EXPECT_EQ("the file name \"" + std::string(129, 'x') +
                  "\" is longer than the 128 octets that the switch takes",
              refusal("tftp://h/" + std::string(129, 'x')));
    EXPECT_EQ(40U, parse_endpoint("scp://" + std::string(40, 'u') + "@h/a").url.user.size());
    EXPECT_EQ("the user name is longer than the 40 octets that the switch takes",
              refusal("scp://" + std::string(41, 'u') + "@h/a"));
}

TEST(Endpoint, RefusedUrls) {
    EXPECT_EQ("unknown scheme \"http\": use tftp, ftp, sftp or scp", refusal("http://h/a"));
    EXPECT_EQ("no host in \"tftp:///a\": write tftp://host/path", refusal("tftp:///a"));
    EXPECT_EQ("no file name in \"tftp://h\": write tftp://host/path", refusal("tftp://h"));
    EXPECT_EQ("no file name in \"tftp://h/\": write tftp://host/path", refusal("tftp://h/"));
    EXPECT_EQ("no file name in \"tftp://h/dir/\": write tftp://host/path",
              refusal("tftp://h/dir/"));
    EXPECT_EQ("a '?' in a path is written %3F", refusal("tftp://h/a?b"));
    EXPECT_EQ("a '#' in a path is written %23", refusal("tftp://h/a#b"));
    EXPECT_EQ("TFTP has no users: leave out \"u@\", or use another protocol",
              refusal("tftp://u@h/a"));
    EXPECT_EQ("no user in \"sftp://h/a\": write sftp://user@host/path", refusal("sftp://h/a"));
    EXPECT_EQ("no user in \"ftp://h/a\": write ftp://user@host/path", refusal("ftp://h/a"));
    EXPECT_EQ("no user in \"scp://h/a\": write scp://user@host/path", refusal("scp://h/a"));
    EXPECT_EQ("no user in \"scp://@h/a\": write scp://user@host/path", refusal("scp://@h/a"));
    EXPECT_EQ("a password in a URL can be seen by others: use --password-file, standard input or "
              "the prompt",
              refusal("ftp://u:p@h/a"));
    EXPECT_EQ("a port can't be chosen (\"scp://h:22/a\"): the switch uses the protocol's own, so "
              "leave it out",
              refusal("scp://h:22/a"));
    EXPECT_EQ("a port can't be chosen (\"scp://[::2]:22/a\"): the switch uses the protocol's own, "
              "so leave it out",
              refusal("scp://[::2]:22/a"));
}

TEST(Endpoint, PairsThatAreCopies) {
    for (const auto &[from, to] : {std::pair{"running", "startup"},
                                   {"running", "fabric-startup"},
                                   {"running", "all-startup"},
                                   {"startup", "running"},
                                   {"running", "tftp://h/a"},
                                   {"startup", "tftp://h/a"},
                                   {"tftp://h/a", "running"}}) {
        EXPECT_NO_THROW(check_pair(parse_endpoint(from), parse_endpoint(to)))
            << from << " to " << to;
    }
}

TEST(Endpoint, PairsThatAreRefused) {
    EXPECT_EQ("from running to running copies nothing: FROM and TO must differ",
              pair_refusal("running", "running"));
    EXPECT_EQ("from startup to startup copies nothing: FROM and TO must differ",
              pair_refusal("startup", "startup"));
    EXPECT_EQ("FROM and TO are both files: one of them must be running or startup",
              pair_refusal("tftp://h/a", "tftp://h/b"));
    EXPECT_EQ(
        "the switch can't copy a file straight to startup: copy it to running, then running to "
        "startup",
        pair_refusal("tftp://h/a", "startup"));
    EXPECT_EQ("only running can be copied to fabric-startup",
              pair_refusal("startup", "fabric-startup"));
    EXPECT_EQ("only running can be copied to all-startup",
              pair_refusal("tftp://h/a", "all-startup"));
    EXPECT_EQ("fabric-startup can only be copied to; to copy from this switch's own, write startup",
              pair_refusal("fabric-startup", "running"));
}

TEST(Endpoint, ValueOfHost) {
    EXPECT_EQ("switch1.example.net", host_value("switch1.example.net"));
    EXPECT_EQ("udp6-2001-db8-1-161", host_value("udp6:[2001:db8::1]:161"));
    EXPECT_EQ("etc-passwd", host_value("/etc/passwd"));
}

TEST(Endpoint, Synonyms) {
    EXPECT_EQ(FileType::running, parse_endpoint("running-config").type);
    EXPECT_EQ(FileType::startup, parse_endpoint("startup-config").type);
}

TEST(Endpoint, UrlThatCanBeGivenAgain) {
    EXPECT_EQ("tftp://192.0.2.1/a%20b", url_text(Protocol::tftp, "", "192.0.2.1", "a b"));
    EXPECT_EQ("tftp://?/", url_text(Protocol::tftp, "", address_text(""), ""));
    const std::string user = "j@d:/%";
    const std::string path = "/{host}\x1b[31m?#%/\xc3\xa4";
    const std::string url = url_text(Protocol::sftp, user, "h", path);
    EXPECT_EQ("sftp://j%40d%3A%2F%25@h//%7Bhost%7D%1B[31m%3F%23%25/\xc3\xa4", url);
    EXPECT_EQ("j@d:/%", parse_endpoint("sftp://j%40d%3A%2F%25@h/a").url.user);
    EXPECT_EQ("/{host}?#%", name_in("sftp://u@h//%7Bhost%7D%3F%23%25"));
    EXPECT_EQ("sftp://u@[2001:db8::1]//a", url_text(Protocol::sftp, "u", "2001:db8::1", "/a"));
}

// No server has such a name, but the URL must still show it as it was given.
TEST(Endpoint, ATextOfAnOddHostIsReadAsThatHost) {
    for (const std::string host : {"[x", "x]", "a:]b", "a:/b", "a:\x1b[31m", "fe80::1%eth0"}) {
        EXPECT_EQ(host, parse_endpoint(url_text(Protocol::tftp, "", host, "a")).url.host);
    }
}

TEST(Endpoint, AFolderIsNoFileHoweverItIsWritten) {
    EXPECT_EQ("no file name in \"tftp://h/a/\": write tftp://host/path", refusal("tftp://h/a/"));
    EXPECT_EQ("the file name \"a/\" does not name a file: write something after the last '/'",
              refusal("tftp://h/a%2F"));
}

TEST(Endpoint, WhichUrlsNeedAPassword) {
    const auto url = [](const char *text) { return parse_endpoint(text).url; };
    EXPECT_TRUE(needs_password(url("sftp://u@h/a")));
    EXPECT_TRUE(needs_password(url("ftp://u@h/a")));
    EXPECT_FALSE(takes_password(url("ftp://AnonymousX@h/a")));
    EXPECT_FALSE(takes_password(url("tftp://h/a")));
    EXPECT_FALSE(needs_password(url("scp://u@h/a")));
    EXPECT_TRUE(takes_password(url("scp://u@h/a")));
}

} // namespace
} // namespace config_copy
