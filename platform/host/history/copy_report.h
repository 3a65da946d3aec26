// A copy worker's report to the agent: why the copy failed, and what was transferred. The agent
// creates a report file for each worker in the run directory and puts its name into the worker's
// environment. The worker and the programs it runs append lines of the forms `reason TEXT`, `cause
// NUMBER`, `moved OCTETS`, `file PATH` and `sha256 HEX`; the transfer scripts write the same forms.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr char copy_report_variable[] = "ULMO_COPY_REPORT";

// These functions do nothing in a process that is not part of a copy. None of them throws, and all
// keep errno.

// Reports why the copy fails. Only the first reason counts.
void report_reason(std::string_view reason) noexcept;

// Reports the value of ccCopyFailCause that the worker's status can't tell, because the results of
// a transfer do not provide for it.
void report_cause(std::int32_t cause) noexcept;

// Reports the octets transferred of a file that did not arrive whole.
void report_moved(std::uint64_t octets) noexcept;

// Reports the size and the SHA-256 of a file that was transferred whole.
void report_file(const std::filesystem::path &file) noexcept;

// Does the same for the file that a program has named, after the program has ended.
void report_named_file() noexcept;

struct CopyReport {
    std::string reason; // on one line, at most longest_reason octets
    std::optional<std::int32_t> cause;
    std::optional<std::uint64_t> octets;
    std::string sha256; // in hexadecimal digits
    std::string file;   // named, but not measured yet
};

inline constexpr std::size_t longest_reason = 240;

// Reads a worker's report; the result is empty if the file can't be read. Lines of any other form
// are ignored.
CopyReport read_copy_report(const std::filesystem::path &path) noexcept;

} // namespace ulmo
