// Reads arbitrary texts as the settings file. The table allows every value that takes effect, each
// problem is one short line, and the values, written as a file again, are read without a problem as
// the same values.
// Includes the source: the function that reads a text is not in the header.
#include "base/settings.cpp"

#include "tests/fuzz/property.h"

using namespace ulmo;

namespace {

// Whether the table allows this value, which has taken effect.
bool is_allowed(const Setting &setting, const std::string &value) {
    const auto octets = static_cast<long>(value.size());
    switch (setting.kind) {
    case SettingKind::number:
        return std::stol(value) >= setting.least && std::stol(value) <= setting.most;
    case SettingKind::yes_no:
        return value == "yes" || value == "no";
    case SettingKind::choice:
        return setting.words.find(value) != std::string_view::npos;
    case SettingKind::list:
        return setting.most == 0 || (octets >= setting.least && octets <= setting.most);
    case SettingKind::wwn:
        return octets == 8 * 3 - 1;
    case SettingKind::program:
    case SettingKind::private_file:
        return value.empty() || value.front() == '/';
    case SettingKind::text:
        break;
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *octets, std::size_t size) {
    Contents contents;
    judge(contents, "/test", {reinterpret_cast<const char *>(octets), size});
    for (const std::string &problem : contents.problems) {
        require(problem.size() < 300 && is_one_line(problem));
    }
    std::string text;
    for (std::size_t i = 0; i < std::size(all_settings); ++i) {
        const Setting &setting = all_settings[i];
        State &state = contents.states[i];
        require(state.refusal.empty() || !setting.fails.empty());
        require(setting.kind == SettingKind::list || state.values.size() <= 1);
        for (const std::string &value : state.values) {
            require(is_allowed(setting, value));
            text += std::string(setting.name) + '=' + value + '\n';
        }
    }
    Contents again;
    judge(again, "/test", text);
    require(again.problems.empty());
    for (std::size_t i = 0; i < std::size(all_settings); ++i) {
        require(again.states[i].values == contents.states[i].values);
    }
    return 0;
}
