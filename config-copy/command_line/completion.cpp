#include "config-copy/command_line/completion.h"

#include "config-copy/command_line/options.h"
#include "config-copy/command_line/profiles.h"
#include "config-copy/failure.h"

#include <algorithm>
#include <array>
#include <vector>

namespace config_copy {
namespace {

// An option as the user writes it, with its hyphens.
struct Completed {
    std::vector<std::string> names;
    std::string help;
    std::string argument; // empty: it takes no value
    std::string words;    // that the value may be
};

struct SnmpOption {
    char letter;
    std::string_view argument;
    std::string_view help;
    std::string_view words;
};

// Of snmpcmd(1). The other letters are completed by none of the shells.
constexpr std::array<SnmpOption, 15> snmp_options{
    {{'v', "VERSION", "version of SNMP", "1 2c 3"},
     {'c', "COMMUNITY", "community of SNMPv1 and SNMPv2c", ""},
     {'u', "USER", "user of SNMPv3", ""},
     {'l', "LEVEL", "security level", "noAuthNoPriv authNoPriv authPriv"},
     {'a', "PROTOCOL", "authentication protocol", "MD5 SHA SHA-224 SHA-256 SHA-384 SHA-512"},
     {'A', "PASSPHRASE", "authentication passphrase", ""},
     {'x', "PROTOCOL", "privacy protocol", "DES AES"},
     {'X', "PASSPHRASE", "privacy passphrase", ""},
     {'n', "CONTEXT", "context", ""},
     {'e', "ENGINE", "engine id of the user", ""},
     {'E', "ENGINE", "engine id of the context", ""},
     {'r', "NUMBER", "repetitions of a request", ""},
     {'t', "SECONDS", "time for an answer", ""},
     {'Z', "BOOTS,TIME", "engine boots and time", ""},
     {'T', "NAME=VALUE", "setting of the transport", ""}}};

std::vector<Completed> all_options() {
    std::vector<Completed> all;
    for (const OwnOption &option : own_options()) {
        if (option.is_hidden()) {
            continue;
        }
        Completed &completed = all.emplace_back();
        if (option.letter != 0) {
            completed.names.push_back({'-', option.letter});
        }
        completed.names.push_back("--" + std::string(option.name));
        completed.help = option.help;
        std::replace(completed.help.begin(), completed.help.end(), '\n', ' ');
        completed.argument = option.argument;
    }
    for (const auto &[letter, argument, help, words] : snmp_options) {
        all.push_back(
            {{{'-', letter}}, std::string(help), std::string(argument), std::string(words)});
    }
    return all;
}

// In quotes of any shell.
std::string shell_quoted(const std::string &text, std::string_view escaped = {}) {
    std::string quoted = "'";
    for (const char c : text) {
        if (c == '\'') {
            quoted += "'\\''";
        } else {
            quoted += escaped.find(c) != std::string_view::npos ? "\\" : "";
            quoted += c;
        }
    }
    return quoted + '\'';
}

// The names of the options that take a value, with all that snmpcmd(1) has.
std::string names_with_value() {
    std::string text;
    for (const Completed &option : all_options()) {
        if (!option.argument.empty() && option.names.front().starts_with("--")) {
            text += ' ' + option.names.front();
        }
    }
    for (const char letter : letters_with_value) {
        text += {' ', '-', letter};
    }
    return text;
}

std::string for_bash() {
    std::string names;
    std::string files;
    std::string words;
    for (const Completed &option : all_options()) {
        for (const std::string &name : option.names) {
            names += ' ' + name;
        }
        if (takes_file(option.argument)) {
            files += ' ' + option.names.back();
        } else if (!option.words.empty()) {
            words += "\n    [" + option.names.back() + "]=" + shell_quoted(option.words);
        }
    }
    return "# shellcheck shell=bash disable=SC2034 # the functions below use it\n"
           "_config_copy_options=(" +
           names.substr(1) + ")\n_config_copy_with_value=(" + names_with_value().substr(1) +
           ")\n_config_copy_with_file=(" + files.substr(1) + ")\ndeclare -gA _config_copy_words=(" +
           words + "\n)\n";
}

std::string for_zsh() {
    std::string text = "#compdef config-copy\nlocal -a config_copy_options=(\n";
    for (const Completed &option : all_options()) {
        const bool has_value = !option.argument.empty();
        std::string all;
        for (const std::string &name : option.names) {
            all += (all.empty() ? "" : " ") + name;
        }
        for (const std::string &name : option.names) {
            const bool is_long = name.starts_with("--");
            std::string spec = option.argument == "NAME" || name == "-T" ? "*" : '(' + all + ')';
            spec += name + (!has_value ? "" : is_long ? "=" : "+");
            spec += '[' + option.help + ']';
            if (has_value) {
                spec += ':' + option.argument + ':' +
                        (takes_file(option.argument) ? "_files"
                         : option.words.empty()      ? " "
                                                     : '(' + option.words + ')');
            }
            text += "    " + shell_quoted(spec) + '\n';
        }
    }
    return text + ")\n";
}

std::string for_fish() {
    std::string text = "set -g __config_copy_with_value" + names_with_value() + '\n';
    for (const Completed &option : all_options()) {
        text += "complete -c config-copy";
        for (const std::string &name : option.names) {
            text += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
        }
        if (!option.argument.empty()) {
            text += takes_file(option.argument) ? " -rF" : " -x";
        }
        if (!option.words.empty()) {
            text += " -a " + shell_quoted(option.words);
        }
        text += " -d " + shell_quoted(option.help, "\\") + '\n';
    }
    return text;
}

std::string names_of_profiles() {
    std::string text;
    for (const std::string &name : Profiles(configuration_files()).names()) {
        text += name + '\n';
    }
    return text;
}

} // namespace

std::string completion(std::string_view what) {
    if (what == "bash") {
        return for_bash();
    }
    if (what == "zsh") {
        return for_zsh();
    }
    if (what == "fish") {
        return for_fish();
    }
    if (what == "profiles") {
        return names_of_profiles();
    }
    throw bad_usage("--completion needs bash, zsh, fish or profiles");
}

} // namespace config_copy
