#include "platform/host/vrf/vrf.h"

#include "base/c_boundary.h"
#include "base/folders.h"
#include "base/number.h"
#include "base/ownership.h"
#include "base/posix.h"
#include "base/unique_fd.h"
#include "platform/chassis.h"

#include <fcntl.h>
#include <linux/ethtool.h>
#include <linux/nsfs.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

namespace ulmo {
namespace {

constexpr std::string_view ordinary_name = "management";
constexpr int ordinary_id = 1;
constexpr int first_id = 2;
constexpr int no_vrf = -1;

// A name is used as one component of a path and as part of one line of the directory file.
bool is_valid_name(std::string_view name) {
    const auto is_unfit = [](char c) {
        return c == '/' || static_cast<unsigned char>(c) < ' ' || c == '\x7f';
    };
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
           std::none_of(name.begin(), name.end(), is_unfit);
}

// Opens the network namespace of that name; returns an empty descriptor, with errno set, on
// failure.
UniqueFd open_namespace(const std::string &name) {
    UniqueFd file(::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file && ::ioctl(file.get(), NS_GET_NSTYPE) != CLONE_NEWNET) {
        errno = EINVAL;
        return {};
    }
    return file;
}

bool is_vrf_device(const std::string &name) {
    ethtool_drvinfo information{};
    information.cmd = ETHTOOL_GDRVINFO;
    ifreq request{};
    if (name.size() >= sizeof request.ifr_name) {
        return false;
    }
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    request.ifr_data = static_cast<char *>(static_cast<void *>(&information));
    const UniqueFd any_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return any_socket && ::ioctl(any_socket.get(), SIOCETHTOOL, &request) == 0 &&
           std::strcmp(information.driver, "vrf") == 0;
}

// The numbers assigned so far: a file of the state directory, locked while it is open, with lines
// of number, blank and name.
class Directory {
  public:
    Directory() : path_(state_dir() / "vrfs"), file_(opened(path_)) {
        regular_file_status(file_.get(), path_.native());
        int locked = -1;
        do {
            locked = ::flock(file_.get(), LOCK_EX);
        } while (locked != 0 && errno == EINTR);
        check(locked, "cannot lock", path_.native());
        read();
    }

    static UniqueFd opened(const std::filesystem::path &path) {
        const ActingAsOwner owner(path.parent_path());
        constexpr int flags = O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
        return UniqueFd(check(::open(path.c_str(), flags, 0600), "cannot open", path.native()));
    }

    [[nodiscard]] std::optional<std::string> name_of(int id) const {
        const auto found = std::find_if(entries_.begin(), entries_.end(),
                                        [id](const Entry &entry) { return entry.id == id; });
        return found == entries_.end() ? std::nullopt : std::optional<std::string>(found->name);
    }

    // The number of that name, assigned now if it has none yet.
    int id_of(const std::string &name) {
        const auto found = std::find_if(entries_.begin(), entries_.end(),
                                        [&](const Entry &entry) { return entry.name == name; });
        if (found != entries_.end()) {
            return found->id;
        }
        int id = first_id;
        for (const Entry &entry : entries_) {
            id = std::max(id, entry.id + 1);
        }
        append(std::to_string(id) + ' ' + name + '\n');
        return id;
    }

  private:
    struct Entry {
        int id;
        std::string name;
    };

    void read() {
        const std::string text = read_whole(file_.get(), path_.native());
        for (std::string_view rest = text; !rest.empty();) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(line.size() + 1, rest.size()));
            const std::string_view digits = line.substr(0, line.find(' '));
            const auto id = parsed_number(digits, first_id, max_id - 1);
            if (id && digits.size() + 1 < line.size()) {
                entries_.push_back({*id, std::string(line.substr(digits.size() + 1))});
            }
        }
        ends_in_line_ = text.empty() || text.back() == '\n';
    }

    void append(std::string line) {
        if (!ends_in_line_) {
            line.insert(line.begin(), '\n'); // a line cut by a full disk remains a line of its own
        }
        write_whole(file_.get(), line, path_.native());
    }

    static constexpr int max_id = 1'000'000'000;

    std::filesystem::path path_;
    UniqueFd file_;
    std::vector<Entry> entries_;
    bool ends_in_line_ = true;
};

} // namespace

std::optional<std::string> vrf_name(int id) {
    if (id == ordinary_id) {
        return std::string(ordinary_name);
    }
    return result_or(std::optional<std::string>(),
                     [id] { return id < first_id ? std::nullopt : Directory().name_of(id); });
}

std::optional<std::string> vrf_device(const std::string &name) {
    if (!is_valid_name(name) || open_namespace(name) || !is_vrf_device(name)) {
        return std::nullopt;
    }
    return name;
}

bool enter_vrf(const std::string &name, std::string *why) {
    std::string reason;
    if (!is_valid_name(name)) {
        reason = "not a VRF name";
    } else if (const UniqueFd network = open_namespace(name); network) {
        if (::setns(network.get(), CLONE_NEWNET) != 0) {
            reason = "cannot enter the network namespace " + name + ": " +
                     std::generic_category().message(errno);
        }
    } else if (const int error = errno; error != ENOENT) {
        reason = "cannot open the network namespace " + name + ": " +
                 std::generic_category().message(error);
    } else if (name != ordinary_name && !is_vrf_device(name)) {
        reason = "there is no VRF " + name;
    }
    if (why != nullptr) {
        *why = reason;
    }
    return reason.empty();
}

} // namespace ulmo

int vrfdir_get_context_id(const char *vrf_name) {
    return ulmo::result_or(ulmo::no_vrf, [vrf_name] {
        if (vrf_name == nullptr || !ulmo::is_valid_name(vrf_name)) {
            return ulmo::no_vrf;
        }
        const std::string name = vrf_name;
        if (ulmo::open_namespace(name) || ulmo::is_vrf_device(name)) {
            return ulmo::Directory().id_of(name);
        }
        return name == ulmo::ordinary_name ? ulmo::ordinary_id : ulmo::no_vrf;
    });
}
