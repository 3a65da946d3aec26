// Reads arbitrary hosts files. Each agent is one word, and its options, written with quotes behind
// it, are read as the same options.
#include "config-copy/command_line/hosts_file.h"
#include "config-copy/failure.h"

#include "tests/fuzz/property.h"

using namespace config_copy;

namespace {

std::string quoted(const std::string &word) {
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return text + '\'';
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char *>(octets), size);
    HostsFile hosts;
    try {
        hosts = hosts_in(text, "a test");
    } catch (const Failure &failure) {
        require(is_one_line(failure.what()));
        return 0;
    }
    require(!hosts.agents.empty());
    std::string again;
    for (const ListedAgent &agent : hosts.agents) {
        require(!agent.name.empty() && agent.name.find_first_of(" \t\r\n#") == std::string::npos);
        again += ' ' + quoted(agent.name);
        for (const std::string &word : agent.options->words()) {
            again += '\t' + quoted(word);
        }
        again += " # once more\r\n\n";
    }
    // Here the group's options stand behind each agent.
    const HostsFile same = hosts_in(again, "a test");
    require(same.agents.size() == hosts.agents.size());
    for (std::size_t i = 0; i < same.agents.size(); ++i) {
        require(same.agents[i].name == hosts.agents[i].name);
        require(*same.agents[i].options == *hosts.agents[i].options);
    }
    return 0;
}
