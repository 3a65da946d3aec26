// What the user sees: a live line on a terminal, plain lines otherwise, or JSON, one object a line.
#pragma once

#include "manager/outcome.h"

#include <chrono>
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

class Output {
  public:
    Output(bool is_quiet, bool is_json);

    // How the one copy stands. A terminal's line is written anew; otherwise only a change is told.
    void progress(std::string_view agent, std::string_view state, std::chrono::seconds elapsed);

    // How a copy ended. Success goes to standard output, all else to standard error; in JSON both go to standard output. Any thread may
    // call it.
    void outcome(const Outcome &outcome);

    // How many of several copies ended how.
    void summary(const std::vector<Outcome> &outcomes);

    // Rows under headings; in JSON an object a row, with the headings in lower case as its keys and null for what is absent.
    void table(const std::vector<Heading> &headings, const std::vector<std::vector<std::string>> &rows, std::string_view when_empty) const;

    void line(std::string_view text) const;

    // A request that was taken away: the text, or in JSON an object.
    void removed(std::string_view agent, unsigned long index, std::string_view text) const;

  private:
    void end_live_line();

    bool is_quiet_;
    bool is_json_;
    bool is_terminal_;
    bool has_live_line_ = false;
    std::string last_state_;
    std::mutex mutex_;
};

// --- parts ---

// What is no UTF-8 in the text becomes U+FFFD.
std::string json_string(std::string_view text);
std::string json_of(const Outcome &outcome);
std::string summary_of(const std::vector<Outcome> &outcomes);
std::vector<std::string> table_lines(const std::vector<std::string> &headings, const std::vector<std::vector<std::string>> &rows);

} // namespace config_copy
