#include "config-copy/copies/endpoint.h"

#include "base/copy_names.h"
#include "config-copy/agents/server_address.h"
#include "config-copy/failure.h"
#include "config-copy/likeness.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>

namespace config_copy {
namespace {

using namespace std::string_literals;

template <typename Value> struct Named {
    std::string_view name;
    Value value;
};

constexpr Named<FileType> named(FileType type) {
    return {ulmo::file_type_names.at(static_cast<std::size_t>(type)), type};
}

constexpr Named<Protocol> named(Protocol protocol) {
    return {ulmo::protocol_names.at(static_cast<std::size_t>(protocol)), protocol};
}

constexpr std::array local_files{named(FileType::running), named(FileType::startup),
                                 named(FileType::fabric_startup), named(FileType::all_startup)};
constexpr std::array<Named<FileType>, 2> synonyms{
    {{"running-config", FileType::running}, {"startup-config", FileType::startup}}};
constexpr std::array protocols{named(Protocol::tftp), named(Protocol::ftp), named(Protocol::sftp),
                               named(Protocol::scp)};

std::string in_quotes(std::string_view text) {
    return '"' + std::string(text) + '"';
}

bool equal_without_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::optional<int> hexadecimal(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    const char lower = static_cast<char>(digit | 0x20);
    return lower >= 'a' && lower <= 'f' ? std::optional(lower - 'a' + 10) : std::nullopt;
}

// The octet that the '%' at text[at] encodes.
char decoded(std::string_view text, std::size_t at) {
    const auto high = at + 2 < text.size() ? hexadecimal(text[at + 1]) : std::nullopt;
    const auto low = at + 2 < text.size() ? hexadecimal(text[at + 2]) : std::nullopt;
    if (!high || !low) {
        throw bad_usage(
            "in " + in_quotes(text) +
            " two hexadecimal digits must follow each '%'; a '%' itself is written %25");
    }
    return static_cast<char>(*high * 16 + *low);
}

std::string decoded(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            result += decoded(text, i);
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

// Encodes a text so that parse_endpoint() reads it back. Letters beyond ASCII are kept readable.
std::string encoded(std::string_view text, std::string_view special) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string result;
    for (const char c : text) {
        const auto octet = static_cast<unsigned char>(c);
        if (octet <= ' ' || octet == 0x7F ||
            std::string_view("%{}?#").find(c) != std::string_view::npos ||
            special.find(c) != std::string_view::npos) {
            result += {'%', digits[octet / 16], digits[octet % 16]};
        } else {
            result += c;
        }
    }
    return result;
}

struct Template {
    std::string_view key;
    std::string PathValues::*value;
};
constexpr std::array<Template, 6> templates{{{"{host}", &PathValues::host},
                                             {"{name}", &PathValues::name},
                                             {"{group}", &PathValues::group},
                                             {"{date}", &PathValues::date},
                                             {"{time}", &PathValues::time},
                                             {"{datetime}", &PathValues::datetime}}};

// The value of the template that begins at path[at]; `at` moves to its last character.
std::string filled_in(std::string_view path, std::size_t &at, const PathValues &values,
                      const char *advice) {
    const std::size_t end = path.find('}', at);
    const std::string_view key =
        path.substr(at, end == std::string_view::npos ? end : end + 1 - at);
    for (const auto &[known, member] : templates) {
        if (key == known) {
            at = end;
            const std::string &value = values.*member;
            return value.empty() ? std::string(key) : value;
        }
    }
    throw bad_usage(in_quotes(key) +
                    " can't be filled in: {host}, {name}, {group}, {date}, {time} and {datetime} "
                    "can" +
                    advice);
}

void check_characters(std::string_view what, std::string_view text) {
    if (std::any_of(text.begin(), text.end(),
                    [](unsigned char c) { return c < ' ' || c == 0x7F; })) {
        throw bad_usage("the " + std::string(what) +
                        " contains a control character, which the switch does not accept");
    }
}

Protocol protocol_of(std::string_view scheme) {
    for (const auto &[name, value] : protocols) {
        if (equal_without_case(scheme, name)) {
            return value;
        }
    }
    throw bad_usage("unknown scheme " + in_quotes(scheme) + ": use tftp, ftp, sftp or scp");
}

std::string host_of(std::string_view text, std::string_view authority) {
    if (authority.starts_with('[')) {
        const std::size_t end = authority.find(']');
        if (end == std::string_view::npos) {
            throw bad_usage("no ']' after the IPv6 address in " + in_quotes(text));
        }
        if (end + 1 != authority.size()) {
            throw bad_usage("a port can't be chosen (" + in_quotes(text) +
                            "): the switch uses the protocol's own, so leave it out");
        }
        return std::string(authority.substr(1, end - 1));
    }
    const std::size_t colon = authority.find(':');
    if (colon != authority.rfind(':')) {
        throw bad_usage("write the IPv6 address in brackets, as in tftp://[2001:db8::1]/file");
    }
    if (colon != std::string_view::npos) {
        throw bad_usage("a port can't be chosen (" + in_quotes(text) +
                        "): the switch uses the protocol's own, so leave it out");
    }
    return decoded(authority);
}

FileUrl parse_url(std::string_view text, std::size_t scheme_length) {
    FileUrl url;
    url.protocol = protocol_of(text.substr(0, scheme_length));
    const std::string_view rest = text.substr(scheme_length + 3);
    const std::size_t slash = rest.find('/');
    std::string_view authority = rest.substr(0, slash);
    if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
        const std::string_view user = authority.substr(0, at);
        if (user.find(':') != std::string_view::npos) {
            throw bad_usage("a password in a URL can be seen by others: use --password-file, "
                            "standard input or the prompt");
        }
        url.user = decoded(user);
        check_characters("user name", url.user);
        authority.remove_prefix(at + 1);
    }
    url.host = host_of(text, authority);
    if (url.host.empty()) {
        throw bad_usage("no host in " + in_quotes(text) + ": write " +
                        std::string(name_of(url.protocol)) + "://host/path");
    }
    if (slash == std::string_view::npos || rest.ends_with('/')) {
        throw bad_usage("no file name in " + in_quotes(text) + ": write " +
                        std::string(name_of(url.protocol)) + "://host/path");
    }
    url.path = std::string(rest.substr(slash + 1));
    if (const std::size_t at = url.path.find_first_of("?#"); at != std::string::npos) {
        throw bad_usage("a '"s + url.path[at] + "' in a path is written " +
                        (url.path[at] == '?' ? "%3F" : "%23"));
    }
    if (url.protocol == Protocol::tftp && !url.user.empty()) {
        throw bad_usage("TFTP has no users: leave out " + in_quotes(url.user + '@') +
                        ", or use another protocol");
    }
    if (url.protocol != Protocol::tftp && url.user.empty()) {
        throw bad_usage("no user in " + in_quotes(text) + ": write " +
                        std::string(name_of(url.protocol)) + "://user@host/path");
    }
    if (url.user.size() > longest_user_name) {
        throw bad_usage("the user name is longer than the " + std::to_string(longest_user_name) +
                        " octets that the switch takes");
    }
    return url;
}

constexpr std::size_t most_slips = 2; // two letters that changed places are two

// A slip in one of the words must not create a file of that name.
void check_not_misspelt(std::string_view text) {
    if (text.find_first_of("./") != std::string_view::npos) {
        return;
    }
    const auto compare = [&](std::string_view word) {
        if (distance(text, word) <= most_slips) {
            throw bad_usage("did you mean " + std::string(word) +
                            "? A file of this machine named " + in_quotes(text) + " is written ./" +
                            std::string(text));
        }
    };
    for (const auto &known : local_files) {
        compare(known.name);
    }
    for (const auto &known : synonyms) {
        compare(known.name);
    }
}

Endpoint parse_local(std::string_view text) {
    if (text.empty()) {
        throw bad_usage("FROM or TO is empty: write running, startup, a URL or a file's name");
    }
    check_characters("file name", text);
    check_not_misspelt(text);
    Endpoint endpoint{FileType::network, {}, std::string(text)};
    local_path(endpoint, {}); // reports a bad template before anything is asked
    return endpoint;
}

} // namespace

