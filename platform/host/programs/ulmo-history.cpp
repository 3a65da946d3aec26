// ulmo-history: prints the debug history, and follows it from one file to the next.
#include "base/posix.h"
#include "base/unique_fd.h"
#include "platform/host/history/history.h"

#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <list>
#include <string>
#include <string_view>

namespace {

constexpr int exit_printed = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

constexpr const char *help =
    "Usage: ulmo-history [-f] [--errors] [-p PID]\n"
    "Prints the platform's debug history, oldest record first, one a line: UTC time, process id,\n"
    "error or debug (or the number of the subtype), text. The files are /run/ulmo/history.log.1\n"
    "and history.log, which any tool for logs can read, too.\n"
    "\n"
    "  -f, --follow       go on with new records as they come, until interrupted\n"
    "      --errors       only errors\n"
    "  -p, --process PID  only what this process has recorded\n"
    "      --help         this text\n"
    "\n"
    "Exit status: 0 the history was printed; 1 there is none, it can't be read or the output\n"
    "can't be written; 2 wrong usage.\n";

struct Options {
    bool follow = false;
    bool errors_only = false;
    std::string process;
};

// Removes the first word and the blank after it from `rest` and returns the word.
std::string_view next_word(std::string_view &rest) {
    const std::string_view word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(std::min(word.size() + 1, rest.size()));
    return word;
}

bool is_wanted(const Options &options, std::string_view line) {
    next_word(line); // the time
    const std::string_view process = next_word(line);
    const std::string_view kind = next_word(line);
    return (options.process.empty() || process == options.process) &&
           (!options.errors_only || kind == "error");
}

struct stat status_of(const ulmo::UniqueFd &file) {
    struct stat status {};
    ulmo::check(::fstat(file.get(), &status));
    return status;
}

// One of the history's files, whatever its present name.
class Generation {
  public:
    explicit Generation(ulmo::UniqueFd file) : file_(std::move(file)) {}

    [[nodiscard]] bool is(const struct stat &status) const {
        const struct stat own = status_of(file_);
        return own.st_dev == status.st_dev && own.st_ino == status.st_ino;
    }

    // Prints what was appended since the last call. Returns false if nothing more can follow.
    bool print_new(const Options &options) {
        const bool has_name = status_of(file_).st_nlink != 0;
        std::array<char, 65536> part;
        for (ssize_t count = 0;
             (count = ulmo::check(::read(file_.get(), part.data(), part.size()))) != 0;) {
            print_lines({part.data(), static_cast<std::size_t>(count)}, options);
        }
        return has_name;
    }

  private:
    // A record may be read while it is being written: it is printed once its line is complete.
    void print_lines(std::string_view part, const Options &options) {
        unfinished_ += part;
        std::string_view rest = unfinished_;
        for (std::size_t end = 0; (end = rest.find('\n')) != std::string_view::npos;
             rest.remove_prefix(end + 1)) {
            if (is_wanted(options, rest.substr(0, end))) {
                std::fwrite(rest.data(), 1, end + 1, stdout);
            }
        }
        unfinished_.erase(0, unfinished_.size() - rest.size());
    }

    ulmo::UniqueFd file_;
    std::string unfinished_;
};

// Adds the files that are not in `generations` yet. For a moment, a file being renamed may be
// missed under both names; the next call finds it.
void find_new(std::list<Generation> &generations) {
    for (const auto &path : {ulmo::older_history_file(), ulmo::history_file()}) {
        ulmo::UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!file && errno == ENOENT) {
            continue;
        }
        ulmo::check(file.get(), {}, path.native());
        const struct stat status = ulmo::regular_file_status(file.get(), path.native());
        const auto is_known = [&](const Generation &each) { return each.is(status); };
        if (std::none_of(generations.begin(), generations.end(), is_known)) {
            generations.emplace_back(std::move(file));
        }
    }
}

// Flushes standard output; returns false on failure.
bool flushed() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return true;
    }
    std::perror("ulmo-history: cannot write");
    return false;
}

int print_history(const Options &options) {
    std::list<Generation> generations;
    find_new(generations);
    if (generations.empty()) {
        ulmo::throw_error(ENOENT, {}, ulmo::history_file().native());
    }
    for (;;) {
        generations.remove_if([&](Generation &each) { return !each.print_new(options); });
        if (!flushed()) {
            return exit_failed;
        }
        if (!options.follow) {
            return exit_printed;
        }
        const timespec pause{0, 200'000'000};
        ::nanosleep(&pause, nullptr);
        find_new(generations);
    }
}

// Returns false on wrong usage.
bool parse_options(int argc, char **argv, Options &options, bool &wants_help) {
    const option long_options[] = {{"follow", no_argument, nullptr, 'f'},
                                   {"errors", no_argument, nullptr, 'e'},
                                   {"process", required_argument, nullptr, 'p'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    for (int choice = 0; (choice = getopt_long(argc, argv, "fp:", long_options, nullptr)) != -1;) {
        switch (choice) {
        case 'f':
            options.follow = true;
            break;
        case 'e':
            options.errors_only = true;
            break;
        case 'p':
            options.process = optarg;
            if (options.process.empty() ||
                options.process.find_first_not_of("0123456789") != std::string::npos) {
                std::fprintf(stderr, "ulmo-history: not a process id: %s\n", optarg);
                return false;
            }
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
    return print_history(options);
} catch (const std::exception &error) {
    std::fprintf(stderr, "ulmo-history: cannot read the history: %s\n", error.what());
    return exit_failed;
}
