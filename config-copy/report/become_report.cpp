#include "config-copy/report/become_report.h"

#include "config-copy/failure.h"
#include "config-copy/own_program.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

namespace config_copy {

void become_report(const Options &options) {
    std::vector<std::string> words{path_of_own_program("config-copy-report"), "--output",
                                   *options.report_output};
    if (options.is_quiet) {
        words.emplace_back("--quiet");
    }
    words.insert(words.end(), {"--", options.report_folder});
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    std::signal(SIGPIPE, SIG_DFL); // what is ignored stays so, unlike what is handled
    std::signal(SIGXFSZ, SIG_DFL);
    ::execv(arguments.front(), arguments.data());
    // Also if the interpreter is missing.
    throw Failure(ExitStatus::failed,
                  words.front() + " can't be run: " + std::strerror(errno) +
                      (errno == ENOENT ? "; the report needs apt install python3-jinja2 git" : ""));
}

} // namespace config_copy
