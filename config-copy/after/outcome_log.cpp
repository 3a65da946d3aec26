#include "config-copy/after/outcome_log.h"

#include "base/posix.h"
#include "base/unique_fd.h"
#include "config-copy/output/json_output.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <system_error>

namespace config_copy {
namespace {

// Ends a line that a killed process or a power failure has cut: readers skip it, and the next one
// is whole.
bool has_cut_line(int file, off_t size) {
    char last = '\n';
    if (size > 0) {
        ulmo::check(::pread(file, &last, 1, size - 1), "cannot read");
    }
    return last != '\n';
}

void append(int file, const std::string &name, const std::string &lines) {
    ulmo::check(::flock(file, LOCK_EX), "cannot lock", name);
    const off_t size = ulmo::regular_file_status(file, name).st_size;
    try {
        ulmo::write_whole(file, (has_cut_line(file, size) ? "\n" : "") + lines, name);
    } catch (const std::system_error &) {
        [[maybe_unused]] const int result = ::ftruncate(file, size);
        throw;
    }
}

} // namespace

void append_outcomes(const std::string &file, const std::vector<Outcome> &outcomes,
                     std::time_t now) {
    std::string lines;
    for (const Outcome &outcome : outcomes) {
        lines += json_record(outcome, now) + '\n';
    }
    try {
        constexpr mode_t for_the_user = 0600;
        // O_NONBLOCK only keeps a FIFO from blocking.
        const ulmo::UniqueFd opened(ulmo::check(::open(
            file.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, for_the_user)));
        append(opened.get(), file, lines);
    } catch (const std::system_error &error) {
        throw Failure(ExitStatus::failed,
                      "--outcomes: " + file + " can't be written: " + error.code().message());
    }
}

} // namespace config_copy
