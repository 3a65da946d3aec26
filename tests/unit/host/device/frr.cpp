// FRR's programs in a form that a test decides: tests/system/frr tests the real ones.
#include "platform/host/device/backend.h"
#include "platform/host/device/configuration_text.h"
#include "platform/host/device/device.h"
#include "tests/unit/child.h"
#include "tests/unit/own_mounts.h"
#include "tests/unit/scratch.h"
#include "tests/unit/superuser.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>

namespace {

using ulmo::ConfigurationError;
using ulmo::ConfigurationStore;

// vtysh keeps the running configuration in a file: it takes lines that begin with "ip route",
// "router" or a blank, adds and removes them, ignores those of ospfd, and keeps a host name for
// itself. Without arguments it takes commands at a prompt. It logs its calls and its commands. A
// hook that answers a command itself ends with `set --`.
constexpr const char *vtysh = R"sh(#!/bin/sh
cd "$(dirname "$0")"
apply() {
    number=0
    while read -r line; do
        number=$((number + 1))
        case $line in
        *refused*)
            echo '% The reason'
            echo "line $number: Failure to communicate[13] to zebra, line: $line" >&2
            return 13 ;;
        hostname*) own=$line ;;
        no\ *)
            grep -vxF "${line#no }" running >other
            mv other running ;;
        *ospf* | frr* | XFRR* | '!'* | '#'* | end | '') ;;
        *) grep -qxF "$line" running || echo "$line" >>running ;;
        esac
    done
}
answer() {
echo "$*" >>calls
[ -e hook ] && . ./hook
case "$*" in
'show watchfrr') cat states ;;
'show running-config no-header')
    echo 'frr version 8.4.4'
    [ -z "$own" ] || echo "$own"
    cat running
    printf '!\nend\n' ;;
'write integrated')
    echo 'Building Configuration...'
    mv frr.conf frr.conf.sav
    { echo 'frr version 8.4.4'; cat running; echo '!'; } >frr.conf
    echo '[OK]' ;;
'-C -f /dev/stdin')
    awk '/^exit too/ { left = 1 }
        left && /^XFRR/ || !/^(no )?(ip  ?route|ro|end|exit|!|#| [^w]|$|log|hostname|frr|XFRR)/ {
        print "line " NR ": % Unknown command[4]: " $0; exit 2 }' >&2 ;;
'-f /dev/stdin') apply ;;
'copy '*' running-config') apply <"$2" ;;
esac
}
printf 'vtysh_pam: Failed in account validation: Authentication failure(7)' >&2
[ $# = 0 ] || { answer "$@"; exit; }
echo prompt >>calls
echo $$ >>talks
echo 'Hello, this is FRR.'
while printf 'frr# ' && read -r line; do
    echo "$line"
    case $line in '!'*) ;; *) answer $line ;; esac
done
)sh";

// frr-reload compares two files without regard to blocks.
constexpr const char *reload = R"sh(#!/bin/sh
cd "$(dirname "$0")"
[ -e reload-hook ] && . ./reload-hook
for file; do :; done
echo
echo 'Lines To Delete'
echo ===============
grep -vxFf "$file" running | sed 's/^/no /'
echo
echo 'Lines To Add'
echo ============
grep -v -e '^!' -e '^$' -e '^frr ' "$file" | grep -vxFf running
exit 0
)sh";

class FrrTest : public testing::Test {
  protected:
    FrrTest() { fill(); }

    // FRR's programs and files, and the settings for them.
    void fill() {
        program("vtysh", vtysh);
        program("reload", reload);
        write("running", "ip route 10.1.0.0/16 blackhole\n");
        write("frr.conf", "frr version 8.4.4\nip route 10.9.0.0/16 blackhole\n!\n");
        states("Up");
        scratch_.configure(settings() + "device_time_limit = 20\n");
        make_device();
    }

