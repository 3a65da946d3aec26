// Whose the files of the platform are.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>

namespace ulmo {

// The owner of the folder that `path` is in: the user for whom the platform works there. Throws std::system_error.
uid_t owner_around(const std::filesystem::path &path);

// Gives what the superuser has just made at `path`, open as `descriptor`, to the owner of the folder around it; does nothing for other
// users. The agent is the superuser while it loads its modules and somebody else afterwards, and administrators use cmdshell as they are:
// neither may leave behind what the other can't open. Only an own regular file with a single name, a folder or a socket is given away.
// Throws std::system_error.
void give_to_owner_around(const std::filesystem::path &path, int descriptor);

// The same for what is not open, such as a socket. A symbolic link is not followed, and not given away.
void give_to_owner_around(const std::filesystem::path &path);

} // namespace ulmo
