// Running a program that may hang, flood or crash, for as long as its caller allows.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

struct ProgramCall {
    // The absolute path of the program (no shell, no search in PATH), then its arguments.
    std::vector<std::string> words;
    // What it reads on standard input, which is a file. A Conversation does without.
    std::string_view input;
    std::chrono::milliseconds time_limit;
    // The most octets on standard output.
    std::size_t output_limit;
    // NAME=VALUE, in addition to PATH and LC_ALL=C; it inherits no variable.
    std::vector<std::string> environment = {};
    // A superuser's program runs as the owner of this folder, in that user's groups, so that it
    // leaves no files that the owner can't open (base/ownership.h).
    std::filesystem::path as_owner_of = {};
};

struct ProgramEnd {
    enum class Limit { none, time, output };

    Limit limit = Limit::none; // which limit ended it
    int exit_status = -1;      // -1 if a limit or a signal ended it
    int signal = 0;
    std::string output; // octet for octet what it printed, up to the limit
    // The first line of its standard error that is not blank: printable, at most 200 octets.
    std::string complaint;

    [[nodiscard]] bool is_success() const { return exit_status == 0; }
};

// Runs a program and waits for its end. It starts in the root folder, with the umask 077, without a
// terminal, with no descriptor but the standard streams, with every signal at its default, and with
// room for 1024 descriptors or what the caller has if that is less.
//
// Nothing that it has started goes on when it has ended, except daemons that have a session of
// their own. At a limit, and when the calling process or thread ends in whatever way, the program
// and everything it has started are killed, daemons included. What the caller has no right to
// signal, such as a program of another user, is not killed.
//
// The caller's FileLocks stay held until then, even if the caller ends earlier.
//
// Throws std::system_error if the program can't be run.
ProgramEnd run_program(const ProgramCall &call);

class RunningProgram;

// A program that answers questions on its standard input, which is a socket. It runs as with
// run_program(), until this object is destroyed or ask() says that it has ended, and dies with the
// thread that made this object. The time limit and the output limit are those of each answer.
class Conversation {
  public:
    // Throws std::system_error; if the program can't be run, ask() does.
    explicit Conversation(const ProgramCall &call);
    Conversation(const Conversation &) = delete;
    Conversation &operator=(const Conversation &) = delete;
    ~Conversation(); // kills it

    // Writes the question to the program and takes what it prints, up to and with the mark. If the
    // output does not end with the mark, the program has ended, or a limit has ended it: this was
    // the last question. Otherwise the exit status is 0. The complaint is the first line of
    // standard error since the question before.
    ProgramEnd ask(std::string_view question, std::string_view mark);

  private:
    std::unique_ptr<RunningProgram> program_;
};

// Why the program has failed, in words, without its name: its complaint, or else how it ended.
std::string failure_of(const ProgramCall &call, const ProgramEnd &end);

} // namespace ulmo