    std::string settings() const {
        return "frr_vtysh = " + file("vtysh").string() +
               "\nfrr_reload = " + file("reload").string() +
               "\nfrr_config = " + file("frr.conf").string() + "\n";
    }
    void make_device() {
        device_ = std::make_unique<ulmo::Device>(ulmo::make_frr_backend(scratch_.root() / "state"),
                                                 scratch_.root() / "state");
    }
    std::filesystem::path file(const std::string &name) const { return folder_ / name; }
    void write(const std::string &name, const std::string &text) const {
        Scratch::write(file(name), text);
    }
    std::string read(const std::string &name) const { return Scratch::read(file(name)); }
    void program(const std::string &name, const std::string &text) const {
        write(name, text);
        ::chmod(file(name).c_str(), 0755);
    }
    void states(const std::string &state) const {
        write("states",
              "watchfrr global phase: Idle\n Start Command: \"x\"\n  zebra   Up\n  bgpd    " +
                  state + "\n  staticd Up\n");
    }
    // Whether at least so many shells have taken commands at a prompt, and all have ended.
    bool talks_are_over(int least) const {
        std::ifstream talks(file("talks"));
        int count = 0;
        for (pid_t pid = 0; talks >> pid; ++count) {
            if (::kill(pid, 0) == 0) {
                return false;
            }
        }
        return count >= least;
    }
    std::string running() const { return device_->show(ConfigurationStore::running); }
    std::string startup() const { return device_->show(ConfigurationStore::startup); }
    bool has_journal() const { return std::filesystem::exists(scratch_.state("frr-save")); }
    void on_write(const std::string &script) const {
        write("hook", "case $* in *write*) " + script + " ;; esac\n");
    }

    template <typename Error, typename Work> std::string error_of(const Work &work) const {
        try {
            work();
        } catch (const Error &error) {
            return error.what();
        } catch (const std::exception &error) {
            ADD_FAILURE() << "another kind: " << error.what();
        }
        return "none";
    }
    std::string refusal(const std::string &text) const {
        const std::string before = running();
        const std::string reason = error_of<ConfigurationError>([&] { device_->apply(text); });
        EXPECT_EQ(running(), before);
        return reason;
    }
    std::string failure_to_show() const {
        return error_of<std::runtime_error>([&] { running(); });
    }
    std::string failure_to_save() const {
        return error_of<std::runtime_error>([&] { device_->save(); });
    }

    const Scratch scratch_;
    std::filesystem::path folder_ = scratch_.root();
    std::unique_ptr<ulmo::Device> device_;
};

constexpr const char *show_calls = "prompt\nshow watchfrr\nshow running-config no-header\n";
// A configuration as FRR shows and writes it.
std::string text_of(const std::string &statements) {
    return "frr version 8.4.4\n" + statements + "!\n";
}

const std::string first = text_of("ip route 10.1.0.0/16 blackhole\n");

TEST_F(FrrTest, ShowsWhatTheStartupConfigurationWouldHave) {
    EXPECT_EQ(running(), first);
    EXPECT_EQ(startup(), text_of("ip route 10.9.0.0/16 blackhole\n"));
    EXPECT_EQ(read("calls"), show_calls);
    EXPECT_TRUE(talks_are_over(1));
}

TEST_F(FrrTest, ShowsNothingWhileADaemonIsDown) {
    states("Down");
    EXPECT_EQ(failure_to_show(), "FRR's bgpd does not work: watchfrr says Down");
    for (const std::string stream : {"1", "2"}) {
        write("hook", "case $* in *watchfrr*) echo '% watchfrr is not running' >&" + stream +
                          "; set -- ;; esac\n");
        EXPECT_EQ(failure_to_show(), file("vtysh").string() + ": watchfrr is not running");
    }
}

TEST_F(FrrTest, ShowsNoPartOfAConfiguration) {
    const std::string part = file("vtysh").string() + " shows no whole running configuration";
    write("hook", "exit 0\n");
    EXPECT_EQ(failure_to_show(), part);
    write("hook", "cat states; echo frr version 8; exit 0\n");
    EXPECT_EQ(failure_to_show(), part);
    write("hook", "echo; echo end; exit 0\n");
    EXPECT_EQ(failure_to_show(), part);
    const auto show = [this](const std::string &script) {
        write("hook", "case $* in *running*) " + script + "; set -- ;; esac\n");
    };
    show("echo frr version 8");
    EXPECT_EQ(failure_to_show(), part);
    show("echo; echo end");
    EXPECT_EQ(failure_to_show(), part);
    show("echo frr version 8; printf 'a\\033\\nend\\n'");
    EXPECT_EQ(failure_to_show(),
              "line 2: a control character, so this is not a configuration text");
}

