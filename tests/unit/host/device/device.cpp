#include "platform/host/device/device.h"

#include "base/replaced_file.h"
#include "base/state_file.h"
#include "platform/host/device/backend.h"
#include "platform/host/device/configuration_text.h"
#include "tests/unit/child.h"
#include "tests/unit/host/device/fixture.h"
#include "tests/unit/own_mounts.h"
#include "tests/unit/superuser.h"

#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using ulmo::ConfigurationError;
using ulmo::ConfigurationStore;

constexpr const char *factory = "hostname switch\nend\n";

template <typename Operation> std::string failure(Operation operation) {
    try {
        operation();
    } catch (const std::exception &error) {
        return error.what();
    }
    return "no failure";
}

class Device : public DeviceTest {
  protected:
    std::unique_ptr<ulmo::Device> device(milliseconds wait = ulmo::device_lock_wait) const {
        return std::make_unique<ulmo::Device>(ulmo::make_embedded_backend(state()), state(), wait);
    }
    std::string shown() const { return device()->show(ConfigurationStore::running); }
};

TEST_F(Device, FirstUseMakesTheFactoryDefault) {
    EXPECT_EQ(shown(), factory);
    EXPECT_EQ(content(running()), factory);
    EXPECT_EQ(permissions(running()), 0600U);
    EXPECT_FALSE(std::filesystem::exists(startup()));
    EXPECT_EQ(failure([&] { device()->show(ConfigurationStore::startup); }),
              "there is no startup configuration");
}

TEST_F(Device, FirstUseStartsFromTheStartupConfiguration) {
    const std::string stored = "! rack 7\nvlan 7\nhostname seven\n";
    device()->store_startup(stored);
    EXPECT_FALSE(std::filesystem::exists(running()));
    EXPECT_EQ(shown(), "hostname seven\nvlan 7\nend\n");
    EXPECT_EQ(device()->show(ConfigurationStore::startup), stored);
    EXPECT_EQ(permissions(startup()), 0600U);
}

TEST_F(Device, AStartupConfigurationThatIsNotValidIsNotReplacedByADefault) {
    file("state/system.cfg", "hostname a\nbogus\n");
    const std::string reason =
        startup().string() + " is not valid: line 2: unknown statement 'bogus'";
    EXPECT_EQ(failure([&] { shown(); }), reason);
    EXPECT_EQ(failure([&] { device()->save(); }), reason);
    EXPECT_EQ(failure([&] { device()->apply("hostname b\n"); }), reason);
    EXPECT_EQ(content(startup()), "hostname a\nbogus\n");
    EXPECT_FALSE(std::filesystem::exists(running()));
    device()->store_startup("hostname c\n"); // the remedy
    EXPECT_EQ(shown(), "hostname c\nend\n");
}

TEST_F(Device, ADamagedRunningConfigurationIsAFailureNotARefusal) {
    file("state/running.cfg", std::string("hostname a\n\0", 12));
    try {
        device()->apply("hostname b\n");
        ADD_FAILURE();
    } catch (const ConfigurationError &) {
        ADD_FAILURE() << "the text given was good";
    } catch (const std::runtime_error &error) {
        EXPECT_EQ(error.what(),
                  running().string() + " is not valid: line 2: not a text (octet 0x00)");
    }
}

TEST_F(Device, AppliesWholeAndSaves) {
    device()->apply("hostname one\nvlan 10\n name a\n");
    device()->apply("vlan 11\nvlan 10\n name b\n");
    const std::string expected = "hostname one\nvlan 10\n  name b\nvlan 11\nend\n";
    EXPECT_EQ(shown(), expected);
    EXPECT_EQ(content(running()), expected);
    EXPECT_FALSE(std::filesystem::exists(startup()));
    device()->save();
    EXPECT_EQ(content(startup()), expected);
    EXPECT_EQ(permissions(startup()), 0600U);
    device()->apply("no vlan 11\n");
    EXPECT_EQ(content(startup()), expected);
}

