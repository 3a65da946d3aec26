// Reads arbitrary words as FROM or TO of a copy. An accepted file is one that a switch takes, and a
// URL made of its parts names the same file.
#include "config-copy/copies/endpoint.h"
#include "config-copy/failure.h"

#include "tests/fuzz/property.h"

using namespace config_copy;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    const PathValues values{"switch", "2026-11-21", "01-30-00", "2026-11-21T01-30-00",
                            "core",   "spine7"};
    Endpoint endpoint;
    std::string name;
    try {
        endpoint = parse_endpoint({reinterpret_cast<const char *>(octets), size});
        if (endpoint.type != FileType::network) {
            return 0;
        }
        name = file_name(endpoint.url, values);
    } catch (const Failure &) {
        return 0;
    }
    // From here on a refusal is a defect and ends the fuzzer as an uncaught exception.
    require(!endpoint.url.host.empty() && !name.empty());
    require(is_one_line(endpoint.url.user) && is_one_line(name));
    const FileUrl again =
        parse_endpoint(url_text(endpoint.url.protocol, endpoint.url.user, endpoint.url.host, name))
            .url;
    require(again.protocol == endpoint.url.protocol && again.user == endpoint.url.user &&
            again.host == endpoint.url.host);
    require(file_name(again, values) == name);
    return 0;
}
