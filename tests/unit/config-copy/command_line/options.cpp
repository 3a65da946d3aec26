// The command line, and the addresses of agents and servers.
#include "config-copy/command_line/options.h"

#include "config-copy/agents/agent_address.h"
#include "config-copy/agents/name_lookup.h"
#include "config-copy/agents/server_address.h"
#include "tests/unit/config-copy/support.h"
#include "tests/unit/scratch.h"

#include <cstdlib>

namespace config_copy {
namespace {

constexpr std::chrono::seconds time_limit(10);

struct Split {
    Options options;
    std::vector<std::string> session;
    std::vector<std::string> library;
    std::vector<std::string> arguments;
    std::vector<std::string> left; // what other users see of the words
};

Split split(std::vector<std::string> words) {
    words.insert(words.begin(), "config-copy");
    std::vector<char *> pointers;
    for (std::string &word : words) {
        pointers.push_back(word.data());
    }
    Split result;
    const Words parts =
        split_words(static_cast<int>(pointers.size()), pointers.data(), result.options);
    result.session = parts.session.words();
    result.library.assign(parts.library.begin() + 1, parts.library.end());
    result.arguments = parts.arguments;
    result.left.assign(pointers.begin() + 1, pointers.end());
    return result;
}

using Texts = std::vector<std::string>;

TEST(Options, OursAndTheLibrarys) {
    const Split words = split({"-v", "2c", "--quiet", "-clab", "agent", "--jobs", "7", "running",
                               "--wait-turn=9", "startup", "-Y", "--json", "-n--quiet"});
    EXPECT_EQ((Texts{"-Y", "--json"}), words.library);
    EXPECT_EQ((Texts{"-c", "lab", "-n", "--quiet", "-v", "2c"}), words.session);
    EXPECT_EQ((Texts{"agent", "running", "startup"}), words.arguments);
    EXPECT_TRUE(words.options.is_quiet);
    EXPECT_FALSE(words.options.is_json);
    EXPECT_EQ(7, words.options.jobs);
    EXPECT_EQ(std::chrono::seconds(9), words.options.wait_turn);
}

TEST(Options, LettersInOneWord) {
    for (const Texts &words : {Texts{"-dv", "1", "agent"}, Texts{"-dv1", "agent"}}) {
        const Split parts = split(words);
        EXPECT_EQ(Texts{"-d"}, parts.library);
        EXPECT_EQ((Texts{"-v", "1"}), parts.session);
        EXPECT_EQ(Texts{"agent"}, parts.arguments);
    }
    EXPECT_EQ((Texts{"-Lf", "log"}), split({"-Lf", "log", "agent"}).library);
}

TEST(Options, SecretsAreBlanked) {
    const Split words =
        split({"-c", "community", "-Aauthentication", "-dX", "encryption", "-u", "operator"});
    EXPECT_EQ(
        (Texts{"-A", "authentication", "-X", "encryption", "-c", "community", "-u", "operator"}),
        words.session);
    EXPECT_EQ((Texts{"-c", "", "-A", "-d", "", "-u", "operator"}), words.left);
}

TEST(Options, LongOptionsOfTheLibraryStay) {
    EXPECT_EQ((Texts{"--defVersion=2c"}), split({"--defVersion=2c", "agent"}).library);
}

TEST(Options, AfterTwoHyphensAllAreArguments) {
    EXPECT_EQ((Texts{"--json", "-v"}), split({"--", "--json", "-v"}).arguments);
}

TEST(Options, RefusedValues) {
    EXPECT_EQ("--jobs needs a number from 1 to 1000, not \"0\"", usage_failure([] {
                  split({"--jobs", "0"});
              }));
    EXPECT_EQ("--wait-turn needs a number from 0 to 604800, not \"5s\"",
              usage_failure([] { split({"--wait-turn=5s"}); }));
    EXPECT_EQ("--time-limit needs a value (config-copy --help)",
              usage_failure([] { split({"--time-limit"}); }));
    EXPECT_EQ("a password in an argument can be seen by others: use --password-file, standard "
              "input or the prompt",
              usage_failure([] { split({"--password=secret"}); }));
}

TEST(Options, MisusedOptionsAreRefused) {
    EXPECT_EQ("--quiet takes no value", usage_failure([] { split({"--quiet=no"}); }));
    EXPECT_EQ("--hosts is given twice", usage_failure([] {
                  split({"--hosts", "a", "--hosts=b"});
              }));
    EXPECT_NO_THROW(split({"--json", "--json"}));
    EXPECT_EQ("in -d- a hyphen follows a letter: write a long option apart, with two hyphens",
              usage_failure([] { split({"-d-defVersion=1"}); }));
    EXPECT_EQ((Texts{"-X", "hyphen-ated"}), split({"-Xhyphen-ated"}).session);
}

// The whole command line, as the library reads it.
class CommandLine : public testing::Test {
  protected:
    CommandLine() {
        ::setenv("SNMPCONFPATH", scratch_.root().c_str(), 1);
        ::setenv("SNMP_PERSISTENT_DIR", scratch_.root().c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", scratch_.root().c_str(), 1);
    }

    static std::optional<Options> parse(std::vector<std::string> words) {
        words.insert(words.begin(), {"-v2c", "-clab"});
        return parse_without_session(std::move(words));
    }

    static std::optional<Options> parse_without_session(std::vector<std::string> words) {
        words.insert(words.begin(), "config-copy");
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        return parse_options(static_cast<int>(words.size()), pointers.data());
    }

    std::string refusal(const std::string &option) {
        return usage_failure([&] { parse({option, "agent", "running", "startup"}); });
    }

  private:
    Scratch scratch_;
};

TEST_F(CommandLine, LongOptionsAreOursOrTokensOfSnmpConf) {
    EXPECT_EQ("there is no option --foo (config-copy --help)", refusal("--foo"));
    EXPECT_EQ("there is no option --quiett: did you mean --quiet?", refusal("--quiett"));
    EXPECT_EQ("there is no option --Quiet: did you mean --quiet?", refusal("--Quiet"));
    EXPECT_EQ("there is no option --wait_turn: did you mean --wait-turn?",
              refusal("--wait_turn=60"));
    EXPECT_EQ("there is no option --defSecurityModle: did you mean --defSecurityModel?",
              refusal("--defSecurityModle=tsm"));
    EXPECT_EQ("there is no option --defAuthPass (config-copy --help)",
              refusal("--defAuthPass=secret"))
        << "no value is shown";
    EXPECT_EQ("there is no option -- (config-copy --help)", refusal("--=x"));
    EXPECT_EQ("there is no option --foo (config-copy --help)", refusal("--foo defVersion"));
    EXPECT_EQ("there is no option --foo (config-copy --help)", usage_failure([&] {
                  parse({"--foo", "1", "2", "3", "4"});
              }))
        << "rather than that there are too many arguments";
    for (const char *option : {"--defSecurityModel=tsm", "--DEFSECURITYMODEL=tsm",
                               "--defSecurityModel tsm", "--noRangeCheck"}) {
        const auto options = parse({option, "agent", "running", "startup"});
        ASSERT_TRUE(options) << option;
        ASSERT_EQ(1U, options->agents.size());
        EXPECT_EQ("agent", options->agents.front().name);
    }
    EXPECT_NO_THROW(parse({"-n", "--foo", "agent", "running", "startup"})) << "a value";
}

TEST(Options, TheLibrarysHaveTheirValues) {
    const auto refusal = [](const char *option, const char *value) {
        return usage_failure([&] { split({option, value}); });
    };
    EXPECT_EQ("-v needs the version of SNMP: 1, 2c or 3", refusal("-v", "agent"));
    EXPECT_EQ("-v needs the version of SNMP: 1, 2c or 3", refusal("-dv4", "agent"));
    EXPECT_EQ("-v needs a value (config-copy --help)", refusal("agent", "-v"));
    EXPECT_EQ("-a needs an authentication protocol, such as SHA-256", refusal("-a", "-A"));
    EXPECT_EQ("-x needs a privacy protocol, such as AES", refusal("-x", "-X"));
    EXPECT_EQ("-X needs a passphrase of at least 8 characters", refusal("-X", "agent"));
    EXPECT_EQ("-l needs the security level: noAuthNoPriv, authNoPriv or authPriv",
              refusal("-l", "high"));
    EXPECT_EQ("-t needs a time in seconds, at most 3600", refusal("-t", "0"));
    EXPECT_EQ("-t needs a time in seconds, at most 3600", refusal("-t", "1s"));
    EXPECT_EQ("-r needs a number of repetitions", refusal("-r", "-1"));
    EXPECT_EQ("-e needs an engine id: 10 to 64 hexadecimal digits", refusal("-e", "0x80"));
    EXPECT_EQ("-Z needs the engine's boots and time, separated by a comma", refusal("-Z", "7"));
    EXPECT_EQ("-T needs a transport's setting: NAME=VALUE", refusal("-T", "cert"));
    EXPECT_EQ("-c needs a value that is not empty", refusal("-c", ""));
    EXPECT_EQ((Texts{"-A", "12345678", "-a", "SHA", "-v", "2C", "-x", "aes"}),
              split({"-v", "2C", "-aSHA", "-x", "aes", "-A", "12345678"}).session);
    EXPECT_EQ(
        (Texts{"-E", "0x8000000001", "-T", "a=1", "-T", "b=2", "-Z", "1,2", "-t", "0.5"}),
        split({"-T", "b=1", "-T", "a=1", "-T", "b=2", "-Z1,2", "-t.5", "-t0.5", "-E0x8000000001"})
            .session);
}

TEST(Options, ShortNames) {
    EXPECT_TRUE(split({"-q"}).options.is_quiet);
    EXPECT_EQ(Command::help, split({"-h"}).options.command);
}

TEST_F(CommandLine, DryRun) {
    EXPECT_TRUE(parse({"--dry-run", "agent", "running", "startup"})->is_dry_run);
    EXPECT_EQ("--dry-run, --replace, --save and --confirm are for copies only", usage_failure([&] {
                  parse({"--dry-run", "abort", "agent", "7"});
              }));
}

TEST_F(CommandLine, Restore) {
    const auto options =
        parse({"--replace", "--save", "--local-address", "192.0.2.1", "agent", "a.cfg", "running"});
    EXPECT_TRUE(options->is_replacement);
    EXPECT_EQ(Keeping::save, options->keeping);
    EXPECT_EQ("192.0.2.1", options->local_address);
    EXPECT_EQ(Keeping::confirm,
              parse({"--confirm", "--save", "agent", "a.cfg", "running"})->keeping);
    EXPECT_EQ(Keeping::save, parse({"--save", "agent", "tftp://h/a", "running"})->keeping);
    const auto refused = [&](std::vector<std::string> words) {
        return usage_failure([&] { parse(std::move(words)); });
    };
    EXPECT_EQ("--save and --confirm are for copies to running",
              refused({"--save", "agent", "running", "startup"}));
    const std::string only_local =
        "--replace is for copies of a file of this machine to running; a file on a server "
        "replaces if its first line is \"configuration replace\"";
    EXPECT_EQ(only_local, refused({"--replace", "agent", "tftp://h/a", "running"}));
    EXPECT_EQ(only_local, refused({"--replace", "agent", "running", "a.cfg"}));
    const std::string address = "--local-address needs the IP address of this machine as the "
                                "switch sees it, and FROM or TO that is a file of this machine";
    EXPECT_EQ(address, refused({"--local-address", "here", "agent", "a.cfg", "running"}));
    EXPECT_EQ(address, refused({"--local-address", "::1", "agent", "running", "startup"}));
}

TEST_F(CommandLine, WhatComesAfterAllCopies) {
    const auto options = parse(
        {"--retries=2", "--metrics", "m", "--on-done", "/bin/true", "agent", "running", "startup"});
    EXPECT_EQ(2, options->retries.count);
    EXPECT_EQ(std::chrono::seconds(10), options->retries.pause);
    EXPECT_EQ(std::chrono::seconds(0),
              parse({"--retry-pause=0", "agent", "running", "startup"})->retries.pause);
    EXPECT_EQ("m", options->metrics);
    EXPECT_EQ("/bin/true", options->on_done);
    const auto refused = [&](std::vector<std::string> words) {
        return usage_failure([&] { parse(std::move(words)); });
    };
    EXPECT_EQ("--retries needs a number from 0 to 100, not \"-1\"",
              refused({"--retries", "-1", "agent", "running", "startup"}));
    EXPECT_EQ("--failed-hosts lists agents of a hosts file: give --hosts FILE",
              refused({"--failed-hosts", "f", "agent", "running", "startup"}));
    EXPECT_EQ("--on-done: /nowhere can't be run: No such file or directory",
              refused({"--on-done", "/nowhere", "agent", "running", "startup"}));
    for (const std::string option : {"--metrics", "--outcomes"}) {
        EXPECT_EQ("--failed-hosts, --metrics, --outcomes and --on-done are for copies only",
                  refused({option, "f", "diff", "agent", "running", "startup"}));
    }
}

TEST_F(CommandLine, Report) {
    for (const Texts &words : {Texts{"report", "-o", "pages", "folder", "-q"},
                               Texts{"--output=pages", "report", "folder"},
                               Texts{"-o", "pages", "--", "report", "folder"}}) {
        const auto options = parse_without_session(words);
        EXPECT_EQ(Command::report, options->command);
        EXPECT_EQ("folder", options->report_folder);
        EXPECT_EQ("pages", options->report_output);
    }
    const auto refused = [&](std::vector<std::string> words) {
        return usage_failure([&] { parse_without_session(std::move(words)); });
    };
    const std::string write = "write config-copy report FOLDER -o REPORT";
    EXPECT_EQ(write, refused({"report", "folder"}));
    EXPECT_EQ(write, refused({"report", "-o", "", "folder"}));
    EXPECT_EQ(write, refused({"report", "-o", "pages"}));
    EXPECT_EQ(write, refused({"report", "-o", "pages", ""}));
    EXPECT_EQ(write, refused({"report", "-o", "pages", "folder", "other"}));
    for (const Texts &words : {Texts{"--json"}, Texts{"-v", "2c"}, Texts{"-Y", "x"}}) {
        Texts all{"report", "-o", "pages", "folder"};
        all.insert(all.begin(), words.begin(), words.end());
        EXPECT_EQ("the options of report are --output and --quiet", refused(all));
    }
    EXPECT_EQ("--output is for config-copy report FOLDER",
              refused({"-o", "pages", "agent", "running", "startup"}));
}

TEST_F(CommandLine, Diff) {
    const auto options = parse({"diff", "agent", "running", "a.cfg"});
    EXPECT_EQ(Command::diff, options->command);
    EXPECT_EQ(FileType::running, options->from.type);
    EXPECT_EQ("a.cfg", options->to.local);
    EXPECT_EQ("name AGENT, A and B (config-copy --help)", usage_failure([&] {
                  parse({"diff", "running", "a.cfg"});
              }));
}

TEST_F(CommandLine, StandardOutputHoldsOneThing) {
    EXPECT_EQ("--json prints on standard output: name a file as TO", usage_failure([&] {
                  parse({"--json", "agent", "running", "-"});
              }));
}

TEST_F(CommandLine, StandardInputHoldsOneThing) {
    EXPECT_EQ(
        "standard input can't hold both the agents and the password: name a file for one of them",
        usage_failure([&] {
            parse({"--hosts", "-", "--password-file", "-", "running", "scp://u@h/{host}"});
        }));
}

TEST_F(CommandLine, GroupsAreThoseOfAHostsFile) {
    const std::string text = "only the agents of a hosts file have groups: give --hosts FILE";
    EXPECT_EQ(text, usage_failure([&] { parse({"--group=core", "agent", "running", "startup"}); }));
    EXPECT_EQ(text, usage_failure([&] { parse({"agent", "running", "tftp://h/{group}"}); }));
    EXPECT_EQ("write config-copy list AGENT", usage_failure([&] {
                  parse({"--group=core", "list", "agent"});
              }));
}

TEST(Options, TheHelpHasEachOption) {
    const std::string text = usage_text();
    for (const OwnOption &option : own_options()) {
        EXPECT_EQ(option.is_hidden(),
                  text.find("--" + std::string(option.name)) == std::string::npos)
            << option.name;
    }
    EXPECT_NE(
        std::string::npos,
        text.find("\n  --jobs N               on up to N agents at a time (default: 50)\n"
                  "  --retries N            try again up to N times, after the others, where the\n"
                  "                         cause may pass: not reachable, busy, timeout\n"
                  "  --retry-pause SECONDS  wait so long before each of these attempts (default:\n"
                  "                         10)\n"
                  "  --failed-hosts FILE    list the agents that failed in FILE, a hosts "
                  "file\n"
                  "  --metrics FILE         write the outcomes into FILE for Prometheus\n"
                  "  --outcomes FILE        append the outcomes to FILE, as JSON\n"
                  "  --on-done PROGRAM      run PROGRAM for each agent at the end, with the "
                  "outcome\n"
                  "                         in its environment\n"
                  "  --password-file FILE   the file server's password is the first line of "
                  "FILE,\n"
                  "                         of standard input for -; otherwise it is asked "
                  "for\n"));
    EXPECT_NE(std::string::npos, text.find("\n  -q, --quiet            print errors only\n"));
}

TEST(Options, JsonIsSeenDespiteMistakes) {
    const auto asks = [](std::vector<std::string> words) {
        words.insert(words.begin(), "config-copy");
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        return asks_for_json(static_cast<int>(words.size()), pointers.data());
    };
    EXPECT_TRUE(asks({"--foo", "--json"}));
    EXPECT_FALSE(asks({"--foo"}));
    EXPECT_FALSE(asks({"--", "--json"}));
    EXPECT_FALSE(asks({}));
}

TEST_F(CommandLine, ACommandComesBeforeTheAgent) {
    const std::string text = "the command comes before the agent: write config-copy list switch";
    EXPECT_EQ(text, usage_failure([&] { parse({"switch", "list"}); }));
}

TEST_F(CommandLine, AnAgentHasAName) {
    EXPECT_EQ("AGENT is empty: write the switch's name or address", usage_failure([&] {
                  parse({"", "running", "startup"});
              }));
    EXPECT_EQ("AGENT is empty: write the switch's name or address", usage_failure([&] {
                  parse({"list", ""});
              }));
}

TEST(Agent, AsTheUserWritesIt) {
    const auto parts = [](const char *text) {
        const AgentAddress agent = parse_agent(text);
        return Texts{agent.transport, agent.host, agent.port,
                     agent.is_understood ? "understood" : "not"};
    };
    EXPECT_EQ((Texts{"", "switch1", "", "understood"}), parts("switch1"));
    EXPECT_EQ((Texts{"", "switch1", "1161", "understood"}), parts("switch1:1161"));
    EXPECT_EQ((Texts{"tcp:", "192.0.2.1", "161", "understood"}), parts("tcp:192.0.2.1:161"));
    EXPECT_EQ((Texts{"udp6:", "2001:db8::1", "161", "understood"}),
              parts("udp6:[2001:db8::1]:161"));
    EXPECT_EQ((Texts{"udp6:", "2001:db8::1", "", "understood"}), parts("udp6:2001:db8::1"));
    EXPECT_EQ("not", parts("unix:/run/agent").back());
    EXPECT_EQ("not", parts("dtlsudp:switch1:10161").back());
    EXPECT_EQ("not", parts("udp6:[::1").back());
}

TEST(Agent, AddressForTheLibrary) {
    EXPECT_EQ("udp:192.0.2.1:161", reachable_address("192.0.2.1", time_limit));
    EXPECT_EQ("udp6:[2001:db8::1]:1161", reachable_address("[2001:db8::1]:1161", time_limit));
    EXPECT_EQ("unix:/run/agent", reachable_address("unix:/run/agent", time_limit));
    try {
        reachable_address("udp:name.invalid", time_limit);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Failure &failure) {
        EXPECT_EQ(ExitStatus::unreachable, failure.status());
    }
}

TEST(Server, Addresses) {
    EXPECT_EQ(INET_ADDRESS_IPV4, server_address("192.0.2.20", time_limit).type);
    EXPECT_EQ(std::string("\xC0\0\x02\x14", 4), server_address("192.0.2.20", time_limit).octets);
    EXPECT_EQ(INET_ADDRESS_IPV6, server_address("2001:db8::20", time_limit).type);
    EXPECT_EQ("2001:db8::20", address_text(server_address("2001:db8::20", time_limit).octets));
    EXPECT_EQ("?", address_text("123"));
}

TEST(Names, ANameThatIsNotFoundIsNotAUsageError) {
    const auto failure_text = [](int error) {
        return std::string(not_found("file server", "a", error).what());
    };
    EXPECT_EQ("the file server \"a\" can't be found: Name or service not known; check its name, or "
              "write its address",
              failure_text(EAI_NONAME));
    EXPECT_EQ("the file server \"a\" can't be found: Temporary failure in name resolution; try "
              "again later, or write its address",
              failure_text(EAI_AGAIN));
    try {
        server_address("name.invalid", time_limit);
        ADD_FAILURE() << "nothing was thrown";
    } catch (const Failure &failure) {
        EXPECT_EQ(ExitStatus::unreachable, failure.status());
    }
}

TEST(Server, AddressesThatLeadBack) {
    for (const char *host : {"127.0.0.1", "127.9.9.9", "0.0.0.0", "::1", "::"}) {
        EXPECT_NE(std::string::npos, usage_failure([&] {
                                         server_address(host, time_limit);
                                     }).find("which on the switch is the switch itself"))
            << host;
    }
}

} // namespace
} // namespace config_copy