TEST_F(FrrTest, SaysWhyAProgramFails) {
    write("hook", "echo 'Exiting: failed to connect to any daemons.' >&2; exit 1\n");
    const std::string name = file("vtysh").string() + ": ";
    EXPECT_EQ(failure_to_show(),
              name + "FRR does not run, or this user is not in the group frrvty: start frr, or "
                     "install config-copy-mib-frr");
    write("hook", "echo \"% Can't open configuration file /etc/frr/vtysh.conf\" >&2; exit 1\n");
    EXPECT_EQ(failure_to_show(),
              name + "this user is not in the groups frr and frrvty: install config-copy-mib-frr");
    write("hook", "echo '% on standard output'; exit 1\n");
    EXPECT_EQ(failure_to_show(), name + "on standard output");
    write("hook", "exit 3\n");
    EXPECT_EQ(failure_to_show(), name + "it ended with status 3 and gave no reason");
    write("hook", "kill -KILL $$\n");
    EXPECT_EQ(failure_to_show(), name + "signal 9 ended it");
    write("hook", "case $* in *-C*) echo 'no reason that we know' >&2; exit 1;; esac\n");
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->apply("ip route x\n"); }),
              name + "no reason that we know");
}

TEST_F(FrrTest, RefusesWhatFrrRefuses) {
    EXPECT_EQ(refusal("ip route x\nfrobnicate 1\n"), "line 2: Unknown command: frobnicate 1");
    EXPECT_EQ(refusal("router x\n wrong\n"), "line 2: Unknown command: wrong");
    EXPECT_EQ(refusal("ip route x\nip route refused\n"), "line 2: The reason: ip route refused");
    EXPECT_EQ(refusal("ip route x\n\x01\n"),
              "line 2: a control character, so this is not a configuration text");
    EXPECT_EQ(refusal("ip route x\nip route " + std::string(4000, 'x')),
              "line 2: longer than 4000 octets");
}

TEST_F(FrrTest, ExecutesNoCommands) {
    const std::string why = "' is a command of FRR's shell, not a statement of a configuration";
    for (const std::string word : {"output", "ou", "configure", "conf", "ping", "copy", "write"}) {
        EXPECT_EQ(refusal("router x\n exit\n " + word + " file /x\n"), "line 3: '" + word + why);
    }
    EXPECT_FALSE(read("calls").find("-C") != std::string::npos); // which executes them
    EXPECT_EQ(refusal("exit too many\n"), "an 'exit' too many: it leaves the configuration mode");
    EXPECT_EQ(read("calls").find("copy"), std::string::npos);
    EXPECT_EQ(running(), first);
}

TEST_F(FrrTest, RefusesWhatFrrDrops) {
    EXPECT_EQ(refusal("ip route x\nrouter ospf\n"),
              "line 2: ospfd does not run, so FRR has ignored 'router ospf'");
    EXPECT_EQ(refusal("ip route x\nro ospf 7\n"),
              "line 2: ospfd does not run, so FRR has ignored 'ro ospf 7'");
    EXPECT_EQ(refusal("hostname other\n"),
              "line 1: FRR's shell keeps 'hostname other' for itself, so it has no effect");
    write("running", "hostname frr\nip route 10.1.0.0/16 blackhole\n");
    EXPECT_EQ(refusal("no hostname frr\n"),
              "line 1: FRR's shell keeps 'no hostname frr' for itself, so it has no effect");
    device_->apply("hostname frr\n");
    write("hook", "case $* in copy*) set -- ;; esac\n");
    EXPECT_EQ(refusal("no ip route 10.1.0.0/16 blackhole\n"),
              "line 1: FRR still shows 'ip route 10.1.0.0/16 blackhole'");
    write("hook", "case $* in copy*) echo '% The reason'; set -- ;; esac\n");
    EXPECT_EQ(refusal("ip route x\n"), "line 1: The reason: ip route x");
}

// Each start of vtysh takes longer than most commands.
TEST_F(FrrTest, OneShellAnswersAllCommandsOfAnOperation) {
    const std::string wanted = scratch_.state("frr-wanted.cfg").string();
    device_->apply("ip route x\n");
    std::string calls = read("calls");
    constexpr std::string_view check = "-C -f /dev/stdin\n"; // at some moment before the change
    ASSERT_NE(calls.find(check), std::string::npos);
    EXPECT_EQ(calls.erase(calls.find(check), check.size()), std::string(show_calls) + "copy " +
                                                                wanted + " running-config\n" +
                                                                std::string(show_calls).substr(7));
    EXPECT_FALSE(std::filesystem::exists(wanted));
    EXPECT_TRUE(talks_are_over(1));
    write("calls", "");
    device_->save();
    EXPECT_EQ(read("calls"), "prompt\nshow watchfrr\nwrite integrated\nshow watchfrr\n");
    EXPECT_TRUE(talks_are_over(2));
}