TEST_F(Device, ARefusedTextChangesNothing) {
    device()->apply("hostname one\n");
    device()->save();
    struct stat before {};
    ASSERT_EQ(::stat(running().c_str(), &before), 0);
    for (const std::string &text : {std::string("hostname two\nvlan 5\nbogus\n"),
                                    std::string("hostname two\n\0", 14), std::string()}) {
        try {
            device()->apply(text);
            EXPECT_TRUE(text.empty());
        } catch (const ConfigurationError &) {
        }
        try {
            if (!text.empty()) {
                device()->store_startup(text);
                ADD_FAILURE();
            }
        } catch (const ConfigurationError &) {
        }
        EXPECT_EQ(content(running()), "hostname one\nend\n");
        EXPECT_EQ(content(startup()), "hostname one\nend\n");
    }
    struct stat after {};
    ASSERT_EQ(::stat(running().c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino) << "the file was written again without need";
}

TEST_F(Device, AConfigurationCannotGrowWithoutEnd) {
    std::string half;
    for (unsigned i = 0; half.size() < ulmo::configuration_canonical_limit * 6 / 10; ++i) {
        half +=
            "interface a" + std::to_string(i) + "\n description " + std::string(250, 'x') + "\n";
    }
    device()->apply(half);
    const std::string before = content(running());
    std::string other = half;
    for (std::size_t at = 0; (at = other.find("interface a", at)) != std::string::npos;) {
        other[at + 10] = 'b';
    }
    EXPECT_EQ(failure([&] { device()->apply(other); }),
              "the configuration would be larger than 8388608 octets");
    EXPECT_TRUE(content(running()) == before); // too large to be printed
}

TEST_F(Device, LinksInPlaceOfTheFilesAreNotFollowed) {
    const auto victim = file("victim", "hostname victim\n");
    std::filesystem::create_symlink(victim, running());
    EXPECT_NE(failure([&] { shown(); }).find("cannot open"), std::string::npos);
    EXPECT_NE(failure([&] { device()->apply("hostname x\n"); }).find("cannot open"),
              std::string::npos);
    std::filesystem::remove(running());
    std::filesystem::create_symlink(victim, state() / "running.cfg.new");
    std::filesystem::create_symlink(victim, startup());
    EXPECT_NE(failure([&] { device()->show(ConfigurationStore::startup); }).find("cannot open"),
              std::string::npos);
    device()->store_startup("hostname y\n"); // replaces the link
    EXPECT_FALSE(std::filesystem::is_symlink(startup()));
    device()->apply("hostname x\n");
    EXPECT_EQ(shown(), "hostname x\nend\n");
    EXPECT_EQ(content(victim), "hostname victim\n");
    std::filesystem::remove(state() / "configuration.lock");
    std::filesystem::create_symlink(victim, state() / "configuration.lock");
    EXPECT_NE(failure([&] { shown(); }).find("cannot open"), std::string::npos);
}

TEST_F(Device, TheModeDoesNotDependOnTheMask) {
    const mode_t old = ::umask(0777);
    device()->apply("hostname x\n");
    ::umask(old);
    EXPECT_EQ(permissions(running()), 0600U);
}

// The names of the files in a directory, without locks.
std::set<std::string> names_in(const std::filesystem::path &directory) {
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() != ".lock") {
            names.insert(entry.path().filename());
        }
    }
    return names;
}

TEST_F(Device, SavesToFurtherFilesAsWell) {
    device()->apply("hostname one\n");
    std::filesystem::create_directory(directory_ / "usb");
    const auto absolute = directory_ / "usb" / "one.cfg";
    // The startup configuration is among the names, and one file has several names.
    device()->save({"backup.cfg", absolute, "system.cfg", "backup.cfg", "./backup.cfg",
                    "../usb/one.cfg", startup()},
                   {});
    const std::string expected = "hostname one\nend\n";
    for (const auto &saved : {state() / "backup.cfg", absolute, startup()}) {
        EXPECT_EQ(content(saved), expected) << saved;
        EXPECT_EQ(permissions(saved), 0600U) << saved;
    }
    EXPECT_EQ(names_in(state()),
              (std::set<std::string>{"backup.cfg", "running.cfg", "system.cfg"}));
    EXPECT_EQ(names_in(directory_ / "usb"), std::set<std::string>{"one.cfg"});
    device()->apply("hostname two\n");
    device()->save();
    EXPECT_EQ(content(startup()), "hostname two\nend\n");
    EXPECT_EQ(content(state() / "backup.cfg"), expected) << "not asked for this time";
}

