// FROM and TO of a copy as the user writes them: `running`, `startup`, `fabric-startup`,
// `all-startup`, the URL of a file on a server, or a file of this machine.
#pragma once

#include "config-copy/copy_table.h"

#include <ctime>
#include <string>
#include <string_view>

namespace config_copy {

struct FileUrl {
    Protocol protocol = Protocol::tftp;
    std::string user; // decoded; may be empty
    std::string host; // a name or an address, without brackets
    std::string path; // as written, without the first slash
};

struct Endpoint {
    FileType type = FileType::network;
    FileUrl url;       // of a file on a server
    std::string local; // path of a file of this machine, "-" for a standard stream

    [[nodiscard]] bool is_local() const { return !local.empty(); }
};

// Throws a Failure of usage that says what is wrong with the text.
Endpoint parse_endpoint(std::string_view text);

// Throws a Failure of usage unless the switch can copy from one to the other.
void check_pair(const Endpoint &from, const Endpoint &to);

// The same unless both can be compared: running, startup and a file of this machine.
void check_comparison(const Endpoint &one, const Endpoint &other);

// Values for the templates of a path, in a form that is safe in a file name. A template whose value
// is not known yet, and therefore empty, stays as it is.
struct PathValues {
    std::string host;     // {host}: the agent
    std::string date;     // {date}: as in 2026-11-21
    std::string time;     // {time}: as in 01-30-00
    std::string datetime; // {datetime}: as in 2026-11-21T01-30-00
    std::string group;    // {group}: of the agent, in the hosts file
    std::string name;     // {name}: the switch's sysName
};

// The values of the local time.
PathValues values_of_time(std::time_t now);

// The file's name on the server: the path with the templates filled in and percent-encoding
// decoded. Throws a Failure of usage if it is not a file name or is too long for the switch.
std::string file_name(const FileUrl &url, const PathValues &values);

// The path of a file of this machine with the templates filled in. Throws a Failure of usage for a
// template that there is not.
std::string local_path(const Endpoint &endpoint, const PathValues &values);

// Whether the file's path has the template, for instance "host".
bool has_template(const Endpoint &endpoint, std::string_view name);

// Whether the path differs from agent to agent.
bool is_of_one_agent(const Endpoint &endpoint);

// The agent's name for {host}: letters, digits, dots, hyphens and underscores are kept; everything
// else becomes a hyphen.
std::string host_value(std::string_view agent);

// The same for {name}, at most 64 characters that do not begin with a dot or hyphen. Empty if
// nothing of the text is left.
std::string name_value(std::string_view sys_name);

// Whether the protocol requires a password for this user, and whether it can use one.
bool needs_password(const FileUrl &url);
bool takes_password(const FileUrl &url);

// A file's URL in the form that parse_endpoint() reads, from its decoded parts. `host` is a name or
// an address.
std::string url_text(Protocol protocol, const std::string &user, const std::string &host,
                     const std::string &path);

std::string_view name_of(FileType type);
std::string_view name_of(Protocol protocol);

} // namespace config_copy
