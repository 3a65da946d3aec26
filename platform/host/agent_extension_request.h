// What the agent's side remembers from its start.
#pragma once

namespace ulmo {

// Keeps where the service manager's watchdog listens: the agent takes it out of its environment once it is up.
void remember_watchdog();

// Opens ld_dbg_fp when the setting `agent_debug_file` names a file and it is not open yet. A link in its place is refused.
void open_debug_file();

} // namespace ulmo
