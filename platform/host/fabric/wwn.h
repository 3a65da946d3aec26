// This switch's world-wide name.
#pragma once

#include "base/wwn_text.h"

namespace ulmo {

// The setting `wwn`, or else a locally assigned name (NAA 3) derived from the machine id. Throws
// SettingsError if the setting is bad.
Wwn local_wwn();

} // namespace ulmo