TEST_F(FrrTest, NoShellOutlivesAnOperationThatFails) {
    std::filesystem::create_directory(scratch_.state("way-back.journal.new"));
    EXPECT_NE(error_of<std::runtime_error>([&] { device_->apply("ip route x\n"); }), "none");
    EXPECT_TRUE(talks_are_over(1));
    std::filesystem::remove(scratch_.state("way-back.journal.new"));
    // in the middle of a change
    write("hook", "case $* in copy*) echo 'ip route y' >>running; kill -KILL $$ ;; esac\n");
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->apply("ip route x\n"); }),
              file("vtysh").string() + ": signal 9 ended it");
    EXPECT_EQ(running(), first);
    EXPECT_FALSE(std::filesystem::exists(scratch_.state("frr-wanted.cfg")));
    write("hook", "case $* in copy*) exit 0 ;; esac\n");
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->apply("ip route x\n"); }),
              file("vtysh").string() + ": it ended with status 0 and gave no reason");
    scratch_.configure(settings() + "device_time_limit = 1\n");
    make_device();
    write("hook", "case $* in copy*) sleep 100 ;; esac\n");
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->apply("ip route x\n"); }),
              file("vtysh").string() + ": it did not end within 1 second and was killed");
    EXPECT_EQ(running(), first);
    EXPECT_TRUE(talks_are_over(5));
}

TEST_F(FrrTest, RemovesWhatAKilledProcessHasLeft) {
    const char *const names[] = {"frr-wanted.cfg", "frr-wanted.cfg.new", "frr-save.new"};
    for (const char *const name : names) {
        write(std::string("state/") + name, "ip route x\n");
    }
    device_->save();
    for (const char *const name : names) {
        EXPECT_FALSE(std::filesystem::exists(scratch_.state(name))) << name;
    }
}

TEST_F(FrrTest, AppliesAndReplaces) {
    device_->apply("ip route x\r\n! a comment\nend\n");
    EXPECT_EQ(running(), text_of("ip route 10.1.0.0/16 blackhole\nip route x\n"));
    device_->apply("no ip route x\nip route y\nno ip route y\n");
    EXPECT_EQ(running(), first);
    device_->apply("configuration replace\nfrr version 8.4.4\nip route z\n");
    EXPECT_EQ(running(), text_of("ip route z\n"));
    EXPECT_FALSE(std::filesystem::exists(scratch_.state("frr-wanted.cfg")));
}

TEST_F(FrrTest, ChecksAndShowsAtTheSameTime) {
    // Each of the two waits until the other has begun.
    write("hook", R"sh(
other() { for i in $(seq 100); do grep -q -e "$1" calls && return; sleep 0.1; done; exit 9; }
case $* in *watchfrr*) other '^-C' ;; -C*) other watchfrr ;; esac
)sh");
    device_->apply("ip route x\n");
    EXPECT_EQ(running(), text_of("ip route 10.1.0.0/16 blackhole\nip route x\n"));
    // The refusal counts, whether or not FRR can be shown meanwhile.
    write("hook", "case $* in *watchfrr*) exit 9 ;; esac\n");
    EXPECT_EQ(error_of<ConfigurationError>([&] { device_->apply("frobnicate 1\n"); }),
              "line 1: Unknown command: frobnicate 1");
}

TEST_F(FrrTest, DoesNotBelieveAWrongDifference) {
    const std::string text = "configuration replace\n" + first + "ip route x\n";
    write("reload-hook", "echo 'no ip route 10.1.0.0/16 blackhole'; exit 0\n");
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->apply(text); }),
              file("reload").string() +
                  " would remove 'ip route 10.1.0.0/16 blackhole', which the text contains");
    write("reload-hook", "echo why >&2; exit 1\n");
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->apply(text); }),
              file("reload").string() + ": why");
    write("reload-hook", "echo 'ip route never'; exit 0\n");
    write("hook", "case $* in -f*) exit 0;; esac\n");
    EXPECT_EQ(refusal(text), "FRR can't run exactly this text: it does not take 'ip route never'; "
                             "write it as FRR shows it");
    EXPECT_EQ(refusal(text + "router ospf\n"),
              "line 6: ospfd does not run, so FRR has ignored 'router ospf'");
    EXPECT_EQ(running(), first);
}

TEST_F(FrrTest, RemovesAStatementWithoutItsValueIfFrrWantsThat) {
    write("reload-hook", "grep -q blackhole running && printf 'router x\\n no ip route "
                         "10.1.0.0/16 blackhole\\nip route y\\n'; exit 0\n");
    write("hook", "case $* in -f*) while read -r line; do case $line in\n"
                  "'no ip route 10.1.0.0/16') echo 'ip route y' >running; exit 0;; esac; done\n"
                  "echo 'line 1: % Unknown command[4]: no' >&2; exit 2;; esac\n");
    device_->apply("configuration replace\nfrr version 8.4.4\nip route y\n");
    EXPECT_EQ(running(), text_of("ip route y\n"));
}

