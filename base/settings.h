// The settings of platform.conf: one table, and getters that check the file's values against it.
//
// The file has lines of `key = value`. Blanks around both are ignored; a line that starts with '#'
// is a comment. If a key occurs several times, its last line counts; for a list all lines count, in
// order. Every call checks whether the file has changed and reads it again if so: a change takes
// effect at once. A missing file counts as an empty one.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace ulmo {

// A program is an absolute path with arguments, separated by blanks. A private file belongs to the
// agent's user, the owner of the state directory, and nobody else may read or write it.
enum class SettingKind { number, yes_no, choice, text, list, wwn, program, private_file };

struct Setting {
    std::string_view name;
    SettingKind kind;
    // The default, written as in the file; empty: not set.
    std::string_view fallback;
    // When a change takes effect.
    std::string_view read;
    // What fails on a bad value or an unreadable file; empty: the default is used instead.
    std::string_view fails = {};
    // Bounds of a number, or of the octets in each value of a list; a list with `most` 0 has none.
    long least = 0;
    long most = 0;
    // The words of a choice.
    std::string_view words = {};
    // The value is, or may contain, a passphrase and is never shown.
    bool is_secret = false;
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
inline constexpr std::string_view changes = "changes of the running configuration fail";
inline constexpr std::string_view by_ssh = "copies by SFTP and SCP fail";
inline constexpr std::string_view fabric = "saves in the fabric fail";

inline constexpr Setting rows[] = {
    // A wrong type would send a transfer, and its password, over another network than the VRF's.
    {"chassis_type", number, "", at_once, copies, 0, 2147483647},
    {"wwn", wwn, "", at_once, fabric},
    {"management_interface", text, "", at_once},
    // The length of a vacmContextName (RFC 3415).
    {"vrf_context", list, "", on_load, nothing, 1, 32},
    {"device_backend", choice, "embedded", at_once, both, 0, 0, "embedded, frr, command"},
    {"device_time_limit", number, "60", at_once, both, 1, 86400},
    {"frr_vtysh", program, "/usr/bin/vtysh", at_once, both},
    {"frr_config", text, "/etc/frr/frr.conf", at_once, both},
    {"frr_reload", program, "/usr/lib/frr/frr-reload.py", at_once, both},
    {"command_show_running", program, "", at_once, both},
    {"command_show_startup", program, "", at_once, both},
    {"command_check", program, "", at_once, both},
    {"command_apply", program, "", at_once, both},
    {"command_replace", program, "", at_once, both},
    {"command_verify", program, "", at_once, both},
    {"command_save", program, "", at_once, both},
    {"command_store_startup", program, "", at_once, both},
    // Without it, a change that was to be undone would stay.
    {"confirm_limit", number, "0", at_once, changes, 0, 86400},
    {"startup_copy", list, "backup.cfg", at_once},
    {"fabric_member", list, "", at_once, fabric, 0, 0, {}, true},
    {"fabric_user", text, "", at_once, fabric},
    {"fabric_auth_protocol", text, "SHA-256", at_once, fabric},
    {"fabric_auth_passphrase", text, "", at_once, fabric, 0, 0, {}, true},
    {"fabric_priv_protocol", text, "AES", at_once, fabric},
    {"fabric_priv_passphrase", text, "", at_once, fabric, 0, 0, {}, true},
    {"fabric_time_limit", number, "10", at_once, fabric, 1, 300},
    {"copy_time_limit", number, "3600", in_a_second, nothing, 1, 999999999},
    {"transfer_time_limit", number, "3600", in_transfer, nothing, 1, 999999999},
    {"transfer_idle_limit", number, "30", in_transfer, nothing, 1, 999999999},
    // A wrong value could send the password to a server whose key nobody has checked.
    {"ssh_accept_new_host_keys", yes_no, "yes", in_transfer, by_ssh},
    // A key that others may read or replace is not this switch's alone.
    {"ssh_identity", private_file, "", in_transfer, by_ssh},
    {"history", choice, "errors", in_a_second, nothing, 0, 0, "all, errors, off"},
    {"history_kilobytes", number, "512", in_a_second, nothing, 16, 1048576},
    {"debug_print", choice, "off", in_a_second, nothing, 0, 0, "all, errors, off"},
    {"agent_debug_file", text, "", on_load},
    {"msgbus_answer_limit", number, "250", at_once, nothing, 1, 60000},
    {"announce_begin", yes_no, "no", at_once},
};

} // namespace settings_table

inline constexpr const auto &all_settings = settings_table::rows;

// The name of a setting in the table, of one of these kinds; any other name does not compile.
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
using ProgramSetting = SettingName<SettingKind::program>;
using YesNoSetting = SettingName<SettingKind::yes_no>;
using ListSetting = SettingName<SettingKind::list>;

// The file has an error that must not be ignored. The text names the file, the line and what fails,
// and contains no passphrase.
class SettingsError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The value in force; empty if the setting is not set and has no default. For a bad value or an
// unreadable file, they throw SettingsError if the setting's `fails` is not empty, and return the
// default otherwise.
std::optional<long> number_setting(NumberSetting name);
std::string text_setting(TextSetting name);
bool yes_no_setting(YesNoSetting name);
std::vector<std::string> program_setting(ProgramSetting name); // its words
std::vector<std::string> list_setting(ListSetting name);

// The same for a setting of any kind: its value (`yes` or `no` for yes_no), or all values of a
// list; empty if it is not set.
std::vector<std::string> setting_values(const Setting &setting);

// Whether the default is in force: the file leaves the setting out, or has a bad value instead of
// which the default is used.
bool is_default(const Setting &setting);

// Throws SettingsError if the file exists and can't be read: to go on without it would be to go on
// under other rules.
void require_settings();

// The problems with the file as it is now: one line for each bad value, each unknown key and each
// line without '=', or one line that says that it can't be read.
std::vector<std::string> settings_problems();

// Sets the function that reports these problems. It is called when one of the functions above finds
// them, once per process and again after each change of the file.
using SettingsListener = void (*)(const std::string &problem);
void set_settings_listener(SettingsListener listener);

} // namespace ulmo
