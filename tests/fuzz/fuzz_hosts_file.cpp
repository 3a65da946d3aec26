// Reads arbitrary lists of hosts. Each agent is one word, and the agents, written as a list again,
// are read as the same agents.
#include "config-copy/failure.h"
#include "config-copy/options.h"

#include "tests/fuzz/property.h"

#include <sstream>

using namespace config_copy;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    std::istringstream input(std::string(reinterpret_cast<const char *>(octets), size));
    std::vector<std::string> hosts;
    try {
        hosts = hosts_in(input, "a test");
    } catch (const Failure &) {
        return 0;
    }
    require(!hosts.empty());
    std::stringstream again;
    for (const std::string &host : hosts) {
        require(!host.empty() && host.find_first_of(" \t\r\n#") == std::string::npos);
        again << " " << host << "\t# once more\r\n\n";
    }
    require(hosts_in(again, "a test") == hosts);
    return 0;
}