TEST_F(FrrTest, SavesThroughWatchfrr) {
    for (int time = 0; time < 2; ++time) {
        device_->save();
        EXPECT_EQ(startup(), first);
        EXPECT_EQ(read("frr.conf"), first);
        EXPECT_FALSE(has_journal());
    }
}

// FRR shows a long configuration as slowly as it writes it.
TEST_F(FrrTest, ShowsTheConfigurationAgainOnlyIfTheFileLooksTorn) {
    const std::string beginning = "frr version 8.4.4\n!\n";
    for (std::size_t size = 511; size <= 513; ++size) {
        write("running", "ip route " + std::string(size - beginning.size() - 10, 'x') + "\n");
        write("calls", "");
        device_->save();
        EXPECT_EQ(read("frr.conf").size(), size);
        EXPECT_EQ(read("calls").find("running-config") != std::string::npos, size == 512);
        EXPECT_FALSE(has_journal());
    }
}

// A disk that was full for a moment leaves a hole, which FRR does not notice.
TEST_F(FrrTest, ComparesTheFileIfSpaceIsScarce) {
    REQUIRE_SUPERUSER("mounts a small disk");
    folder_ = file("small");
    std::filesystem::create_directory(folder_);
    EXPECT_EQ(host_test::in_child([this] {
                  if (!get_own_mounts() ||
                      ::mount("small", folder_.c_str(), "tmpfs", 0, "size=1m") != 0) {
                      return 1;
                  }
                  fill();
                  write("running", "ip route a\nip route b\nip route c\n");
                  device_->save();
                  on_write("mv frr.conf frr.conf.sav; grep -v 'route b' frr.conf.sav >frr.conf; "
                           "echo '[OK]'; set --");
                  EXPECT_EQ(failure_to_save(), "FRR has not saved " + file("frr.conf").string() +
                                                   ": it differs from the running configuration");
                  return HasFailure() ? 2 : 0;
              }),
              0);
}

TEST_F(FrrTest, SaysThatFrrHasNotSaved) {
    const std::string name = file("frr.conf").string();
    const std::string before = startup();
    const auto reason = [&] {
        std::string failure = failure_to_save();
        EXPECT_EQ(startup(), before);
        EXPECT_FALSE(has_journal());
        const std::string begin = "FRR has not saved " + name + ": ";
        EXPECT_TRUE(failure.starts_with(begin)) << failure;
        return failure.substr(std::min(begin.size(), failure.size()));
    };
    on_write("set --");
    EXPECT_EQ(reason(), "watchfrr does not say that it has");
    on_write("echo '% The reason'; set --");
    EXPECT_EQ(reason(), "The reason");
    on_write("echo why >&2; set --");
    EXPECT_EQ(reason(), "why");
    // as if FRR had another file
    on_write("echo '[OK]'; set --");
    EXPECT_EQ(reason(), "the file is still the former one");
    scratch_.configure(settings() + "device_time_limit = 1\n");
    make_device();
    on_write("echo '% Configuration write already in progress.'; set --");
    EXPECT_EQ(reason(), "Configuration write already in progress.");
    states("Down");
    EXPECT_EQ(failure_to_save(), "FRR's bgpd does not work: watchfrr says Down");
    EXPECT_EQ(startup(), before);
}

TEST_F(FrrTest, WaitsForAnotherSaveOfFrr) {
    on_write("if [ ! -e other ]; then echo >other; echo '% Configuration write already in "
             "progress.'; set --; fi");
    device_->save();
    EXPECT_EQ(startup(), first);
}

// It answers [OK] even if the disk is full.
TEST_F(FrrTest, SaysThatFrrHasWrittenOnlyAPart) {
    const std::string before = startup();
    const std::string name = file("frr.conf").string();
    std::string block = text_of("ip route x\n");
    block = text_of("ip route x\n" + std::string(512 - block.size() - 2, 'x') + "\n!\n");
    block.resize(512);
    for (const std::string &part :
         {std::string(), std::string("frr "), first.substr(0, 40), block}) {
        write("part", part);
        on_write("mv frr.conf frr.conf.sav; cp part frr.conf; echo '[OK]'; set --");
        EXPECT_EQ(failure_to_save(), "FRR has written only a part of " + name +
                                         "; the former one is " + name + ".sav");
        EXPECT_EQ(startup(), before);
        EXPECT_TRUE(has_journal());
    }
    // It looks like this at the next save, too, which is refused.
    on_write("echo '% The reason'; set --");
    EXPECT_EQ(failure_to_save(), "FRR has written only a part of " + name +
                                     " (The reason); the former one is " + name + ".sav");
    EXPECT_EQ(startup(), before);
}

