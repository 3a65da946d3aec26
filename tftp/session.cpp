#include "tftp/session.h"

#include "base/number.h"
#include "base/posix.h"
#include "base/replaced_file.h"
#include "tftp/transfer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>

namespace ulmo::tftp {
namespace {

constexpr int default_port = 69;
constexpr int largest_port = 65535;
constexpr int longest_timeout = 255;

constexpr std::array<std::string_view, 9> protocol_texts = {
    "Not defined",
    "File not found",
    "Access violation",
    "Disk full or allocation exceeded",
    "Illegal TFTP operation",
    "Unknown transfer ID",
    "File already exists",
    "No such user",
    "Options refused",
};

// The index of a network device, by name or by number.
std::optional<std::uint32_t> scope_index(const std::string &scope) {
    if (const auto index = ::if_nametoindex(scope.c_str()); index != 0) {
        return index;
    }
    return parsed_number<std::uint32_t>(scope, 1);
}

// Fills in the address. Returns false if the text is not an IPv4 or IPv6 address.
bool parse_server(const std::string &text, in_port_t port, Endpoint &server) {
    sockaddr_in ipv4{};
    sockaddr_in6 ipv6{};
    const auto percent = text.find('%');
    const auto use = [&server](const auto &address) {
        server.address = {};
        std::memcpy(&server.address, &address, sizeof address);
        server.address_octets = sizeof address;
        return true;
    };
    if (::inet_pton(AF_INET, text.c_str(), &ipv4.sin_addr) == 1) {
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = port;
        return use(ipv4);
    }
    if (::inet_pton(AF_INET6, text.substr(0, percent).c_str(), &ipv6.sin6_addr) != 1) {
        return false;
    }
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_port = port;
    if (percent != std::string::npos) {
        const auto scope = scope_index(text.substr(percent + 1));
        if (!scope) {
            return false;
        }
        ipv6.sin6_scope_id = *scope;
    }
    if (IN6_IS_ADDR_V4MAPPED(&ipv6.sin6_addr)) {
        // An IPv4-mapped address: the server is an IPv4 host and answers as one.
        ipv4.sin_family = AF_INET;
        ipv4.sin_port = port;
        constexpr std::size_t prefix = 12;
        std::memcpy(&ipv4.sin_addr, &ipv6.sin6_addr.s6_addr[prefix], sizeof ipv4.sin_addr);
        return use(ipv4);
    }
    return use(ipv6);
}

void check_remote(const std::string &remote) {
    if (remote.empty() || remote.find('\0') != std::string::npos) {
        throw_error(EINVAL, "no remote file name");
    }
}

constexpr std::string_view local_file = "the local file";

// The name must be unused, a regular file, or a link, which the file may replace.
void check_replaceable(const std::string &name) {
    struct stat present {};
    if (::lstat(name.c_str(), &present) == 0 && !S_ISREG(present.st_mode) &&
        !S_ISLNK(present.st_mode)) {
        throw_error(S_ISDIR(present.st_mode) ? EISDIR : EINVAL, "not a regular file:", local_file);
    }
}

// The part of a system error's text that comes before the meaning of its number.
std::string detail_of(const std::system_error &error) {
    const std::string text = error.what();
    const std::size_t colon = text.rfind(": " + error.code().message());
    return colon == std::string::npos ? "" : text.substr(0, colon);
}

} // namespace

int Session::set_timeout(int seconds) {
    return guarded([&] {
        if (seconds < 1 || seconds > longest_timeout) {
            throw_error(EINVAL, "a timeout is 1 to 255 seconds");
        }
        server_.timeout = std::chrono::seconds(seconds);
    });
}

int Session::connect(const std::string &server, int port) {
    return guarded([&] {
        server_.address_octets = 0;
        const int number = port == -1 ? default_port : port;
        if (number < 1 || number > largest_port) {
            throw_error(EINVAL, "no UDP port");
        }
        if (!parse_server(server, htons(static_cast<std::uint16_t>(number)), server_)) {
            throw_error(EINVAL, "the server must be an IPv4 or IPv6 address");
        }
    });
}

int Session::put(const std::string &local, const std::string &remote) {
    return guarded([&] {
        const Endpoint &server = connected();
        check_remote(remote);
        // Opening a pipe without a writer must not block.
        constexpr int flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
        const UniqueFd file(check(::open(local.c_str(), flags), "cannot open", local_file));
        const struct stat status = regular_file_status(file.get(), local_file);
        write_file(server, remote, static_cast<std::uint64_t>(status.st_size),
                   [this, &file](std::uint64_t offset, std::span<std::uint8_t> block) {
                       std::size_t filled = 0;
                       while (filled < block.size()) {
                           const ssize_t octets =
                               ::pread(file.get(), block.data() + filled, block.size() - filled,
                                       static_cast<off_t>(offset + filled));
                           if (octets < 0 && errno == EINTR) {
                               continue;
                           }
                           if (check(octets, "cannot read", local_file) == 0) {
                               break;
                           }
                           filled += static_cast<std::size_t>(octets);
                       }
                       moved_ = std::max(moved_, offset + filled);
                       return filled;
                   });
    });
}

int Session::get(const std::string &remote, const std::string &local) {
    return guarded([&] {
        const Endpoint &server = connected();
        check_remote(remote);
        check_replaceable(local);
        ReplacedFile file(local, ReplacedFile::Manner::unlocked);
        read_file(server, remote, [this, &file](Octets octets) {
            file.append({reinterpret_cast<const char *>(octets.data()), octets.size()});
            moved_ += octets.size();
        });
        file.finish();
        file.commit();
    });
}

void Session::limit(std::uint16_t block_size, std::uint16_t window_size) {
    server_.block_size = block_size;
    server_.window_size = window_size;
}

std::string Session::text(int result) const {
    std::string meaning;
    if (result >= 0) {
        meaning = "Success";
    } else if (result < -100) {
        meaning = std::generic_category().message(system_result(result));
    } else if (static_cast<std::size_t>(-result) < protocol_texts.size()) {
        meaning = protocol_texts[static_cast<std::size_t>(-result)];
    } else {
        meaning = "TFTP error " + std::to_string(-result);
    }
    return result < 0 && result == latest_ && !detail_.empty() ? meaning + " (" + detail_ + ")"
                                                               : meaning;
}

template <typename Work> int Session::guarded(Work &&work) {
    latest_ = 0;
    moved_ = 0;
    detail_.clear();
    try {
        work();
    } catch (const TransferError &error) {
        latest_ = error.result();
        detail_ = error.what();
    } catch (const std::system_error &error) {
        latest_ = system_result(error.code().value());
        detail_ = detail_of(error);
    } catch (const std::bad_alloc &) {
        latest_ = system_result(ENOMEM);
    }
    return latest_;
}

const Endpoint &Session::connected() const {
    if (server_.address_octets == 0) {
        throw_error(ENOTCONN);
    }
    return server_;
}

} // namespace ulmo::tftp
