// Hosts files: agents, groups, and their options as the Net-SNMP library reads them.
#include "config-copy/command_line/hosts_file.h"

#include "config-copy/command_line/options.h"
#include "config-copy/command_line/text_file.h"
#include "tests/unit/config-copy/support.h"
#include "tests/unit/scratch.h"

#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <fstream>

namespace config_copy {
namespace {

using Texts = std::vector<std::string>;

std::string refusal(const std::string &text) {
    return usage_failure([&] { hosts_in(text, "F"); });
}

// Each agent with its group and options.
Texts agents_in(const std::string &text) {
    Texts agents;
    for (const ListedAgent &agent : hosts_in(text, "F").agents) {
        std::string &line = agents.emplace_back(agent.group + '/' + agent.name);
        for (const std::string &word : agent.options->words()) {
            line += ' ' + word;
        }
    }
    return agents;
}

TEST(Words, AsAShellSplitsThem) {
    EXPECT_EQ((Texts{"a", "b c", "d\"e", "f g"}), words_of(" a\t'b c' \"d\\\"e\" f\\ g\r"));
    EXPECT_EQ((Texts{"a$HOME", "`b`", "*", "~"}), words_of("\"a$HOME\" \"`b`\" * ~"));
    EXPECT_EQ((Texts{"a\\b", "", "c'd"}), words_of("\"a\\b\" '' \"c'\"d # comment"));
    EXPECT_EQ((Texts{"a#b"}), words_of("a#b #c"));
    EXPECT_EQ((Texts{"#a"}), words_of("'#a'"));
    EXPECT_EQ(Texts{}, words_of(" # 'not closed"));
    EXPECT_EQ("a ' is not closed", usage_failure([] { words_of("a 'b"); }));
    EXPECT_EQ("a \" is not closed", usage_failure([] { words_of("a \"b\\\""); }));
    EXPECT_EQ("nothing follows a '\\'", usage_failure([] { words_of("a\\"); }));
    for (const char *control : {"a\x1b[31m", "\\\x1b", "'\x7f'", "\"a\tb\""}) {
        EXPECT_EQ("there is a control character", usage_failure([&] { words_of(control); }));
    }
}

TEST(HostsFile, AgentsOnly) {
    EXPECT_EQ((Texts{"/switch1", "/udp6:[::1]:161", "/[::1]:161"}),
              agents_in("# all\n switch1 # the first\r\n\n\tudp6:[::1]:161\n[::1]:161"));
    EXPECT_EQ("F lists no agent: write one per line", refusal("#\n"));
    EXPECT_EQ("F lists no agent: write one per line", refusal("[core]\n"));
}

TEST(HostsFile, OptionsOfAgentsAndGroups) {
    EXPECT_EQ((Texts{"/switch7 -A pass phrase -a SHA-256 -l authPriv -u backup -v 3",
                     "core/a -c secret -v 2c", "core/b -c other -t 5 -v 2c", "edge/c"}),
              agents_in("switch7 -v 3 -u backup -l authPriv -a SHA-256 -A \"pass phrase\"\n"
                        "[core] -v 2c -c secret\n"
                        "a\n"
                        "b -cother -t5 # slow\n"
                        "[edge]\n"
                        "c\n"));
}

TEST(HostsFile, EqualWordsShareTheirOptions) {
    const HostsFile file = hosts_in("[x] -v1\na -t1\nb -t1\nc\n[y]\nd -t1\n", "F");
    EXPECT_EQ(file.agents[0].options, file.agents[1].options);
    EXPECT_NE(file.agents[0].options, file.agents[2].options);
    EXPECT_EQ((Texts{"-t", "1"}), file.agents[3].options->words());
}

TEST(HostsFile, MistakesAreToldWithTheirLine) {
    EXPECT_EQ("in F, line 2: a is followed by a word that is not an option: write one agent per "
              "line",
              refusal("#\na b\n"));
    const std::string only = " can't stand here: only -v -c -u -l -a -A -x -X -e -E -n -t -r -Z -T "
                             "of snmpcmd(1) can, each apart from the others";
    EXPECT_EQ("in F, line 1: -q" + only, refusal("a -q"));
    EXPECT_EQ("in F, line 1: -3" + only, refusal("a -3m 0x00"));
    EXPECT_EQ("in F, line 1: a long option" + only, refusal("a --defAuthPassphrase=hidden-word"));
    EXPECT_EQ("in F, line 1: -v needs a value", refusal("a -v"));
    EXPECT_EQ("in F, line 1: -v needs the version of SNMP: 1, 2c or 3", refusal("a -v 4"));
    EXPECT_EQ("in F, line 1: a ' is not closed", refusal("a -A 'b"));
    EXPECT_EQ("in F, line 1: a line begins with the agent or with [GROUP]; options follow",
              refusal("-v2c a"));
    EXPECT_EQ("in F, line 1: an agent's name contains no blank and no '#'", refusal("a#b"));
    const std::string group =
        "a group is written [NAME], of letters, digits, dots, hyphens and underscores";
    for (const char *header : {"[core", "[]", "[.x]", "[a/b]", "[core]-v1", "'[my group]'"}) {
        EXPECT_EQ("in F, line 1: " + group, refusal(header)) << header;
    }
    EXPECT_EQ("in F, line 3: the group x begins a second time", refusal("[x]\na\n[x]\nb\n"));
}

TEST(HostsFile, NoMistakeShowsASecret) {
    for (const char *line :
         {"a -A hidden", "a -a hidden", "a -x hidden", "a -l hidden", "a -A hi hidden",
          "a -c hidden word", "a -c my hidden", "a -A 'hidden", "[g] -X hidden", "a -v hidden",
          "a -e hidden", "a -t hidden", "a -r hidden", "a -Z hidden", "a -T hidden", "a -hidden"}) {
        EXPECT_EQ(std::string::npos, refusal(line).find("hidden")) << line;
    }
}

TEST(HostsFile, AHundredThousandLines) {
    std::string text = "[core] -v 3 -u backup -l authPriv -a SHA-256 -A \"pass phrase\"\n";
    for (int i = 0; i < 100'000; ++i) {
        text += "switch" + std::to_string(i) + (i % 2 == 0 ? "\n" : " -t 5 -n 'a context'\n");
    }
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(100'000U, hosts_in(text, "F").agents.size());
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    RecordProperty("seconds", std::to_string(took.count()));
    EXPECT_LT(took.count(), 10) << "with a sanitizer on a busy machine";
}

// As the command line chooses it, with the library's view of the options.
class Hosts : public testing::Test {
  protected:
    Hosts() {
        ::setenv("SNMPCONFPATH", scratch_.root().c_str(), 1);
        ::setenv("SNMP_PERSISTENT_DIR", scratch_.root().c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", scratch_.root().c_str(), 1);
    }

    void write(const std::string &text, mode_t mode = 0600) {
        std::ofstream(file_) << text;
        ASSERT_EQ(0, ::chmod(file_.c_str(), mode));
    }

    std::vector<Agent> agents(std::vector<std::string> words = {},
                              const std::string &to = "tftp://h/{host}") {
        words.insert(words.begin(), "config-copy");
        words.insert(words.end(), {"--hosts", file_, "running", to});
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        return parse_options(static_cast<int>(words.size()), pointers.data())->agents;
    }

    std::string refused(const std::vector<std::string> &words = {},
                        const std::string &to = "tftp://h/{host}") {
        return usage_failure([&] { agents(words, to); });
    }

    static Texts names(const std::vector<Agent> &agents) {
        Texts names;
        for (const Agent &agent : agents) {
            names.push_back(agent.name);
        }
        return names;
    }

    static std::string community(const Agent &agent) {
        return {reinterpret_cast<const char *>(agent.settings->community),
                agent.settings->community_len};
    }

    Scratch scratch_;
    std::string file_ = scratch_.root() / "hosts";
};

TEST_F(Hosts, TheNearestOptionCounts) {
    write("a\n[core] -c group -r 7\nb\nc -c own\n");
    const auto found = agents({"-v2c", "-c", "line", "-r", "3"});
    ASSERT_EQ(3U, found.size());
    EXPECT_EQ("line", community(found[0]));
    EXPECT_EQ(3, found[0].settings->retries);
    EXPECT_EQ("group", community(found[1]));
    EXPECT_EQ("own", community(found[2]));
    EXPECT_EQ(7, found[2].settings->retries);
    EXPECT_EQ(SNMP_VERSION_2c, found[2].settings->version);
    EXPECT_EQ("", found[0].group);
    EXPECT_EQ("core", found[2].group);
}

TEST_F(Hosts, VersionsSideBySide) {
    write("a -v 2c -c one\nb -v 3 -u operator -l authPriv -a SHA-256 -A 'a pass phrase' -x AES "
          "-X 'another one' -n vrf1 -e 8000000001\nc -v 1 -c three -t 0.5\n"
          "d -v3 -uoperator -lauthPriv -aSHA-256 '-Aa pass phrase' -x AES -X 'another one' "
          "-n vrf1 -e 8000000001\ne -v 3 -u other\n");
    const auto found = agents();
    ASSERT_EQ(5U, found.size());
    EXPECT_EQ("one", community(found[0]));
    EXPECT_EQ("three", community(found[2]));
    EXPECT_EQ(SNMP_VERSION_1, found[2].settings->version);
    EXPECT_EQ(500'000, found[2].settings->timeout);
    const netsnmp_session &session = *found[1].settings;
    EXPECT_EQ(SNMP_VERSION_3, session.version);
    EXPECT_EQ("operator", copy_client::security_name(session));
    EXPECT_EQ(SNMP_SEC_LEVEL_AUTHPRIV, copy_client::security_level(session));
    EXPECT_EQ(32U, session.securityAuthKeyLen);
    EXPECT_EQ(32U, session.securityPrivKeyLen);
    EXPECT_EQ("vrf1", std::string(session.contextName, session.contextNameLen));
    EXPECT_EQ(5U, session.securityEngineIDLen);
    EXPECT_EQ(found[1].settings, found[3].settings) << "equal options, made once";
    EXPECT_EQ("other", copy_client::security_name(*found[4].settings));
}

// The keys are those that the library itself would make.
TEST_F(Hosts, KeysOfDefaultProtocols) {
    write("a -v 3 -u u -l authPriv -A 'a pass phrase' -X 'another one'\n"
          "b -v 3 -u u -l authPriv -A 'a pass phrase' -X 'another one' -a MD5 -x DES\n");
    const auto found = agents();
    const netsnmp_session &own = *found[0].settings;
    const netsnmp_session &named = *found[1].settings;
    EXPECT_EQ(0, ::snmp_oid_compare(own.securityAuthProto, own.securityAuthProtoLen,
                                    named.securityAuthProto, named.securityAuthProtoLen));
    EXPECT_EQ(0, ::snmp_oid_compare(own.securityPrivProto, own.securityPrivProtoLen,
                                    named.securityPrivProto, named.securityPrivProtoLen));
    std::array<u_char, USM_AUTH_KU_LEN> key{};
    std::size_t length = key.size();
    const std::string passphrase = "a pass phrase";
    ASSERT_EQ(SNMPERR_SUCCESS,
              ::generate_Ku(named.securityAuthProto, static_cast<u_int>(named.securityAuthProtoLen),
                            reinterpret_cast<const u_char *>(passphrase.data()), passphrase.size(),
                            key.data(), &length));
    ASSERT_EQ(length, own.securityAuthKeyLen);
    EXPECT_TRUE(std::equal(key.begin(), key.begin() + length, own.securityAuthKey));
}

TEST_F(Hosts, PassphrasesThatManyShareAreCheap) {
    std::string text;
    for (int i = 0; i < 1000; ++i) {
        text += "a" + std::to_string(i) +
                " -v 3 -u u -l authPriv -a SHA-256 -A 'a pass phrase' "
                "-x AES -X 'another one' -n context" +
                std::to_string(i) + '\n';
    }
    write(text);
    const auto began = std::chrono::steady_clock::now();
    EXPECT_EQ(1000U, agents().size());
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
    EXPECT_LT(took.count(), 2) << "deriving a thousand pairs of keys takes longer";
}

TEST_F(Hosts, SomethingIsMissing) {
    write("a -v 2c -c one\nb\n");
    EXPECT_EQ("in the hosts file " + file_ +
                  ", line 2: b: no SNMPv3 user: give -u USER, or defSecurityName in snmp.conf",
              refused());
    EXPECT_EQ("in the hosts file " + file_ +
                  ", line 2: b: no community: give -c COMMUNITY, or defCommunity in snmp.conf",
              refused({"-v1"}));
    EXPECT_EQ("the hosts file /nonexistent can't be read: No such file or directory",
              usage_failure([] { read_hosts("/nonexistent", {}, {}); }));
    EXPECT_EQ("the hosts file / can't be read: Is a directory",
              usage_failure([] { read_hosts("/", {}, {}); }));
}

TEST_F(Hosts, ChosenGroups) {
    write("a\n[core]\nb\n[edge]\nc\n[empty]\n");
    const Texts defaults{"-v1", "-clab"};
    const auto chosen = [&](std::initializer_list<const char *> groups) {
        Texts words = defaults;
        for (const char *group : groups) {
            words.insert(words.end(), {"--group", group});
        }
        return words;
    };
    EXPECT_EQ((Texts{"a", "b", "c"}), names(agents(chosen({}))));
    EXPECT_EQ((Texts{"c"}), names(agents(chosen({"edge"}))));
    EXPECT_EQ((Texts{"b", "c"}), names(agents(chosen({"edge", "core"}))));
    EXPECT_EQ("there is no group \"cor\" in the hosts file " + file_ +
                  ": there are core, edge, empty",
              refused(chosen({"core", "cor"})));
    EXPECT_EQ("the chosen groups of the hosts file " + file_ + " list no agent",
              refused(chosen({"empty"})));
    write("a\n");
    EXPECT_EQ("there is no group \"core\" in the hosts file " + file_ + ", which has no groups",
              refused(chosen({"core"})));
}

TEST_F(Hosts, AFileOfEachAgent) {
    const Texts defaults{"-v1", "-clab"};
    write("a\nb\n");
    EXPECT_EQ("every agent would write the same file: put {host} or {name} into the path",
              refused(defaults, "tftp://h/{date}"));
    EXPECT_EQ(2U, agents(defaults, "tftp://h/{name}").size());
    EXPECT_EQ("a is in no group of the hosts file " + file_ + ", so {group} can't be filled in",
              refused(defaults, "tftp://h/{group}/{host}"));
    write("[x]\na\n[y]\na\n");
    EXPECT_EQ("a is listed twice in the hosts file " + file_ +
                  ", or looks like another agent there in a file's name",
              refused(defaults));
    EXPECT_EQ(1U, agents({"-v1", "-clab", "--group=x"}).size());
}

TEST_F(Hosts, SecretsAreForTheOwnerOnly) {
    for (const char *line : {"a -v1 -c lab", "a -u u -l noAuthNoPriv -A passphrase",
                             "a -u u -a SHA -X passphrase", "[g] -v1 -c lab\na"}) {
        for (const mode_t mode : {0640U, 0604U}) {
            write(std::string("#\n") + line + '\n', mode);
            EXPECT_EQ("in the hosts file " + file_ +
                          ", line 2: others may read the passphrases and communities in the file: "
                          "chmod 600 it",
                      refused());
        }
        write(line, 0600);
        EXPECT_EQ(1U, agents().size());
    }
    write("a -v3 -u operator -l noAuthNoPriv\n", 0644);
    EXPECT_EQ(1U, agents().size());
}

} // namespace
} // namespace config_copy
