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
    std::string user;    // the user, as stated by the requester
    std::string session; // of that user
};

// For example "startup configuration of this switch".
const char *name_of(Action::Scope scope);

struct ActionOutcome {
    std::uint32_t status; // 0, or a platform status code
    std::string text;     // in words, on one line
};

// Performs the action and returns its outcome; never throws. If the descriptor `stop` becomes
// readable, the action is given up, and this switch's startup configuration stays as it was unless
// it has already been replaced. To be run in a process of its own: a fabric-wide action starts
// threads and leaves behind those that do not end.
ActionOutcome perform(const Action &action, int stop);

// Undoes a change of the running configuration that did not end or was not saved in time. Returns
// the outcome; never throws.
ActionOutcome look_back();

} // namespace ulmo
