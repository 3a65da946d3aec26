// ulmo-history: prints the debug history.
#include "platform/evtrace.h"
#include "platform/host/history/history.h"
#include "platform/host/history/ring.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <limits>
#include <string>
#include <string_view>

namespace {

constexpr int exit_printed = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

constexpr const char *help =
    "Usage: ulmo-history [-f] [-n COUNT] [--errors]\n"
    "Prints the platform's debug history, oldest record first: time, process id, error or debug (or the number of the subtype), text.\n"
    "Octets of the text that are not printable ASCII are written as \\n, \\r, \\t or \\xNN, a backslash as \\\\; line ends at its end are "
    "left out.\n"
    "\n"
    "  -f, --follow       go on with new records as they come, until interrupted\n"
    "  -n, --lines COUNT  only the last COUNT records\n"
    "      --errors       only errors\n"
    "      --help         this text\n"
    "\n"
    "Exit status: 0 the history was printed; 1 there is none, it can't be read or the output can't be written; 2 wrong usage.\n";

struct Options {
    bool follow = false;
    bool errors_only = false;
    std::size_t count = std::numeric_limits<std::size_t>::max();
};

std::string escaped(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    std::string line;
    for (const char c : text) {
        if (c == '\\') {
            line += "\\\\";
        } else if (c >= ' ' && c <= '~') {
            line += c;
        } else if (c == '\n') {
            line += "\\n";
        } else if (c == '\r') {
            line += "\\r";
        } else if (c == '\t') {
            line += "\\t";
        } else {
            char code[5];
            std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            line += code;
        }
    }
    return line;
}

// Local time with its offset, as in RFC 3339, to the microsecond.
std::string time_text(std::uint64_t time_ns) {
    const auto seconds = static_cast<std::time_t>(time_ns / 1'000'000'000U);
    std::tm parts{};
    localtime_r(&seconds, &parts);
    char date[32] = "";
    char offset[8] = "";
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    std::strftime(offset, sizeof offset, "%z", &parts);
    char text[64];
    std::snprintf(text, sizeof text, "%s.%06u%.3s:%s", date, static_cast<unsigned>(time_ns / 1000U % 1'000'000U), offset,
                  std::strlen(offset) > 3 ? offset + 3 : "00");
    return text;
}

std::string line_of(const ulmo::HistoryRecord &record) {
    const std::string subtype = record.subtype == EVTRACE_ERROR   ? "error"
                                : record.subtype == EVTRACE_DEBUG ? "debug"
                                                                  : std::to_string(record.subtype);
    return time_text(record.time_ns) + ' ' + std::to_string(record.pid) + ' ' + subtype + ' ' + escaped(record.text) + '\n';
}

void print(const std::string &line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
}

// Pushes what was printed out; false when that failed.
bool flushed() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return true;
    }
    std::perror("ulmo-history: cannot write");
    return false;
}

bool is_wanted(const Options &options, const ulmo::HistoryRecord &record) {
    return !options.errors_only || record.subtype == EVTRACE_ERROR;
}

// Prints what the ring holds now and returns the number of the record to go on with.
std::uint64_t print_kept(const ulmo::HistoryRing &ring, const Options &options) {
    std::deque<std::string> lines;
    const std::uint64_t end = ring.end();
    ulmo::HistoryRecord record;
    for (std::uint64_t number = ring.begin(); number < end; ++number) {
        if (ring.read(number, record) != ulmo::HistoryRing::ReadResult::done || !is_wanted(options, record)) {
            continue;
        }
        lines.push_back(line_of(record));
        if (lines.size() > options.count) {
            lines.pop_front();
        }
    }
    for (const std::string &line : lines) {
        print(line);
    }
    return end;
}

void wait_a_little() {
    const timespec pause{0, 200'000'000};
    nanosleep(&pause, nullptr);
}

// Prints new records as they come. Returns only when the output fails.
void follow(ulmo::HistoryRing ring, std::uint64_t next, const Options &options) {
    // A writer that was killed between claim and text never delivers: after this many looks its record is given up.
    constexpr int longest_wait = 5;
    int waited = 0;
    ulmo::HistoryRecord record;
    while (flushed()) {
        bool is_pending = false;
        if (next < ring.begin()) {
            std::fprintf(stderr, "ulmo-history: %llu records came too fast\n", static_cast<unsigned long long>(ring.begin() - next));
            next = ring.begin();
        }
        while (next < ring.end() && !is_pending) {
            const auto result = ring.read(next, record);
            is_pending = result == ulmo::HistoryRing::ReadResult::pending && ++waited < longest_wait;
            if (!is_pending) {
                if (result == ulmo::HistoryRing::ReadResult::done && is_wanted(options, record)) {
                    print(line_of(record));
                }
                waited = 0;
                ++next;
            }
        }
        if (!flushed()) {
            return;
        }
        if (const auto file = ulmo::history_file(); !ring.is_in(file)) {
            try {
                ring = ulmo::HistoryRing::open_for_reading(file);
                next = 0;
                continue;
            } catch (const std::exception &) { // NOLINT: it is being made; the next look finds it
            }
        }
        wait_a_little();
    }
}

// Returns false on wrong usage.
bool parse_options(int argc, char **argv, Options &options, bool &wants_help) {
    const option long_options[] = {{"follow", no_argument, nullptr, 'f'},
                                   {"lines", required_argument, nullptr, 'n'},
                                   {"errors", no_argument, nullptr, 'e'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    for (int choice = 0; (choice = getopt_long(argc, argv, "fn:", long_options, nullptr)) != -1;) {
        switch (choice) {
        case 'f':
            options.follow = true;
            break;
        case 'n': {
            const std::string_view text = optarg;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), options.count);
            if (error != std::errc{} || end != text.data() + text.size()) {
                std::fprintf(stderr, "ulmo-history: not a number of records: %s\n", optarg);
                return false;
            }
            break;
        }
        case 'e':
            options.errors_only = true;
            break;
        case 'h':
            wants_help = true;
            break;
        default:
            return false;
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "ulmo-history: unexpected argument: %s\n", argv[optind]);
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char **argv) try {
    Options options;
    bool wants_help = false;
    if (!parse_options(argc, argv, options, wants_help)) {
        std::fputs("Try 'ulmo-history --help'.\n", stderr);
        return exit_usage;
    }
    if (wants_help) {
        std::fputs(help, stdout);
        return flushed() ? exit_printed : exit_failed;
    }
    ulmo::HistoryRing ring = ulmo::HistoryRing::open_for_reading(ulmo::history_file());
    const std::uint64_t next = print_kept(ring, options);
    if (options.follow) {
        follow(std::move(ring), next, options);
        return exit_failed;
    }
    return flushed() ? exit_printed : exit_failed;
} catch (const std::exception &error) {
    std::fprintf(stderr, "ulmo-history: cannot read the history: %s\n", error.what());
    return exit_failed;
}
