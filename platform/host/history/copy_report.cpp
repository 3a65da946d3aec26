#include "platform/host/history/copy_report.h"

#include "base/number.h"
#include "base/posix.h"
#include "base/state_file.h"
#include "base/text.h"
#include "base/unique_fd.h"
#include "platform/host/history/log.h"

#include <openssl/evp.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>
#include <vector>

namespace ulmo {
namespace {

constexpr std::size_t report_limit = std::size_t{64} * 1024;
constexpr std::string_view reason_key = "reason ";
constexpr std::string_view cause_key = "cause ";
constexpr std::string_view moved_key = "moved ";
constexpr std::string_view file_key = "file ";
constexpr std::string_view sha256_key = "sha256 ";

const char *report_path() {
    const char *path = std::getenv(copy_report_variable);
    return path != nullptr && *path != '\0' ? path : nullptr;
}

std::string reason_in(std::string_view text) {
    return one_line(trimmed(text), longest_reason);
}

void append(std::string_view key, std::string_view text) {
    const char *path = report_path();
    if (path == nullptr) {
        return;
    }
    const UniqueFd file(
        check(::open(path, O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC), "cannot open", path));
    write_whole(file.get(), std::string(key) + std::string(text) + '\n', path);
}

// A copy never fails because of its report.
template <typename Work> void in_report(Work &&work) noexcept {
    if (report_path() != nullptr) {
        log_failure("worker: no report", std::forward<Work>(work));
    }
}

struct Measured {
    std::uint64_t octets = 0;
    std::string sha256;
};

Measured measured(const std::filesystem::path &path) {
    constexpr std::string_view what = "cannot measure";
    constexpr int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    const UniqueFd file(check(::open(path.c_str(), flags), what, path.native()));
    regular_file_status(file.get(), path.native());
    const std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> digest(EVP_MD_CTX_new(),
                                                                     EVP_MD_CTX_free);
    bool works = digest && EVP_DigestInit_ex(digest.get(), EVP_sha256(), nullptr) == 1;
    Measured result;
    std::vector<char> buffer(std::size_t{256} * 1024);
    while (works) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == 0) {
            break;
        }
        if (count > 0) {
            result.octets += static_cast<std::uint64_t>(count);
            works =
                EVP_DigestUpdate(digest.get(), buffer.data(), static_cast<std::size_t>(count)) == 1;
        } else if (errno != EINTR) {
            throw_errno(what, path.native());
        }
    }
    std::array<unsigned char, EVP_MAX_MD_SIZE> octets{};
    unsigned int length = 0;
    if (!works || EVP_DigestFinal_ex(digest.get(), octets.data(), &length) != 1) {
        throw std::runtime_error("SHA-256 is not available");
    }
    result.sha256 = in_hex({reinterpret_cast<const char *>(octets.data()), length});
    return result;
}

bool is_sha256(std::string_view text) {
    constexpr std::size_t length = 64;
    return text.size() == length &&
           text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

// The rest of the line after the key; nothing if the line does not begin with the key.
std::optional<std::string_view> behind(std::string_view key, std::string_view line) {
    return line.starts_with(key) ? std::optional(line.substr(key.size())) : std::nullopt;
}

void take_line(CopyReport &report, std::string_view line) {
    if (const auto reason = behind(reason_key, line); reason && report.reason.empty()) {
        report.reason = reason_in(*reason);
    } else if (const auto cause = behind(cause_key, line)) {
        report.cause = parsed_number<std::int32_t>(*cause, 1);
    } else if (const auto moved = behind(moved_key, line)) {
        if (const auto octets = parsed_number<std::uint64_t>(*moved)) {
            report.octets = octets;
        }
    } else if (const auto sha256 = behind(sha256_key, line); sha256 && is_sha256(*sha256)) {
        report.sha256 = *sha256;
        report.file.clear();
    } else if (const auto file = behind(file_key, line)) {
        report.file = *file;
    }
}

} // namespace

void report_reason(std::string_view reason) noexcept {
    in_report([&] { append(reason_key, reason_in(reason)); });
}

void report_cause(std::int32_t cause) noexcept {
    in_report([&] { append(cause_key, std::to_string(cause)); });
}

void report_moved(std::uint64_t octets) noexcept {
    in_report([&] { append(moved_key, std::to_string(octets)); });
}

void report_file(const std::filesystem::path &file) noexcept {
    in_report([&] {
        const Measured result = measured(file);
        append(moved_key, std::to_string(result.octets));
        append(sha256_key, result.sha256);
    });
}

void report_named_file() noexcept {
    in_report([] {
        if (const CopyReport report = read_copy_report(report_path()); !report.file.empty()) {
            report_file(report.file);
        }
    });
}

CopyReport read_copy_report(const std::filesystem::path &path) noexcept {
    CopyReport report;
    log_failure("the report of a copy can't be read", [&] {
        const std::string content = read_state_file(path, report_limit).value_or("");
        for (std::string_view rest = content; !rest.empty();) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(line.size() + 1, rest.size()));
            take_line(report, line);
        }
    });
    return report;
}

} // namespace ulmo
