// What the user sees: texts, with a live line on a terminal, or JSON, one object per line.
#pragma once

#include "config-copy/outcome.h"

#include <array>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace config_copy {

inline constexpr std::string_view absent = "-"; // in a table

// A column's heading and what its cells hold.
struct Heading {
    std::string text;
    enum { words, numbers } cells = words;
};

// In JSON each row is an object of this type, with the headings in lower case as keys and null for
// what is absent.
struct Table {
    std::string_view type;
    std::string agent;
    std::vector<Heading> headings;
    std::vector<std::vector<std::string>> rows;
    std::string when_empty; // the text instead of an empty table
};

class Output {
  public:
    virtual ~Output() = default;

    // How the one copy stands.
    virtual void progress(std::string_view agent, std::string_view state,
                          std::chrono::seconds elapsed) = 0;

    // How a copy ended. Any thread may call it.
    virtual void outcome(const Outcome &outcome) = 0;

    // How many of several copies ended how.
    virtual void summary(const std::vector<Outcome> &outcomes) = 0;

    virtual void table(const Table &table) = 0;

    // A request that was taken away.
    virtual void removed(const std::string &agent, unsigned long index,
                         const std::string &text) = 0;

    // Why there is no outcome; `agent` may be empty.
    virtual void failure(const Failure &failure, const std::string &agent) = 0;

    // Writes to standard output, as it is.
    void put(std::string_view text);

    // Why not all could be written, or 0. A reader that went away is no reason.
    [[nodiscard]] int error() const { return error_; }

  protected:
    std::mutex mutex_;

  private:
    int error_ = 0;
};

std::unique_ptr<Output> make_output(bool is_quiet, bool is_json, bool is_verbose);

// --- parts ---

inline constexpr std::array<Ending, 6> all_endings{Ending::done,        Ending::failed,
                                                   Ending::usage,       Ending::refused,
                                                   Ending::unreachable, Ending::busy};
std::size_t count_of(const std::vector<Outcome> &outcomes, Ending ending);

} // namespace config_copy
