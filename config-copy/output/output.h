// Output to the user: text, with a live line on a terminal, or JSON, one object per line.
#pragma once

#include "config-copy/output/outcome.h"
#include "config-copy/output/progress.h"

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace config_copy {

inline constexpr std::string_view absent = "-"; // in a table

// A column's heading and what its cells hold.
struct Heading {
    std::string text;
    enum { words, numbers } cells = words;
};

// In JSON each row is an object of this type. Its keys are the headings in lower case, and absent
// cells are null.
struct Table {
    std::string_view type;
    std::string agent;
    std::vector<Heading> headings;
    std::vector<std::vector<std::string>> rows;
    std::string when_empty; // printed instead of an empty table
};

class Output {
  public:
    virtual ~Output() = default;

    // The state of a single copy.
    virtual void progress(std::string_view agent, const Step &step) = 0;

    // The outcome of a copy. Any thread may call it.
    virtual void outcome(const Outcome &outcome) = 0;

    // That so many agents are tried again after a pause.
    virtual void retrying(std::size_t agents, std::chrono::seconds pause) = 0;

    // How many of several copies ended in which way.
    virtual void summary(const std::vector<Outcome> &outcomes) = 0;

    virtual void table(const Table &table) = 0;

    // A request that was removed.
    virtual void removed(const std::string &agent, unsigned long index,
                         const std::string &text) = 0;

    // The reason why there is no outcome; `agent` may be empty.
    virtual void failure(const Failure &failure, const std::string &agent) = 0;

    // Writes the text to standard output unchanged.
    void put(std::string_view text);

    // The errno value of a failed write, or 0. A reader that has closed the pipe is not an error.
    [[nodiscard]] int error() const { return error_; }

  protected:
    std::mutex mutex_;

  private:
    int error_ = 0;
};

// How much is printed, and how.
struct Style {
    bool is_json = false;
    bool is_quiet = false;        // only errors
    bool is_verbose = false;      // messages are printed at the same time
    bool is_diff = false;         // outcomes are of comparisons
    bool has_many_agents = false; // a line for each
};

std::unique_ptr<Output> make_output(const Style &style);

// Parts of the implementation.

inline constexpr std::array<ExitStatus, 7> all_statuses{
    ExitStatus::done,    ExitStatus::different,   ExitStatus::failed, ExitStatus::usage,
    ExitStatus::refused, ExitStatus::unreachable, ExitStatus::busy};
std::size_t count_of(const std::vector<Outcome> &outcomes, ExitStatus status);

} // namespace config_copy
