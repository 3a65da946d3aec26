// Configuration files: what they say, and how the command line takes it.
#include "config-copy/command_line/profiles.h"

#include "config-copy/command_line/options.h"
#include "tests/unit/config-copy/support.h"
#include "tests/unit/scratch.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

namespace config_copy {
namespace {

using Texts = std::vector<std::string>;

class ProfileFiles : public testing::Test {
  protected:
    ProfileFiles() {
        ::setenv("SNMPCONFPATH", scratch_.root().c_str(), 1);
        ::setenv("SNMP_PERSISTENT_DIR", scratch_.root().c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", scratch_.root().c_str(), 1);
    }
    ~ProfileFiles() override { ::unsetenv("XDG_CONFIG_HOME"); }

    static void write(const std::string &file, const std::string &text, mode_t mode = 0600) {
        std::ofstream(file) << text;
        ASSERT_EQ(0, ::chmod(file.c_str(), mode));
    }

    // As KEY=VALUE…, of these files.
    Texts settings(const std::string &profile, const Texts &files) {
        Texts found;
        for (const Setting &setting : Profiles(files).settings(profile)) {
            std::string &text = found.emplace_back(setting.key + '=');
            for (const std::string &value : setting.values) {
                text += value + ';';
            }
            for (const std::string &word : setting.session.words()) {
                text += word + ' ';
            }
        }
        return found;
    }

    std::string refusal(const std::string &text) {
        write(user_, text);
        return usage_failure([&] { Profiles({user_}); });
    }

    // The command line with the user's file.
    Options parse(std::vector<std::string> words) {
        words.insert(words.begin(), "config-copy");
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        return *parse_options(static_cast<int>(words.size()), pointers.data());
    }

    std::string refused(std::vector<std::string> words) {
        return usage_failure([&] { parse(std::move(words)); });
    }

    Scratch scratch_;
    std::string system_ = scratch_.root() / "system.conf";
    std::string user_ = scratch_.root() / "config-copy.conf";
};

TEST_F(ProfileFiles, TheUsersCounts) {
    write(system_, "# for all\n[defaults]\ntime-limit = 60\nsnmp = -v 2c -c lab\n"
                   "[nightly]\nfrom = running\ngroup = a b\njson = yes\n");
    write(user_, "[defaults]\njson = no\nsnmp = -r 9\n[nightly]\n  group=c # only\n\tto= "
                 "\"tftp://h/a b\"\r\n"
                 "snmp = -c 'an other'\n[weekly]\n");
    EXPECT_EQ((Texts{"json=no;", "snmp=-c lab -r 9 -v 2c ", "time-limit=60;"}),
              settings("", {system_, user_}));
    EXPECT_EQ((Texts{"from=running;", "group=c;", "json=yes;", "snmp=-c an other -r 9 -v 2c ",
                     "time-limit=60;", "to=tftp://h/a b;"}),
              settings("nightly", {system_, user_}));
    EXPECT_EQ(
        (Texts{"from=running;", "group=a;b;", "json=yes;", "snmp=-c lab -v 2c ", "time-limit=60;"}),
        settings("nightly", {system_, "/nonexistent"}));
    EXPECT_EQ(Texts{}, settings("", {"/nonexistent"}));
    EXPECT_EQ((Texts{"nightly", "weekly"}), Profiles({system_, user_}).names());
    EXPECT_EQ("there is no profile @daily in " + system_ + ", " + user_ +
                  ": there are @nightly, @weekly",
              usage_failure([&] {
                  settings("daily", {system_, user_});
              }));
    EXPECT_EQ("there is no profile @daily in /nonexistent",
              usage_failure([&] { settings("daily", {"/nonexistent"}); }));
    EXPECT_EQ("there is no profile @defaults in /nonexistent",
              usage_failure([&] { settings("defaults", {"/nonexistent"}); }));
}

TEST_F(ProfileFiles, MistakesAreToldWithTheirLine) {
    const std::string line2 = "in " + user_ + ", line 2: ";
    EXPECT_EQ(line2 + "there is no setting \"job\": did you mean jobs?", refusal("[x]\njob = 1\n"));
    EXPECT_EQ(line2 + "there is no setting \"help\": there are from, snmp, hosts, group, to, jobs, "
                      "retries, retry-pause, failed-hosts, metrics, outcomes, on-done, "
                      "password-file, wait-turn, "
                      "time-limit, replace, save, confirm, "
                      "local-address, dry-run, quiet, verbose, json",
              refusal("[x]\nhelp = yes\n"));
    for (const std::string key : {"from", "to", "hosts", "group"}) {
        EXPECT_EQ(line2 + key + " belongs into a profile, not into [defaults]",
                  refusal("[defaults]\n" + key + " = a\n"));
    }
    EXPECT_EQ(line2 + "jobs takes one value: quote it if it contains blanks",
              refusal("[x]\njobs = 1 2\n"));
    EXPECT_EQ(line2 + "jobs needs a value", refusal("[x]\njobs = # none\n"));
    EXPECT_EQ(line2 + "a line is [SECTION] or KEY = VALUE", refusal("[x]\njobs 5\n"));
    EXPECT_EQ(line2 + "the section [x] begins a second time", refusal("[x]\n[x]\n"));
    EXPECT_EQ("in " + user_ + ", line 3: the section [x] has jobs twice",
              refusal("[x]\njobs = 1\njobs = 2\n"));
    EXPECT_EQ("in " + user_ + ", line 1: a setting stands below the [SECTION] that it belongs to",
              refusal("jobs = 1\n"));
    for (const char *header : {"[]", "[", "[a b]", "[.a]", "[a] b"}) {
        EXPECT_EQ("in " + user_ +
                      ", line 1: a section is written [NAME], of letters, digits, "
                      "dots, hyphens and underscores",
                  refusal(header))
            << header;
    }
    EXPECT_EQ(line2 + "-A needs a passphrase of at least 8 characters",
              refusal("[x]\nsnmp = -A hidden\n"));
    EXPECT_EQ(std::string::npos, refusal("[x]\nsnmp = -c my hidden\n").find("hidden"));
    EXPECT_EQ(scratch_.root().string() + " can't be read: Is a directory",
              usage_failure([&] { Profiles({scratch_.root().string()}); }));
}

TEST_F(ProfileFiles, SecretsAreForTheOwnerOnly) {
    for (const mode_t mode : {0640U, 0604U}) {
        write(user_, "[x]\nsnmp = -c lab\n", mode);
        EXPECT_EQ("in " + user_ +
                      ", line 2: others may read the passphrases and communities in "
                      "the file: chmod 600 it",
                  usage_failure([&] { Profiles({user_}); }));
    }
    write(user_, "[x]\nsnmp = -u operator\n", 0644);
    EXPECT_EQ((Texts{"x"}), Profiles({user_}).names());
}

TEST_F(ProfileFiles, WhereTheyAre) {
    EXPECT_EQ((Texts{"/etc/config-copy/config-copy.conf", user_}), configuration_files());
    ::setenv("XDG_CONFIG_HOME", "relative", 1);
    ::setenv("HOME", "/home/me", 1);
    EXPECT_EQ((Texts{"/etc/config-copy/config-copy.conf", "/home/me/.config/config-copy.conf"}),
              configuration_files());
    Setting setting;
    setting.file = "/etc/config-copy/config-copy.conf";
    EXPECT_EQ("/etc/config-copy/switches", file_in(setting, "switches"));
    EXPECT_EQ("/home/me/switches", file_in(setting, "~/switches"));
    EXPECT_EQ("/a/b", file_in(setting, "/a/b"));
    EXPECT_EQ("-", file_in(setting, "-"));
}

TEST_F(ProfileFiles, AProfileRuns) {
    write(scratch_.root() / "switches", "a\n[core]\nb\nc\n");
    write(user_, "[defaults]\nsnmp = -v 2c -c lab -r 7\njobs = 3\nquiet = yes\n"
                 "[nightly]\nhosts = switches\nfrom = running\nto = tftp://h/{host}\n"
                 "wait-turn = 9\ngroup = core\njobs = 4\nquiet = no\njson = yes\n");
    const Options nightly = parse({"@nightly"});
    ASSERT_EQ(2U, nightly.agents.size());
    EXPECT_EQ("core", nightly.agents[0].group);
    EXPECT_EQ(7, nightly.agents[0].settings->retries);
    EXPECT_EQ(FileType::running, nightly.from.type);
    EXPECT_EQ("{host}", nightly.to.url.path);
    EXPECT_EQ(std::chrono::seconds(9), nightly.wait_turn);
    EXPECT_EQ(4, nightly.jobs);
    EXPECT_FALSE(nightly.is_quiet);
    EXPECT_TRUE(nightly.is_json);

    const Options changed = parse({"@nightly", "startup", "tftp://h/{host}.cfg", "--jobs", "5",
                                   "-r1", "--group=core", "--time-limit", "8"});
    EXPECT_EQ(FileType::startup, changed.from.type);
    EXPECT_EQ("{host}.cfg", changed.to.url.path);
    EXPECT_EQ(5, changed.jobs);
    EXPECT_EQ(1, changed.agents[0].settings->retries);
    EXPECT_EQ(2U, changed.agents.size()) << "one group, although the profile names it as well";

    const Options plain = parse({"agent", "running", "startup"});
    EXPECT_EQ(3, plain.jobs);
    EXPECT_TRUE(plain.is_quiet);
    const Options list = parse({"@nightly", "list", "agent"});
    EXPECT_EQ(Command::list, list.command);
    EXPECT_EQ("agent", list.agents[0].name);
}

TEST_F(ProfileFiles, AProfileWithoutHosts) {
    write(user_, "[nightly]\nsnmp = -v1 -c lab\nfrom = running\nto = backup/{host}.cfg\n"
                 "[half]\nsnmp = -v1 -c lab\nfrom = running\n[empty]\nsnmp = -v1 -c lab\n");
    const Options nightly = parse({"@nightly", "agent"});
    EXPECT_EQ("agent", nightly.agents[0].name);
    EXPECT_EQ(scratch_.root() / "backup/{host}.cfg", nightly.to.local);
    EXPECT_EQ("behind the profile @nightly name the AGENT, and FROM and TO only in place of the "
              "profile's",
              refused({"@nightly"}));
    EXPECT_EQ("the profile @half has no `to`: add it, or name FROM and TO",
              refused({"@half", "agent"}));
    EXPECT_EQ("the profile @empty has no `from`: add it, or name FROM and TO",
              refused({"@empty", "agent"}));
    EXPECT_EQ("a.cfg", parse({"@empty", "agent", "running", "a.cfg"}).to.local);
    EXPECT_EQ("a profile is written @NAME", refused({"@", "agent"}));
    write(scratch_.root() / "switches", "a\n");
    EXPECT_EQ("agent is not in the hosts file " + (scratch_.root() / "switches").native(),
              refused({"@nightly", "--hosts", scratch_.root() / "switches", "agent"}));
}

TEST_F(ProfileFiles, SettingsThatDoNotApplyAreNoMistake) {
    write(user_, "[defaults]\nsnmp = -v1 -c lab\nsave = yes\nreplace = yes\nverbose = yes\n"
                 "local-address = 192.0.2.1\nfailed-hosts = f\n");
    ::testing::internal::CaptureStderr();
    const Options backup = parse({"agent", "running", "tftp://h/a"});
    const std::string line = "config-copy: in " + user_ + ", line ";
    EXPECT_EQ(line +
                  "7: failed-hosts does not apply here: it is for copies on the agents of a "
                  "hosts file\n" +
                  line +
                  "6: local-address does not apply here: it is for copies from or to a file "
                  "of this machine\n" +
                  line +
                  "4: replace does not apply here: it is for copies of a file of this "
                  "machine to running\n" +
                  line + "3: save does not apply here: it is for copies to running\n",
              ::testing::internal::GetCapturedStderr());
    EXPECT_EQ(Keeping::no, backup.keeping);
    EXPECT_FALSE(backup.is_replacement || backup.local_address || backup.failed_hosts);

    const Options restore = parse({"--no-verbose", "agent", "a.cfg", "running"});
    EXPECT_EQ(Keeping::save, restore.keeping);
    EXPECT_TRUE(restore.is_replacement);
    EXPECT_EQ("192.0.2.1", restore.local_address);
    EXPECT_FALSE(restore.is_verbose);
    EXPECT_FALSE(
        parse({"--no-replace", "-q", "--no-verbose", "agent", "a.cfg", "running"}).is_replacement);
    EXPECT_EQ(Command::list, parse({"list", "agent"}).command);
    EXPECT_EQ("--save and --confirm are for copies to running",
              refused({"--save", "agent", "running", "startup"}));
}

TEST_F(ProfileFiles, WhatTheCommandLineTakesBack) {
    const std::string before = "[x]\nsnmp = -v1 -c lab\n";
    const auto keeping = [&](const std::string &settings, std::vector<std::string> words) {
        write(user_, before + settings);
        words.insert(words.begin(), "@x");
        words.insert(words.end(), {"agent", "a.cfg", "running"});
        return parse(words).keeping;
    };
    EXPECT_EQ(Keeping::no, keeping("save = yes\n", {"--no-save"}));
    EXPECT_EQ(Keeping::no, keeping("confirm = yes\n", {"--no-save"}));
    EXPECT_EQ(Keeping::no, keeping("save = yes\nconfirm = yes\n", {"--no-save"}));
    EXPECT_EQ(Keeping::save, keeping("save = yes\nconfirm = yes\n", {"--no-confirm"}));
    EXPECT_EQ(Keeping::save, keeping("confirm = yes\n", {"--no-confirm", "--save"}));
    EXPECT_EQ("--no-save contradicts --save",
              refused({"--save", "--no-save", "agent", "a.cfg", "running"}));
    EXPECT_EQ("--no-save contradicts --confirm",
              refused({"--no-save", "--confirm", "agent", "a.cfg", "running"}));
    EXPECT_EQ("--no-save takes no value", refused({"--no-save=yes", "agent", "a.cfg", "running"}));
    for (const std::string option : {"--no-jobs", "--no-help", "--no-nothing"}) {
        const std::string said = refused({option, "agent", "a.cfg", "running"});
        EXPECT_TRUE(said.starts_with("there is no option " + option)) << said;
    }
}

TEST_F(ProfileFiles, OneAgentOfTheHostsFile) {
    write(scratch_.root() / "switches", "a\n[core] -r 9\nb\nc -r 8\n");
    write(user_, "[defaults]\nsnmp = -v 2c -c lab -r 7\n[nightly]\nhosts = switches\n"
                 "failed-hosts = failed\nfrom = running\nto = ./{host}\n"
                 "[core]\nhosts = switches\ngroup = core\n");
    const Options restore = parse({"@nightly", "--replace", "b", "-", "running"});
    ASSERT_EQ(1U, restore.agents.size());
    EXPECT_EQ("b", restore.agents[0].name);
    EXPECT_EQ("core", restore.agents[0].group);
    EXPECT_EQ(9, restore.agents[0].settings->retries);
    EXPECT_EQ(FileType::running, restore.to.type);
    EXPECT_FALSE(restore.hosts_file || restore.failed_hosts) << "as if there were none";
    EXPECT_EQ(8, parse({"@nightly", "c"}).agents[0].settings->retries);
    EXPECT_EQ(7,
              parse({"@nightly", "diff", "a", "running", "startup"}).agents[0].settings->retries);
    EXPECT_EQ("{group}", parse({"@core", "c", "running", "tftp://h/{group}"}).to.url.path);
    EXPECT_EQ(9, parse({"@core", "list", "b"}).agents[0].settings->retries);
    EXPECT_EQ(7, parse({"@core", "list", "other"}).agents[0].settings->retries);
    const std::string where = "the hosts file " + (scratch_.root() / "switches").native();
    EXPECT_EQ("a is not in the chosen groups of " + where,
              refused({"@core", "a", "running", "./a.cfg"}));
    EXPECT_EQ("only the agents of a hosts file have groups: give --hosts FILE",
              refused({"@nightly", "a", "running", "./{group}"}));
    EXPECT_EQ("with --hosts, name FROM and TO, or before them one AGENT of the file",
              refused({"--hosts", scratch_.root() / "switches", "a"}));
}

TEST_F(ProfileFiles, AnotherTo) {
    write(scratch_.root() / "switches", "a\n");
    write(user_,
          "[defaults]\nsnmp = -v1 -c lab\n[nightly]\nhosts = switches\nto = tftp://h/{host}\n"
          "[startups]\nhosts = switches\nfrom = startup\n"
          "[restore]\nhosts = switches\nfrom = a.cfg\n");
    const Options nightly = parse({"@nightly", "--to", "./{host}.cfg"});
    EXPECT_EQ(FileType::running, nightly.from.type);
    EXPECT_EQ("./{host}.cfg", nightly.to.local);
    EXPECT_EQ(FileType::startup, parse({"@startups", "--to", "./{host}.cfg"}).from.type);
    EXPECT_EQ(FileType::running, parse({"--to=a.cfg", "agent"}).from.type);
    EXPECT_EQ("a", parse({"@nightly", "--to", "./x", "a"}).agents.front().name);
    EXPECT_EQ("with --to name no FROM", refused({"@nightly", "--to", "./{host}", "a", "running"}));
    EXPECT_EQ("with --to name the AGENT, and no FROM",
              refused({"--to", "a.cfg", "agent", "running"}));
    EXPECT_EQ("FROM and TO are both files: one of them must be running or startup",
              refused({"@restore", "--to", "./{host}.cfg"}));
    write(user_, "[nightly]\nsnmp = -v1 -c lab\n");
    EXPECT_EQ("the profile @nightly has no `hosts`: add it, or name the AGENT",
              refused({"@nightly", "--to", "./{host}"}));
    EXPECT_EQ("--to is for copies only", refused({"--to", "a.cfg", "list", "agent"}));
    EXPECT_EQ("--to is for copies only", refused({"--to", "a.cfg", "diff", "agent"}));
}

TEST_F(ProfileFiles, BadValuesAreToldWithTheirLine) {
    const std::string line2 = "in " + user_ + ", line 2: ";
    const auto refusal_of = [&](const std::string &setting) {
        write(user_, "[x]\n" + setting + "\nto = startup\nsnmp = -v1 -c lab\n");
        return refused({"@x", "agent"});
    };
    EXPECT_EQ(line2 + "jobs needs a number from 1 to 1000, not \"0\"", refusal_of("jobs = 0"));
    EXPECT_EQ(line2 + "json needs yes or no", refusal_of("json = true"));
    EXPECT_EQ(line2 + "unknown scheme \"http\": use tftp, ftp, sftp or scp",
              refusal_of("from = http://h/a"));
}

} // namespace
} // namespace config_copy
