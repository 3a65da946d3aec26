// The configuration actions of the system manager: the running configuration becomes the startup
// configuration of this switch, of every switch of the fabric, or of all files that this switch
// keeps as startup configurations.
#pragma once

#include <cstdint>
#include <string>

namespace ulmo {

struct Action {
    enum class Scope { startup, fabric, all };

    Scope scope = Scope::startup;
    std::string user;    // who asked, as the requester says
    std::string session; // of that user
};

// "startup configuration of this switch", for example.
const char *name_of(Action::Scope scope);

struct ActionOutcome {
    std::uint32_t status; // 0, or a platform status code
    std::string text;     // in words, on one line
};

// Does the action and tells how it went; never throws. When the descriptor `stop` becomes readable
// the action is given up and this switch's startup configuration stays as it was, unless it had
// been replaced already. For a process of its own: a fabric-wide action starts threads, and leaves
// behind those that do not end.
ActionOutcome perform(const Action &action, int stop);

} // namespace ulmo