// FRR writes none of its statements then, and says nothing.
TEST_F(FrrTest, SaysThatADaemonEndedWhileFrrWrote) {
    on_write("sed -i 's/bgpd .*/bgpd Down/' states");
    EXPECT_EQ(failure_to_save(), "FRR's bgpd does not work: watchfrr says Down");
}

TEST_F(FrrTest, ASaveThatWasCutOffIsNotSeen) {
    const std::string before = startup();
    on_write("mv frr.conf frr.conf.sav; kill -KILL $$");
    EXPECT_EQ(failure_to_save(), file("vtysh").string() + ": signal 9 ended it");
    EXPECT_EQ(startup(), before) << "while there is no file";
    for (const std::string &part : {std::string(), std::string("frr ver"), first.substr(0, 40),
                                    std::string(first).replace(20, 3, 3, '\0')}) {
        write("frr.conf", part);
        EXPECT_EQ(startup(), before);
        (void)device_->pending(); // an operation with another purpose
        EXPECT_EQ(startup(), before);
    }
    write("frr.conf", first);
    EXPECT_EQ(startup(), first) << "FRR has ended it";
    write("frr.conf", "by hand\n");
    EXPECT_EQ(startup(), "by hand\n");
    write("state/frr-save", "nonsense");
    EXPECT_EQ(startup(), "by hand\n");
    std::filesystem::remove(file("hook"));
    device_->save();
    EXPECT_EQ(startup(), first);
    EXPECT_FALSE(has_journal());
}

TEST_F(FrrTest, ASaveOfAKilledProcessEndsWithTheNextOperation) {
    const std::string before = startup();
    on_write("kill -KILL $$"); // FRR has the command, and has not begun
    EXPECT_NE(failure_to_save(), "none");
    (void)device_->pending();
    EXPECT_TRUE(has_journal());
    std::filesystem::rename(file("frr.conf"), file("frr.conf.sav"));
    EXPECT_EQ(startup(), before);
    write("frr.conf", first);
    (void)device_->pending();
    EXPECT_FALSE(has_journal());
    write("frr.conf", "frr version by hand\n");
    EXPECT_EQ(startup(), "frr version by hand\n");
}

// It may look like a part of a file: an administrator adds lines at its end.
TEST_F(FrrTest, AFileByHandAfterASaveThatFrrDidNotBegin) {
    on_write("kill -KILL $$");
    EXPECT_NE(failure_to_save(), "none");
    const std::string by_hand = startup() + "ip route by hand\n";
    write("frr.conf", by_hand);
    EXPECT_EQ(startup(), by_hand);
    EXPECT_FALSE(device_->mend_startup());
    EXPECT_EQ(startup(), by_hand);
    EXPECT_FALSE(has_journal());
}

TEST_F(FrrTest, ASaveThatIsGivenUpLeavesNothing) {
    const std::string before = startup();
    EXPECT_EQ(error_of<std::runtime_error>(
                  [&] { device_->save({}, [] { throw std::runtime_error("given up"); }); }),
              "given up");
    EXPECT_EQ(startup(), before);
    EXPECT_FALSE(has_journal());
    EXPECT_EQ(read("calls").find("write"), std::string::npos);
}

TEST_F(FrrTest, ASaveWithoutAFormerFile) {
    std::filesystem::remove(file("frr.conf"));
    EXPECT_EQ(error_of<std::runtime_error>([&] { startup(); }),
              "there is no startup configuration");
    on_write("printf frr >frr.conf; exit 0");
    EXPECT_NE(failure_to_save(), "none");
    EXPECT_EQ(error_of<std::runtime_error>([&] { startup(); }),
              "there is no startup configuration");
    std::filesystem::remove(file("hook"));
    device_->save();
    EXPECT_EQ(startup(), first);
}