TEST_F(Device, AFileThatIsNamedThroughALinkOfItsDirectoryIsOneFile) {
    device()->apply("hostname one\n");
    std::filesystem::create_directory_symlink(state(), directory_ / "link");
    device()->save(
        {directory_ / "link" / "system.cfg", directory_ / "link" / "backup.cfg", "backup.cfg"}, {});
    EXPECT_EQ(content(startup()), "hostname one\nend\n");
    EXPECT_EQ(content(state() / "backup.cfg"), "hostname one\nend\n");
    EXPECT_EQ(names_in(state()),
              (std::set<std::string>{"backup.cfg", "running.cfg", "system.cfg"}));
}

TEST_F(Device, ASaveThatIsGivenUpChangesNothing) {
    device()->apply("hostname one\n");
    device()->save({"backup.cfg"}, {});
    device()->apply("hostname two\n");
    std::set<std::string> prepared;
    EXPECT_EQ(failure([&] {
                  device()->save({"backup.cfg", "new.cfg"}, [&] {
                      prepared = names_in(state());
                      EXPECT_EQ(content(state() / "system.cfg.new"), "hostname two\nend\n");
                      EXPECT_EQ(content(startup()), "hostname one\nend\n");
                      throw std::runtime_error("given up");
                  });
              }),
              "given up");
    EXPECT_EQ(prepared, (std::set<std::string>{"backup.cfg", "backup.cfg.new", "new.cfg.new",
                                               "running.cfg", "system.cfg", "system.cfg.new"}));
    EXPECT_EQ(names_in(state()),
              (std::set<std::string>{"backup.cfg", "running.cfg", "system.cfg"}));
    EXPECT_EQ(content(startup()), "hostname one\nend\n");
    EXPECT_EQ(content(state() / "backup.cfg"), "hostname one\nend\n");
    device()->save();
    EXPECT_EQ(content(startup()), "hostname two\nend\n");
}

TEST_F(Device, AFileThatCantBePreparedStopsTheSave) {
    device()->save();
    device()->apply("hostname two\n");
    bool is_called = false;
    const std::string missing = (directory_ / "none" / "a.cfg").string();
    EXPECT_EQ(failure([&] {
                  device()->save({"backup.cfg", directory_ / "none" / "a.cfg"},
                                 [&] { is_called = true; });
              }),
              "cannot make " + missing + ": No such file or directory");
    EXPECT_FALSE(is_called);
    EXPECT_EQ(content(startup()), factory);
    EXPECT_EQ(names_in(state()), (std::set<std::string>{"running.cfg", "system.cfg"}));
}

TEST_F(Device, TheStartupConfigurationIsReplacedLast) {
    device()->apply("hostname one\n");
    device()->save();
    device()->apply("hostname two\n");
    // Nothing can be renamed to a directory. It comes after system.cfg in every order of names.
    std::filesystem::create_directory(state() / "zzz.cfg");
    EXPECT_NE(failure([&] { device()->save({"zzz.cfg", "backup.cfg"}, {}); }), "no failure");
    EXPECT_EQ(content(startup()), "hostname one\nend\n");
    EXPECT_EQ(content(state() / "backup.cfg"), "hostname two\nend\n")
        << "an earlier file may be new";
    EXPECT_EQ(names_in(state()),
              (std::set<std::string>{"backup.cfg", "running.cfg", "system.cfg", "zzz.cfg"}));
}

TEST_F(Device, StartsFromTheStartupConfiguration) {
    device()->apply("hostname forgotten\n");
    device()->store_startup("! rack 7\nvlan 7\nhostname seven\n");
    device()->start();
    EXPECT_EQ(content(running()), "hostname seven\nvlan 7\nend\n");
    EXPECT_EQ(content(startup()), "! rack 7\nvlan 7\nhostname seven\n");
}

TEST_F(Device, StartsFromTheFactoryDefaultWithoutAStartupConfiguration) {
    device()->apply("hostname forgotten\n");
    file("state/system.cfg.new", "hostname unfinished\n"); // of a save that was killed
    device()->start();
    EXPECT_EQ(content(running()), factory);
    EXPECT_FALSE(std::filesystem::exists(startup()));
}

