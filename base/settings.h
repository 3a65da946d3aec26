// The settings of platform.conf: one table of them, and getters that judge what the file says by
// it.
//
// The file has lines of `key = value`; blanks around both do not count, a line that begins with '#'
// is a comment. Of a key that occurs several times the last line counts, of a list all of them, in
// order. The file is looked at in each call, so that a change holds at once, and read again when it
// has changed. A missing file is an empty one.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

enum class SettingKind { number, yes_no, choice, text, list, wwn };

struct Setting {
    std::string_view name;
    SettingKind kind;
    // what holds without the setting, as it would stand in the file; empty: not set
    std::string_view fallback;
    std::string_view read; // when a change holds
    std::string_view fails =
        {}; // what fails with a bad value or a file that can't be read; empty: the default holds
    long least =
        0; // of a number its value; of a list the octets of each value, where `most` is not 0
    long most = 0;
    std::string_view words = {}; // of a choice
    bool is_secret = false;      // holds, or may hold, a passphrase: it is shown to nobody
};

namespace settings_table {

using enum SettingKind;
inline constexpr std::string_view at_once = "at once";
inline constexpr std::string_view in_a_second = "within a second";
inline constexpr std::string_view in_transfer = "when a transfer begins";
inline constexpr std::string_view on_load = "when the agent loads the module";

inline constexpr std::string_view nothing = {};
inline constexpr std::string_view copies = "copies fail";
inline constexpr std::string_view both = "copies and saves fail";
inline constexpr std::string_view by_ssh = "copies by SFTP and SCP fail";
inline constexpr std::string_view fabric = "saves in the fabric fail";

inline constexpr Setting rows[] = {
    // With a wrong one a transfer, and a password with it, takes another network than the VRF.
    {"chassis_type", number, "", at_once, copies, 0, 2147483647},
    {"wwn", wwn, "", at_once, fabric},
    {"management_interface", text, "", at_once},
    // Each as long as a vacmContextName (RFC 3415).
    {"vrf_context", list, "", on_load, nothing, 1, 32},
    {"device_backend", choice, "embedded", at_once, both, 0, 0, "embedded"},
    {"startup_copy", list, "backup.cfg", at_once},
    {"fabric_member", list, "", at_once, fabric, 0, 0, {}, true},
    {"fabric_user", text, "", at_once, fabric},
    {"fabric_auth_protocol", text, "SHA-256", at_once, fabric},
    {"fabric_auth_passphrase", text, "", at_once, fabric, 0, 0, {}, true},
    {"fabric_priv_protocol", text, "AES", at_once, fabric},
    {"fabric_priv_passphrase", text, "", at_once, fabric, 0, 0, {}, true},
    {"fabric_time_limit", number, "10", at_once, fabric, 1, 300},
    {"transfer_time_limit", number, "3600", in_transfer, nothing, 1, 999999999},
    {"transfer_idle_limit", number, "30", in_transfer, nothing, 1, 999999999},
    // Otherwise a server that nobody has vouched for gets the password.
    {"ssh_accept_new_host_keys", yes_no, "yes", in_transfer, by_ssh},
    {"history", choice, "errors", in_a_second, nothing, 0, 0, "all, errors, off"},
    {"history_kilobytes", number, "512", in_a_second, nothing, 16, 1048576},
    {"debug_print", choice, "off", in_a_second, nothing, 0, 0, "all, errors, off"},
    {"agent_debug_file", text, "", on_load},
    {"msgbus_answer_limit", number, "2000", at_once, nothing, 1, 60000},
};

} // namespace settings_table

inline constexpr const auto &all_settings = settings_table::rows;

// A name of the table, of one of these kinds; any other does not compile.
template <SettingKind... kinds> class SettingName {
  public:
    consteval SettingName(const char *name) : setting_(&found(name)) {}
    const Setting &operator*() const { return *setting_; }

  private:
    static consteval const Setting &found(std::string_view name) {
        for (const Setting &setting : all_settings) {
            if (setting.name == name && ((setting.kind == kinds) || ...)) {
                return setting;
            }
        }
        throw std::logic_error("no setting of that name and kind");
    }

    const Setting *setting_;
};

using NumberSetting = SettingName<SettingKind::number>;
using TextSetting = SettingName<SettingKind::text, SettingKind::choice, SettingKind::wwn>;
using ListSetting = SettingName<SettingKind::list>;

// Something is wrong with the file, and may not be passed over. The text names the file, the line
// and what fails, and holds no passphrase.
class SettingsError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// What holds. Where something `fails` with the setting, they throw SettingsError for a bad value,
// and when the file can't be read; otherwise the default holds. nothing when it is not set and has
// no default
std::optional<long> number_setting(NumberSetting name);
std::string text_setting(TextSetting name);
std::vector<std::string> list_setting(ListSetting name);

// The same of any setting: its value, `yes` or `no` of that kind, or all values of a list; nothing
// when it is not set.
std::vector<std::string> setting_values(const Setting &setting);

// Whether the file, as it is now, says nothing of the setting.
bool is_default(const Setting &setting);

// Throws SettingsError when the file is there and can't be read. Whoever goes on without it would
// go on under other rules.
void require_settings();

// What is amiss with the file as it is now: a line for each bad value, each unknown key, each line
// without '='; or that it can't be read.
std::vector<std::string> settings_problems();

// Who is told of these problems, once in a process and after each change of the file: when one of
// the functions above comes upon them.
using SettingsListener = void (*)(const std::string &problem);
void tell_settings_problems_to(SettingsListener listener);

} // namespace ulmo
