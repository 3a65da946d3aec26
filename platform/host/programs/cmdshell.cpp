// cmdshell: the command line of the switch.
//
//   cmdshell -c COMMAND   runs one command
//   cmdshell              reads commands from standard input, one a line; `help` lists them. After
//                         a failed command it goes on at a terminal and stops otherwise, so that
//                         no later command of a script builds on the failure.
//
// Exits with 0 if all went well, 1 if a command failed (one line on standard error says why) and 2
// on wrong usage.
#include "base/posix.h"
#include "base/reason.h"
#include "base/settings.h"
#include "base/text.h"
#include "platform/host/device/device.h"
#include "platform/host/history/copy_record.h"
#include "platform/host/history/copy_report.h"
#include "platform/host/system_manager/last_save.h"
#include "platform/host/system_manager/save_request.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view take_word(std::string_view &text) {
    const std::string_view word = text.substr(0, text.find_first_of(blanks));
    text.remove_prefix(word.size());
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return word;
}

// The words of a command with single blanks between them.
std::string normalised(std::string_view text) {
    std::string words;
    while (!text.empty()) {
        words.append(words.empty() ? "" : " ").append(take_word(text));
    }
    return words;
}

void print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        ulmo::throw_errno("cannot write the output");
    }
}

void show_running() {
    ulmo::make_device()->print(ulmo::ConfigurationStore::running, STDOUT_FILENO);
}

void show_startup() {
    ulmo::make_device()->print(ulmo::ConfigurationStore::startup, STDOUT_FILENO);
}

// The user of this process, for the system manager's log.
std::string user_name() {
    const passwd *entry = ::getpwuid(::getuid());
    return entry != nullptr ? entry->pw_name : std::to_string(::getuid());
}

void copy_running_to_startup() {
    // The system manager runs one save at a time and notifies everybody. If it is not running, the
    // configuration is saved all the same.
    if (!ulmo::request_save(user_name())) {
        ulmo::make_device()->save();
    }
}

void show_last_save() {
    const auto outcome = ulmo::last_save();
    if (!outcome) {
        throw std::runtime_error("nothing has been saved since the switch started");
    }
    print(*outcome + "\n");
}

void show_copies() {
    const std::string lines = ulmo::kept_copy_lines();
    if (lines.empty()) {
        throw std::runtime_error(
            "no manager has copied or saved anything since the switch started");
    }
    print(lines);
}

void show_pending() {
    const auto change = ulmo::make_device()->pending();
    if (!change) {
        print("no change waits to be saved\n");
        return;
    }
    const std::string made = "the change of " + ulmo::time_text(change->made);
    const std::string limit = std::to_string(change->limit.count()) + " s";
    const auto left = std::chrono::ceil<std::chrono::seconds>(change->left).count();
    if (left <= 0) {
        print(made + " was not saved within " + limit +
              ": the configuration before it comes back now\n");
        return;
    }
    print(made + " must be saved within " + limit + ", of which " + std::to_string(left) +
          " s are left: otherwise the configuration before it comes back\n");
}

void copy_startup_to_running() {
    const auto device = ulmo::make_device();
    device->apply(device->show(ulmo::ConfigurationStore::startup));
}

void mend_startup() {
    if (ulmo::make_device()->mend_startup()) {
        print("a save was cut off: the startup configuration is again the one before it\n");
    }
}

std::string setting_lines(const ulmo::Setting &setting) {
    const std::string begin =
        (ulmo::is_default(setting) ? "#" : "") + std::string(setting.name) + " =";
    try {
        const auto values = ulmo::setting_values(setting);
        std::string lines = values.empty() ? begin + "\n" : "";
        for (const std::string &value : values) {
            lines += begin + " " + (setting.is_secret ? "..." : value) + "\n";
        }
        return lines;
    } catch (const ulmo::SettingsError &) {
        return begin + " (bad: " + std::string(setting.fails) + ")\n"; // print_problems() says why
    }
}

void print_problems() {
    for (const std::string &problem : ulmo::settings_problems()) {
        std::fprintf(stderr, "cmdshell: %s\n", problem.c_str());
    }
}

// Prints the effective settings in the format of platform.conf; defaults are commented out.
void show_settings() {
    std::string text;
    for (const ulmo::Setting &setting : ulmo::all_settings) {
        text += setting_lines(setting);
    }
    print(text);
    print_problems();
}

struct Command {
    const char *words;
    void (*run)();
    const char *help;
};

constexpr Command commands[] = {
    {"show running-config", show_running, "print the running configuration"},
    {"show startup-config", show_startup, "print the startup configuration"},
    {"show last-save", show_last_save, "print the outcome of the last save"},
    {"show copies", show_copies, "print the last copies and saves that managers asked for"},
    {"show pending", show_pending, "print the change that must still be saved, and the time left"},
    {"show settings", show_settings, "print the settings in force, defaults with a '#' in front"},
    {"copy running-config startup-config", copy_running_to_startup,
     "save the running configuration"},
    {"copy startup-config running-config", copy_startup_to_running,
     "apply the startup configuration"},
    {"mend startup-config", mend_startup, "undo a save that was cut off, before the device starts"},
};

constexpr std::string_view configure = "configure";

void help() {
    std::string text;
    const auto add = [&text](const std::string &words, const char *what) {
        constexpr std::size_t column = 38;
        text += words + std::string(column - words.size(), ' ') + what + "\n";
    };
    for (const Command &command : commands) {
        add(command.words, command.help);
    }
    add("configure FILE", "apply a configuration file to the running configuration");
    add("help", "print this list");
    add("exit", "end the shell");
    print(text);
}

void run(std::string_view text) {
    const std::string words = normalised(text);
    if (words == "help") {
        help();
        return;
    }
    for (const Command &command : commands) {
        if (words == command.words) {
            command.run();
            return;
        }
    }
    std::string_view file = text; // a file name keeps its blanks
    if (take_word(file) == configure) {
        if (file.empty()) {
            throw std::runtime_error("a file name is missing");
        }
        ulmo::make_device()->apply(ulmo::read_configuration_file(file));
        return;
    }
    throw std::runtime_error("unknown command; 'help' lists the commands");
}

bool succeeds(std::string_view line) {
    const std::string_view text = ulmo::trimmed(line);
    try {
        run(text);
        return true;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "cmdshell: %.*s: %s\n", static_cast<int>(text.size()), text.data(),
                     error.what());
        ulmo::report_reason(ulmo::reason_of(error)); // for the report, if a copy runs this
        return false;
    }
}

int read_commands() {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    for (std::string line;;) {
        if (terminal) {
            std::cout << "cmdshell> " << std::flush;
        }
        if (!std::getline(std::cin, line)) {
            break;
        }
        const std::string_view text = ulmo::trimmed(line);
        if (text.empty()) {
            continue;
        }
        if (text == "exit") {
            return 0;
        }
        if (!succeeds(text) && !terminal) {
            return 1;
        }
    }
    if (terminal) {
        std::cout << std::endl;
    }
    if (std::cin.bad()) {
        std::fputs("cmdshell: cannot read commands\n", stderr);
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    // So that a reader that has gone is an output error like any other.
    std::signal(SIGPIPE, SIG_IGN);
    if (::isatty(STDERR_FILENO) == 1) {
        print_problems();
    }
    if (argc == 1) {
        return read_commands();
    }
    if (argc == 3 && std::strcmp(argv[1], "-c") == 0) {
        return succeeds(argv[2]) ? 0 : 1;
    }
    std::fputs("usage: cmdshell [-c COMMAND]\n", stderr);
    return 2;
}