TEST_F(Device, TheNextOperationRemovesWhatAKilledOneHasLeft) {
    device()->apply("hostname first\n");
    const std::vector<std::string> names = {"running.cfg.new", "system.cfg.new", "backup.cfg.new",
                                            "way-back.journal.new", "way-back.waiting.new"};
    for (const std::string &name : names) {
        file("state/" + name, "hostname unfinished\n");
    }
    device()->save();
    for (const std::string &name : names) {
        EXPECT_FALSE(std::filesystem::exists(scratch_.state(name))) << name;
    }
    EXPECT_EQ(content(startup()), "hostname first\nend\n");
}

TEST_F(Device, AStartupConfigurationThatIsNotValidStartsNothing) {
    device()->apply("hostname stays\n");
    file("state/system.cfg", "hostname a\nbogus\n");
    EXPECT_EQ(failure([&] { device()->start(); }),
              startup().string() + " is not valid: line 2: unknown statement 'bogus'");
    EXPECT_EQ(content(running()), "hostname stays\nend\n");
    EXPECT_EQ(content(startup()), "hostname a\nbogus\n");
}

TEST_F(Device, AFileThatIsNotCommittedLeavesTheOldOne) {
    const auto target = file("state/a.cfg", "old");
    {
        const ulmo::ReplacedFile pending(target, "new");
        EXPECT_EQ(content(target), "old");
        EXPECT_EQ(content(target.string() + ".new"), "new");
        EXPECT_EQ(permissions(target.string() + ".new"), 0600U);
    }
    EXPECT_EQ(content(target), "old");
    EXPECT_FALSE(std::filesystem::exists(target.string() + ".new"));
    std::vector<ulmo::ReplacedFile> files;
    files.emplace_back(target, "newer");
    files.emplace_back(state() / "b.cfg", "b"); // moves the first one
    files.front().commit();
    files.clear();
    EXPECT_EQ(content(target), "newer");
    EXPECT_EQ(names_in(state()), std::set<std::string>{"a.cfg"});
}

TEST_F(Device, TheWaitForTheLockHasAnEnd) {
    device()->save();
    const std::string timed_out =
        "cannot lock " + (state() / "configuration.lock").string() + ": Connection timed out";
    {
        const ulmo::FileLock shared(state() / "configuration.lock", ulmo::FileLock::Mode::shared,
                                    milliseconds(0));
        EXPECT_EQ(device(milliseconds(0))->show(ConfigurationStore::running), factory);
        EXPECT_EQ(failure([&] { device(milliseconds(30))->apply("hostname x\n"); }), timed_out);
        EXPECT_EQ(failure([&] { device(milliseconds(0))->save(); }), timed_out);
        EXPECT_EQ(failure([&] { device(milliseconds(0))->store_startup(""); }), timed_out);
    }
    {
        const ulmo::FileLock exclusive(state() / "configuration.lock",
                                       ulmo::FileLock::Mode::exclusive, milliseconds(0));
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(failure([&] { device(milliseconds(50))->show(ConfigurationStore::running); }),
                  timed_out);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(50));
    }
    EXPECT_EQ(content(running()), factory);
    EXPECT_EQ(content(startup()), factory);
}

