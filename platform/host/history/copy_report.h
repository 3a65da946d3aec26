// What a copy's worker, and the programs that it runs, tell the agent of the copy: why it failed
// and what was moved. The agent makes a file for each worker in the run directory and names it in
// their environment; each of them appends lines of the forms `reason TEXT`, `moved OCTETS`, `file
// PATH` and `sha256 HEX`. The transfer scripts know the forms too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace ulmo {

inline constexpr char copy_report_variable[] = "ULMO_COPY_REPORT";

// In a process that does no copy these do nothing. None of them throws, and all keep errno.

// Why the copy fails, in words. The first reason is the one that counts.
void report_reason(std::string_view reason) noexcept;

// So many octets were moved of a file that did not arrive whole.
void report_moved(std::uint64_t octets) noexcept;

// The file was moved whole: its size and its SHA-256.
void report_file(const std::filesystem::path &file) noexcept;

// The same for a file that a program has named, now that it has ended.
void report_named_file() noexcept;

struct CopyReport {
    std::string reason; // on one line, at most longest_reason octets
    std::optional<std::uint64_t> octets;
    std::string sha256; // in hexadecimal digits
    std::string file;   // named, and not measured yet
};

inline constexpr std::size_t longest_reason = 240;

// What stands in a worker's file; an empty report when it can't be read. Whatever is no such line
// is passed over.
CopyReport read_copy_report(const std::filesystem::path &path) noexcept;

} // namespace ulmo
