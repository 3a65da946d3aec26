// Merges arbitrary configuration texts. One that is accepted has a canonical form, which is
// accepted again and changes nothing.
#include "platform/host/device/configuration_text.h"

#include "tests/fuzz/property.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    ulmo::Configuration configuration;
    try {
        ulmo::merge(configuration, std::string_view(reinterpret_cast<const char *>(data), size));
    } catch (const ulmo::ConfigurationError &) {
        return 0;
    }
    // From here on a refusal is a defect and ends the fuzzer as an uncaught exception.
    const std::string text = ulmo::to_text(configuration);
    ulmo::Configuration again;
    ulmo::merge(again, text);
    ulmo::merge(configuration, text);
    require(ulmo::to_text(again) == text && ulmo::to_text(configuration) == text);
    return 0;
}