TEST_F(Device, AStreamOfReadersDoesNotKeepAWriterOut) {
    const auto lock_file = state() / "configuration.lock";
    std::atomic<bool> done{false};
    std::atomic<unsigned> reads{0};
    std::vector<std::thread> readers;
    for (unsigned i = 0; i < 6; ++i) {
        readers.emplace_back([&] {
            while (!done) {
                const ulmo::FileLock lock(lock_file, ulmo::FileLock::Mode::shared,
                                          ulmo::device_lock_wait);
                ++reads;
                std::this_thread::sleep_for(milliseconds(7));
            }
        });
    }
    while (reads < 20) {
        std::this_thread::yield();
    }
    EXPECT_EQ(failure([&] {
                  for (unsigned i = 0; i < 5; ++i) {
                      device(milliseconds(60'000))->store_startup("hostname a\n");
                  }
              }),
              "no failure");
    done = true;
    for (std::thread &reader : readers) {
        reader.join();
    }
}

TEST_F(Device, ConcurrentReadersSeeWholeConfigurations) {
    // Every version names its number twice, far apart.
    const auto version = [](unsigned number) {
        std::string text = "hostname v" + std::to_string(number) + "\n";
        for (unsigned i = 1; i <= 200; ++i) {
            text += "vlan " + std::to_string(i) + "\n name filler\n";
        }
        return text + "snmp-server contact v" + std::to_string(number) + "\n";
    };
    device()->apply(version(0));
    device()->save();
    std::atomic<bool> done{false};
    std::atomic<unsigned> reads{0};
    const auto read = [&] {
        while (!done || reads < 20) {
            for (const auto which : {ConfigurationStore::running, ConfigurationStore::startup}) {
                const std::string text = device()->show(which);
                const auto first = text.substr(9, text.find('\n') - 9);
                EXPECT_TRUE(text.ends_with("snmp-server contact " + first + "\nend\n")) << text;
                ++reads;
            }
        }
    };
    // The writer is forked before there are threads, whose locks it would inherit.
    const pid_t writer = host_test::start_child([&] {
        for (unsigned i = 1; i <= 60; ++i) {
            device()->apply(version(i));
            device()->save();
        }
        return 0;
    });
    std::thread first_reader(read);
    std::thread second_reader(read);
    const int written = host_test::exit_status_of(writer);
    done = true;
    first_reader.join();
    second_reader.join();
    EXPECT_EQ(written, 0);
    EXPECT_EQ(shown().substr(0, 13), "hostname v60\n");
}

TEST_F(Device, ConcurrentChangesAreNotLost) {
    std::vector<std::thread> writers;
    for (unsigned writer = 0; writer < 4; ++writer) {
        writers.emplace_back([this, writer] {
            for (unsigned i = 0; i < 10; ++i) {
                device()->apply("vlan " + std::to_string(1 + writer * 10 + i) + "\n");
            }
        });
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    std::string expected = "hostname switch\n";
    for (unsigned i = 1; i <= 40; ++i) {
        expected += "vlan " + std::to_string(i) + "\n";
    }
    EXPECT_EQ(shown(), expected + "end\n");
}

TEST_F(Device, AKilledWriterLeavesWholeFiles) {
    std::string versions[2];
    for (unsigned v = 0; v < 2; ++v) {
        versions[v] = "hostname v" + std::to_string(v) + "\n";
        for (unsigned i = 1; i <= 1500; ++i) {
            versions[v] += "vlan " + std::to_string(i) + "\n  name " +
                           std::string(30, static_cast<char>('a' + v)) + "\n";
        }
        versions[v] += "end\n";
    }
    device()->apply(versions[0]);
    device()->save();
    std::mt19937 random(20240501);
    unsigned seen[2] = {0, 0};
    unsigned interrupted = 0;
    // The files that only exist while a writer is at work, before it renames them.
    const auto traces = [this] {
        std::vector<std::int64_t> all;
        for (const char *name : {"running.cfg.new", "system.cfg.new"}) {
            struct stat status {};
            ::stat((state() / name).c_str(), &status);
            all.insert(all.end(), {static_cast<std::int64_t>(status.st_ino), status.st_size,
                                   status.st_mtim.tv_sec, status.st_mtim.tv_nsec});
        }
        return all;
    };
    for (unsigned round = 0; round < 60; ++round) {
        const auto left = traces();
        const pid_t child = ::fork();
        if (child == 0) {
            try {
                for (unsigned i = round;; ++i) {
                    device()->store_startup(versions[i % 2]);
                    device()->apply(versions[(i + 1) % 2]);
                    device()->save();
                }
            } catch (...) {
                ::_exit(1);
            }
        }
        const auto given_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (traces() == left && std::chrono::steady_clock::now() < given_up) {
            std::this_thread::yield();
        }
        if (round % 2 != 0) { // not immediately, but during whatever it does then
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 15'000));
        }
        ASSERT_EQ(::kill(child, SIGKILL), 0);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed by itself";
        for (const auto &path : {running(), startup()}) {
            const std::string text = content(path);
            const auto version = std::find(std::begin(versions), std::end(versions), text);
            ASSERT_NE(version, std::end(versions))
                << "round " << round << ": " << path << " holds " << text.size() << " octets";
            ++seen[version - std::begin(versions)];
        }
        interrupted += std::filesystem::exists(state() / "running.cfg.new") ||
                               std::filesystem::exists(state() / "system.cfg.new")
                           ? 1
                           : 0;
    }
    EXPECT_GT(seen[0], 0U);
    EXPECT_GT(seen[1], 0U);
    EXPECT_GT(interrupted, 0U) << "no writer was killed in the middle of a write";
    device()->save();
    device()->apply("hostname last\n");
    EXPECT_FALSE(std::filesystem::exists(state() / "running.cfg.new"));
    EXPECT_FALSE(std::filesystem::exists(state() / "system.cfg.new"));
}

TEST_F(Device, AFullDiskChangesNothing) {
    REQUIRE_SUPERUSER("mounts a small disk");
    // In a mount namespace of its own, so that the disk vanishes with the process.
    EXPECT_EQ(
        host_test::in_child([this] {
            if (!get_own_mounts() ||
                ::mount("small", state().c_str(), "tmpfs", 0, "size=64k,mode=0700") != 0) {
                return 1;
            }
            device()->apply("hostname one\n");
            device()->save();
            std::string large;
            for (unsigned i = 1; i <= 2000; ++i) {
                large += "vlan " + std::to_string(i) + "\n name " + std::string(30, 'x') + "\n";
            }
            const std::string applied = failure([&] { device()->apply(large); });
            const std::string stored = failure([&] { device()->store_startup(large); });
            EXPECT_EQ(applied, "cannot write " + running().string() + ": No space left on device");
            EXPECT_EQ(stored, "cannot write " + startup().string() + ": No space left on device");
            EXPECT_EQ(content(running()), "hostname one\nend\n");
            EXPECT_EQ(content(startup()), "hostname one\nend\n");
            EXPECT_FALSE(std::filesystem::exists(running().string() + ".new"));
            EXPECT_FALSE(std::filesystem::exists(startup().string() + ".new"));
            device()->apply("hostname two\n"); // there is space again
            EXPECT_EQ(shown(), "hostname two\nend\n");
            return HasFailure() ? 2 : 0;
        }),
        0);
}

TEST_F(Device, TheSettingChoosesTheBackend) {
    EXPECT_EQ(ulmo::make_device()->show(ConfigurationStore::running), factory);
    file("platform.conf", "device_backend = embedded\n");
    EXPECT_EQ(ulmo::make_device()->show(ConfigurationStore::running), factory);
    file("platform.conf", "device_backend = remote\n");
    EXPECT_EQ(failure([] { ulmo::make_device(); }),
              (directory_ / "platform.conf").string() +
                  " line 1: device_backend = remote: must be one of embedded, frr, command; copies "
                  "and saves fail");
}

TEST_F(Device, AConfigurationFileIsARegularFileOfBoundedSize) {
    const auto refused = [](const std::filesystem::path &path) {
        try {
            ulmo::read_configuration_file(path);
        } catch (const ConfigurationError &error) {
            EXPECT_EQ(error.kind(), ConfigurationError::Kind::bad_file);
            return std::string(error.what());
        }
        return std::string("no failure");
    };
    EXPECT_EQ(ulmo::read_configuration_file(file("good", "any\n")), "any\n");
    EXPECT_EQ(ulmo::read_configuration_file(file("empty", "")), "");
    const auto path = directory_ / "none";
    EXPECT_EQ(refused(path), "cannot open " + path.string() + ": No such file or directory");
    EXPECT_EQ(refused(""), "cannot open: No such file or directory");
    EXPECT_EQ(refused(directory_),
              "not a regular file: " + directory_.string() + ": Is a directory");
    EXPECT_EQ(refused("/dev/zero"), "not a regular file: /dev/zero: Invalid argument");
    const auto fifo = directory_ / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(refused(fifo), "not a regular file: " + fifo.string() + ": Invalid argument");
    const auto large = file("large", "");
    std::filesystem::resize_file(large, ulmo::configuration_text_limit);
    EXPECT_EQ(ulmo::read_configuration_file(large).size(), ulmo::configuration_text_limit);
    std::filesystem::resize_file(large, ulmo::configuration_text_limit + 1);
    EXPECT_EQ(refused(large), large.string() + " is larger than 134217728 octets: File too large");
}

} // namespace
