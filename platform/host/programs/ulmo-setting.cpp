// ulmo-setting: prints the effective settings of the platform, for scripts.
//
//   ulmo-setting NAME...    prints the value of each, one a line; a list has a line for each value
//   ulmo-setting --list     prints the table of settings, separated by tabs: name, kind, default,
//                           least, most, words, what a bad value makes fail, and when a change
//                           takes effect
//   ulmo-setting --download-limit
//                           prints how many octets a download may have, which is not a setting
//
// Exits with 0; with 1 and a line on standard error if the file can't be read or a bad value must
// not be ignored; with 2 on wrong usage.
#include "base/settings.h"
#include "platform/host/device/configuration_text.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>

namespace {

constexpr const char *kind_names[] = {"number", "yes_no", "choice",  "text",
                                      "list",   "wwn",    "program", "private_file"};

std::string row_of(const ulmo::Setting &setting) {
    std::string row(setting.name);
    const auto add = [&row](std::string_view text) { row.append("\t").append(text); };
    add(kind_names[static_cast<std::size_t>(setting.kind)]);
    add(setting.fallback);
    add(std::to_string(setting.least));
    add(std::to_string(setting.most));
    add(setting.words);
    add(setting.fails);
    add(setting.read);
    return row + '\n';
}

int usage() {
    std::fputs("usage: ulmo-setting NAME... | --list | --download-limit\n", stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv) try {
    std::string output;
    if (argc == 2 && std::string_view(argv[1]) == "--list") {
        for (const ulmo::Setting &setting : ulmo::all_settings) {
            output += row_of(setting);
        }
    } else if (argc == 2 && std::string_view(argv[1]) == "--download-limit") {
        output = std::to_string(ulmo::configuration_text_limit) + '\n';
    } else if (argc < 2) {
        return usage();
    } else {
        // the agent logs them; not again for each transfer
        ulmo::set_settings_listener(nullptr);
        ulmo::require_settings();
        for (int i = 1; i < argc; ++i) {
            const auto *const setting = std::find_if(
                std::begin(ulmo::all_settings), std::end(ulmo::all_settings),
                [name = std::string_view(argv[i])](const auto &each) { return each.name == name; });
            if (setting == std::end(ulmo::all_settings)) {
                std::fprintf(stderr, "ulmo-setting: there is no setting %s\n", argv[i]);
                return usage();
            }
            const auto values = ulmo::setting_values(*setting);
            for (const std::string &value : values) {
                output += value + '\n';
            }
            if (values.empty() && setting->kind != ulmo::SettingKind::list) {
                output += '\n';
            }
        }
    }
    if (std::fwrite(output.data(), 1, output.size(), stdout) != output.size() ||
        std::fflush(stdout) != 0) {
        std::perror("ulmo-setting: cannot write");
        return 1;
    }
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "ulmo-setting: %s\n", error.what());
    return 1;
}
