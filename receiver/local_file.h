// The files that orders come with: open descriptors, without names.
#pragma once

#include <cstdint>
#include <span>

namespace receiver {

// The size of a regular file. Throws EINVAL if the descriptor is none or is of anything else.
std::uint64_t size_of(int file);

// Fills `octets` from the offset on, as far as the file has them. Returns how many those are.
std::size_t read_at(int file, std::uint64_t offset, std::span<std::uint8_t> octets);

// Writes all octets from the offset on; at offset 0 the file is emptied first.
void write_at(int file, std::uint64_t offset, std::span<const std::uint8_t> octets);

// The path that stands for a descriptor itself. The confined program may use no other path.
extern const char *const no_path;

} // namespace receiver
