// Asks the system manager for a save, as the command line does it.
#pragma once

#include <string>

namespace ulmo {

// Has the system manager make the running configuration the startup configuration of this switch,
// and waits for the end. Returns false when no system manager runs: then nothing was done. Throws
// std::runtime_error, with the reason, when the save was refused or has failed, and what the
// message bus throws.
bool request_save(const std::string &user);

} // namespace ulmo
