#include "journal.h"

#include <csignal>
#include <cstdio>

JournalFake journal;

void JournalFake::note(const std::string &line) {
    lines.items.push_back(line);
    if (on_line) {
        on_line(line);
    }
}

void JournalFake::reset() {
    lines.take();
    on_line = nullptr;
}

void JournalFake::verify() {
    for (const std::string &line : lines.items) {
        unexpected(line);
    }
}

std::string sigchld_disposition() {
    struct sigaction action {};
    sigaction(SIGCHLD, nullptr, &action);
    if (action.sa_handler == SIG_DFL) {
        return " default";
    }
    return action.sa_handler == SIG_IGN ? " ignored" : " other";
}

std::string hex(const void *octets, std::size_t length) {
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char *>(octets)[i]);
        text += digits;
    }
    return text;
}
