#include "config-copy/command_line/text_file.h"

#include "base/posix.h"
#include "base/unique_fd.h"
#include "config-copy/failure.h"
#include "config-copy/interrupt.h"
#include "copy_client/waiting.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>

namespace config_copy {
namespace {

// A million agents.
constexpr std::size_t largest_file = std::size_t{64} * 1024 * 1024;

constexpr std::string_view blanks = " \t\r";

bool is_escaped_in_quotes(char c) {
    return c == '\\' || c == '"' || c == '$' || c == '`';
}

// Reads the word that begins at line[at], and moves `at` behind it.
std::string word_of(std::string_view line, std::size_t &at) {
    std::string word;
    char quote = 0;
    for (; at < line.size(); ++at) {
        const char c = line[at];
        const bool is_special = quote != '\'';
        if (c == quote) {
            quote = 0;
        } else if (is_special && c == '\\' && at + 1 == line.size()) {
            throw bad_usage("nothing follows a '\\'");
        } else if (is_special && c == '\\' && (quote == 0 || is_escaped_in_quotes(line[at + 1]))) {
            word += line[++at];
        } else if (quote == 0 && (c == '\'' || c == '"')) {
            quote = c;
        } else if (quote == 0 && blanks.find(c) != std::string_view::npos) {
            break;
        } else {
            word += c;
        }
    }
    if (quote != 0) {
        throw bad_usage(std::string("a ") + quote + " is not closed");
    }
    return word;
}

} // namespace

TextFile read_text_file(const std::string &name) {
    const ulmo::UniqueFd opened(
        name == "-" ? -1 : ulmo::check(::open(name.c_str(), O_RDONLY | O_CLOEXEC)));
    const int descriptor = name == "-" ? STDIN_FILENO : opened.get();
    struct stat status {};
    ulmo::check(::fstat(descriptor, &status));
    TextFile file;
    file.is_readable_by_others =
        S_ISREG(status.st_mode) && (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
    std::array<char, std::size_t{64} * 1024> part;
    for (;;) {
        // A pipe or a terminal may stay open for long.
        while (!copy_client::wait_for_input(descriptor, interrupt_descriptor(),
                                            std::chrono::hours(1))) {
        }
        const ssize_t count = ::read(descriptor, part.data(), part.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (ulmo::check(count) == 0) {
            return file;
        }
        file.text.append(part.data(), static_cast<std::size_t>(count));
        if (file.text.size() > largest_file) {
            ulmo::throw_error(EFBIG);
        }
    }
}

std::vector<std::string> words_of(std::string_view line) {
    std::vector<std::string> words;
    for (std::size_t at = 0;;) {
        at = line.find_first_not_of(blanks, at);
        if (at == std::string_view::npos || line[at] == '#') {
            return words;
        }
        words.push_back(word_of(line, at));
        if (std::any_of(words.back().begin(), words.back().end(),
                        [](unsigned char c) { return c < ' ' || c == 0x7F; })) {
            throw bad_usage("there is a control character");
        }
    }
}

std::string quoted(const std::string &word) {
    const bool is_plain = !word.empty() && std::all_of(word.begin(), word.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
               std::string_view("._-:/@%+,=").find(c) != std::string_view::npos;
    });
    if (is_plain) {
        return word;
    }
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? std::string(R"('\'')") : std::string(1, c);
    }
    return text + '\'';
}

bool is_plain_name(std::string_view name) {
    return !name.empty() && name[0] != '.' && name[0] != '-' &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return std::isalnum(c) != 0 || c == '.' || c == '-' || c == '_';
           });
}

} // namespace config_copy