std::string_view name_of(FileType type) {
    for (const auto &[name, value] : local_files) {
        if (value == type) {
            return name;
        }
    }
    return "file";
}

std::string_view name_of(Protocol protocol) {
    for (const auto &[name, value] : protocols) {
        if (value == protocol) {
            return name;
        }
    }
    return "?";
}

Endpoint parse_endpoint(std::string_view text) {
    for (const auto &[name, value] : local_files) {
        if (text == name) {
            return {value, {}, {}};
        }
    }
    for (const auto &[name, value] : synonyms) {
        if (text == name) {
            return {value, {}, {}};
        }
    }
    const std::size_t scheme_length = text.find("://");
    if (scheme_length == std::string_view::npos) {
        return parse_local(text);
    }
    Endpoint endpoint{FileType::network, parse_url(text, scheme_length), {}};
    file_name(endpoint.url, {}); // reports a bad name before anything is asked
    return endpoint;
}

void check_pair(const Endpoint &from, const Endpoint &to) {
    const auto is_several = [](FileType type) {
        return type == FileType::fabric_startup || type == FileType::all_startup;
    };
    if (is_several(from.type)) {
        throw bad_usage(std::string(name_of(from.type)) +
                        " can only be copied to; to copy from this switch's own, write startup");
    }
    if (from.type == FileType::network && to.type == FileType::network) {
        throw bad_usage("FROM and TO are both files: one of them must be running or startup");
    }
    if (from.type == to.type) {
        throw bad_usage("from " + std::string(name_of(from.type)) + " to " +
                        std::string(name_of(to.type)) + " copies nothing: FROM and TO must differ");
    }
    if (from.type == FileType::network && to.type == FileType::startup) {
        throw bad_usage(
            "the switch can't copy a file straight to startup: copy it to running, then "
            "running to startup");
    }
    if (is_several(to.type) && from.type != FileType::running) {
        throw bad_usage("only running can be copied to " + std::string(name_of(to.type)));
    }
}