// The file is root's until FRR has written all of it.
TEST_F(FrrTest, AFileThatFrrWritesIsNotSeen) {
    REQUIRE_SUPERUSER("gives files to other users");
    constexpr uid_t frr = 54321;
    const std::string before = startup();
    ASSERT_EQ(::chmod(scratch_.root().c_str(), 0755), 0);
    ASSERT_EQ(::chown(scratch_.root().c_str(), frr, frr), 0);
    write("state/frr-save", std::to_string(before.size()) + "\n" + before);
    write("frr.conf", first);
    EXPECT_EQ(startup(), before);
    ASSERT_EQ(::chown(file("frr.conf").c_str(), frr, frr), 0);
    EXPECT_EQ(startup(), first);
    // no save of ours
    std::filesystem::remove(scratch_.state("frr-save"));
    write("new", first.substr(0, 40));
    std::filesystem::rename(file("new"), file("frr.conf"));
    auto shown = std::async(std::launch::async, [this] { return startup(); });
    EXPECT_EQ(shown.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    write("frr.conf", first);
    ASSERT_EQ(::chown(file("frr.conf").c_str(), frr, frr), 0);
    EXPECT_EQ(shown.get(), first);
    for (const std::string &text : {std::string("by hand\n"), first}) {
        write("new", text);
        std::filesystem::rename(file("new"), file("frr.conf"));
        const auto began = std::chrono::steady_clock::now();
        EXPECT_EQ(startup(), text);
        // FRR has written no file without its header.
        EXPECT_EQ(std::chrono::steady_clock::now() - began > std::chrono::seconds(1),
                  text == first);
    }
    // an FRR without a user of its own
    write("running", "ip route y\n");
    on_write("rm frr.conf");
    device_->save();
    EXPECT_EQ(startup(), text_of("ip route y\n"));
}

// A power failure: the state of the files, and nothing runs.
class FrrMendTest : public FrrTest {
  protected:
    FrrMendTest() { write("frr.conf.sav", former); }

    void cut_off(const std::string &left) const {
        write("state/frr-save", std::to_string(former.size()) + "\n" + former);
        write("frr.conf", left);
    }
    bool mends() {
        const bool is_mended = device_->mend_startup();
        EXPECT_FALSE(has_journal());
        EXPECT_FALSE(std::filesystem::exists(file("frr.conf.new")));
        return is_mended;
    }

    const std::string former = "frr version 8.4.4\nip route 10.9.0.0/16 blackhole\n"; // no `!`
    const std::string wanted = text_of("ip route 10.1.0.0/16 blackhole\n");
};

TEST_F(FrrMendTest, MakesATornFileTheFormerOne) {
    std::string zeros = wanted;
    zeros.replace(20, 10, 10, '\0');
    std::string block = wanted + std::string(510 - wanted.size(), '!') + "!\n";
    for (const std::string &left : {std::string(), wanted.substr(0, 4), wanted.substr(0, 18),
                                    wanted.substr(0, 48), zeros, std::string(600, '\0'), block}) {
        cut_off(left);
        EXPECT_TRUE(mends());
        EXPECT_EQ(read("frr.conf"), former);
        EXPECT_FALSE(mends());
    }
    cut_off("");
    std::filesystem::remove(file("frr.conf"));
    EXPECT_TRUE(mends());
    EXPECT_EQ(read("frr.conf"), former);
    EXPECT_EQ(read("calls"), "");
}

TEST_F(FrrMendTest, LeavesAWholeFileAlone) {
    for (const std::string &left : {former, wanted, text_of(""), std::string("by hand\n")}) {
        cut_off(left);
        EXPECT_FALSE(mends());
        EXPECT_EQ(read("frr.conf"), left);
    }
    write("state/frr-save", "nonsense");
    write("frr.conf", "");
    EXPECT_FALSE(mends());
    EXPECT_EQ(read("frr.conf"), "");
}

TEST_F(FrrMendTest, RemovesAPartIfThereWasNoFile) {
    write("state/frr-save", "-1\n");
    write("frr.conf", wanted.substr(0, 30));
    EXPECT_TRUE(mends());
    EXPECT_FALSE(std::filesystem::exists(file("frr.conf")));
}

// It has the new text, too.
TEST_F(FrrMendTest, ReadsTheJournalOfAnEarlierVersion) {
    const auto left_by_it = [&](const std::string &left) {
        cut_off(left);
        write("state/frr-save", std::to_string(former.size()) + "\n" + former + wanted);
    };
    left_by_it(wanted.substr(0, 30));
    EXPECT_EQ(startup(), former);
    EXPECT_TRUE(mends());
    EXPECT_EQ(read("frr.conf"), former);
    left_by_it(wanted);
    EXPECT_EQ(startup(), wanted);
    EXPECT_FALSE(mends());
    EXPECT_EQ(read("frr.conf"), wanted);
    write("state/frr-save", "-1\n" + wanted);
    write("frr.conf", wanted.substr(0, 30));
    EXPECT_TRUE(mends());
    EXPECT_FALSE(std::filesystem::exists(file("frr.conf")));
}

TEST_F(FrrMendTest, FollowsNoLinkAndReadsNoMoreThanAConfiguration) {
    const auto fails = [&] {
        return error_of<std::runtime_error>([&] { device_->mend_startup(); }) != "none";
    };
    cut_off("");
    write("elsewhere", "");
    std::filesystem::remove(file("frr.conf"));
    std::filesystem::create_symlink(file("elsewhere"), file("frr.conf"));
    EXPECT_TRUE(fails());
    EXPECT_EQ(read("elsewhere"), "");
    EXPECT_TRUE(std::filesystem::is_symlink(file("frr.conf")));
    std::filesystem::remove(file("frr.conf"));

    std::filesystem::rename(scratch_.state("frr-save"), file("journal"));
    std::filesystem::create_symlink(file("journal"), scratch_.state("frr-save"));
    EXPECT_TRUE(fails());
    std::filesystem::remove(scratch_.state("frr-save"));
    ASSERT_EQ(::mkfifo(scratch_.state("frr-save").c_str(), 0600), 0);
    EXPECT_TRUE(fails());
    std::filesystem::remove(scratch_.state("frr-save"));
    cut_off("");
    std::filesystem::resize_file(scratch_.state("frr-save"),
                                 2 * ulmo::configuration_text_limit + 65);
    EXPECT_TRUE(fails());
    EXPECT_EQ(read("frr.conf"), "");

    // The temporary name: the file that it leads to stays as it is.
    std::filesystem::create_symlink(file("elsewhere"), file("frr.conf.new"));
    cut_off("");
    EXPECT_TRUE(mends());
    EXPECT_EQ(read("frr.conf"), former);
    EXPECT_EQ(read("elsewhere"), "");
}

TEST_F(FrrMendTest, WaitsForNobodyWithoutASave) {
    const ulmo::FileLock lock(scratch_.state("configuration.lock"), ulmo::FileLock::Mode::exclusive,
                              std::chrono::seconds(1));
    EXPECT_FALSE(device_->mend_startup());
}

TEST_F(FrrMendTest, KeepsOwnerAndMode) {
    REQUIRE_SUPERUSER("gives files to other users");
    constexpr uid_t frr = 54321;
    constexpr gid_t frr_group = 54322;
    constexpr uid_t agent = 54323;
    const auto give = [&](const std::string &name, mode_t mode) {
        EXPECT_EQ(::chown(file(name).c_str(), frr, frr_group), 0);
        EXPECT_EQ(::chmod(file(name).c_str(), mode), 0);
    };
    const auto owner_and_mode = [&] {
        struct stat status {};
        EXPECT_EQ(::lstat(file("frr.conf").c_str(), &status), 0);
        return std::tuple(status.st_uid, status.st_gid, status.st_mode & 07777U);
    };
    ASSERT_EQ(::chmod(scratch_.root().c_str(), 0755), 0);
    cut_off("");
    ASSERT_EQ(::chown(scratch_.state("").c_str(), agent, agent), 0);
    ASSERT_EQ(::chown(scratch_.state("frr-save").c_str(), agent, agent), 0);
    give("frr.conf.sav", 0640); // the torn one is root's
    EXPECT_TRUE(mends());
    EXPECT_EQ(owner_and_mode(), std::tuple(frr, frr_group, 0640U));

    cut_off("");
    give("frr.conf", 0604);
    std::filesystem::remove(file("frr.conf.sav"));
    EXPECT_TRUE(mends());
    EXPECT_EQ(owner_and_mode(), std::tuple(frr, frr_group, 0604U));

    cut_off("");
    std::filesystem::remove(file("frr.conf"));
    give("", 0751);
    EXPECT_TRUE(mends());
    EXPECT_EQ(owner_and_mode(), std::tuple(frr, frr_group, 0640U));

    // A file that the owner of the state directory may not read stays unread.
    write("secret", "0\nsecret");
    write("frr.conf", "");
    std::filesystem::create_hard_link(file("secret"), scratch_.state("frr-save"));
    ASSERT_EQ(::chmod(file("secret").c_str(), 0600), 0);
    EXPECT_NE(error_of<std::runtime_error>([&] { device_->mend_startup(); }), "none");
}

TEST_F(FrrTest, LeavesTheStartupConfigurationToFrr) {
    EXPECT_EQ(error_of<std::runtime_error>([&] { device_->store_startup("ip route x\n"); }),
              "only FRR itself writes its startup configuration: copy the file to the running "
              "configuration, and save that");
}

} // namespace
