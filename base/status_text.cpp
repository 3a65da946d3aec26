#include "base/status_text.h"

#include "platform/utilities.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace ulmo {
namespace {

struct StatusText {
    std::uint32_t code;
    const char *text;
};

constexpr StatusText status_texts[] = {
    {0x00000000U, "success"},
    {0x401E0003U, "configuration action initiated"},
    {0x401E0010U, "the file can't be read or is no configuration"},
    {0x401E0011U, "a line of the startup configuration is not valid"},
    {0x401E0012U, "the startup configuration could not be stored"},
    {0x401E0013U, "another configuration action is in progress"},
    {0x401E0014U, "not every switch of the fabric has saved"},
    {0x401E0015U, "the system manager does not know this request"},
    {0x401E0016U, "the configuration action was given up"},
    {0x40490001U, "the operation failed"},
    {0x40490002U, "no such entry"},
    {0x40490009U, "the message could not be sent"},
    {0x40490049U, "another copy is in progress"},
    {0x4049004AU,
     "only the running configuration can be copied to the startup configuration of the fabric"},
    {0x4049004BU, "source and destination are both network files"},
    {0x4049004CU, "a network file can't be copied to the startup configuration"},
    {0x4049004DU, "source and destination are the same"},
    {0x4049005BU, "only the running configuration can be copied to all startup configurations"},
    {0x40540001U, "the configuration could not be applied"},
    {0x40540002U, "the file can't be read or is no configuration"},
    {0x40540003U, "the shell refused a line of the configuration"},
};
constexpr std::uint32_t family_mask = 0xFFFF0000U;
constexpr std::uint32_t system_manager_family = 0x401E0000U;

const char *known_text(std::uint32_t code) {
    const auto *const found =
        std::find_if(std::begin(status_texts), std::end(status_texts),
                     [code](const StatusText &entry) { return entry.code == code; });
    return found == std::end(status_texts) ? nullptr : found->text;
}

const char *other_text(std::uint32_t code, StatusBuffer &buffer) {
    const char *family =
        (code & family_mask) == system_manager_family ? "system manager" : "unknown";
    std::snprintf(buffer.data(), buffer.size(), "%s status 0x%08x", family, code);
    return buffer.data();
}

} // namespace

const char *text_with_code(std::uint32_t code, StatusBuffer &buffer) {
    const char *known = known_text(code);
    if (known == nullptr) {
        return other_text(code, buffer); // which shows the code
    }
    std::snprintf(buffer.data(), buffer.size(), "%s (0x%08x)", known, code);
    return buffer.data();
}

} // namespace ulmo

const char *syserr2str(uint32_t code) {
    static ulmo::StatusBuffer buffer;
    const char *known = ulmo::known_text(code);
    return known != nullptr ? known : ulmo::other_text(code, buffer);
}

const char *syserr_format(uint32_t code) {
    static ulmo::StatusBuffer buffer;
    return ulmo::text_with_code(code, buffer);
}