void check_comparison(const Endpoint &one, const Endpoint &other) {
    for (const Endpoint *side : {&one, &other}) {
        if (!side->is_local() && side->type != FileType::running &&
            side->type != FileType::startup) {
            throw bad_usage("diff compares running, startup and files of this machine, not " +
                            (side->type == FileType::network ? "a file on a server"
                                                             : std::string(name_of(side->type))));
        }
    }
    if (one.is_local() ? other.is_local() : one.type == other.type) {
        throw bad_usage("diff compares a configuration of the switch with another one or a file: "
                        "name running or startup, and something else");
    }
}

std::string file_name(const FileUrl &url, const PathValues &values) {
    const std::string_view path = url.path;
    std::string name;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '%') {
            name += decoded(path, i);
            i += 2;
        } else if (path[i] == '{') {
            name += filled_in(path, i, values, "; a brace itself is written %7B or %7D");
        } else {
            name += path[i];
        }
    }
    check_characters("file name", name);
    if (name.empty() || name.ends_with('/')) {
        throw bad_usage("the file name " + in_quotes(name) +
                        " does not name a file: write something after the last '/'");
    }
    if (name.size() > longest_file_name) {
        throw bad_usage("the file name " + in_quotes(name) + " is longer than the " +
                        std::to_string(longest_file_name) + " octets that the switch takes");
    }
    return name;
}

std::string local_path(const Endpoint &endpoint, const PathValues &values) {
    const std::string_view path = endpoint.local;
    std::string filled;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (path[i] == '{') {
            filled += filled_in(path, i, values, "");
        } else {
            filled += path[i];
        }
    }
    return filled;
}

bool has_template(const Endpoint &endpoint, std::string_view name) {
    const std::string &path = endpoint.is_local() ? endpoint.local : endpoint.url.path;
    return path.find('{' + std::string(name) + '}') != std::string::npos;
}

bool is_of_one_agent(const Endpoint &endpoint) {
    return has_template(endpoint, "host") || has_template(endpoint, "name") ||
           has_template(endpoint, "group");
}

std::string host_value(std::string_view agent) {
    std::string value;
    for (const char c : agent) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_') {
            value += c;
        } else if (!value.empty() && value.back() != '-') {
            value += '-';
        }
    }
    if (value.ends_with('-')) {
        value.pop_back();
    }
    return value;
}

std::string name_value(std::string_view sys_name) {
    constexpr std::size_t longest = 64;
    const std::string value = host_value(sys_name);
    const std::size_t begin = value.find_first_not_of(".-");
    return begin == std::string::npos ? "" : value.substr(begin, longest);
}

PathValues values_of_time(std::time_t now) {
    std::tm local{};
    ::localtime_r(&now, &local);
    std::array<char, 32> text{};
    PathValues values;
    values.datetime = {text.data(),
                       std::strftime(text.data(), text.size(), "%Y-%m-%dT%H-%M-%S", &local)};
    const std::size_t end_of_date = values.datetime.find('T');
    values.date = values.datetime.substr(0, end_of_date);
    values.time = values.datetime.substr(end_of_date + 1);
    return values;
}

std::string url_text(Protocol protocol, const std::string &user, const std::string &host,
                     const std::string &path) {
    constexpr std::string_view of_ipv6 = "0123456789abcdefABCDEF:.";
    const bool has_colon = host.find(':') != std::string::npos;
    const bool is_ipv6 = has_colon && host.find_first_not_of(of_ipv6) == std::string::npos;
    const bool is_missing = host == address_text(""); // a request that is not filled in yet
    return std::string(name_of(protocol)) + "://" +
           (user.empty() ? "" : encoded(user, "@:/") + '@') +
           (is_ipv6      ? '[' + host + ']'
            : is_missing ? host
                         : encoded(host, "@:/[]")) +
           '/' + encoded(path, "");
}

bool needs_password(const FileUrl &url) {
    constexpr std::string_view anonymous = "anonymous";
    return url.protocol == Protocol::sftp ||
           (url.protocol == Protocol::ftp &&
            !equal_without_case(std::string_view(url.user).substr(0, anonymous.size()), anonymous));
}

bool takes_password(const FileUrl &url) {
    return needs_password(url) || url.protocol == Protocol::scp;
}

} // namespace config_copy
