// Reads arbitrary words as FROM or TO of a copy: a file that is accepted is one that a switch
// takes, and its URL, written anew from the parts, names the same file.
#include "config-copy/copy_side.h"
#include "config-copy/failure.h"

#include "tests/fuzz/property.h"

using namespace config_copy;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    const PathValues values{"switch", "2026-11-21"};
    CopySide side;
    std::string name;
    try {
        side = parse_side({reinterpret_cast<const char *>(octets), size});
        if (side.type != FileType::network) {
            return 0;
        }
        name = file_name(side.url, values);
    } catch (const Failure &) {
        return 0;
    }
    // From here on a refusal is a defect and ends the fuzzer as an uncaught exception.
    require(!side.url.host.empty() && !name.empty());
    require(is_one_line(side.url.user) && is_one_line(name));
    const FileUrl again =
        parse_side(url_text(side.url.protocol, side.url.user, side.url.host, name)).url;
    require(again.protocol == side.url.protocol && again.user == side.url.user &&
            again.host == side.url.host);
    require(file_name(again, values) == name);
    return 0;
}
