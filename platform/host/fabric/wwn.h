// This switch's world-wide name.
#pragma once

#include "base/wwn_text.h"

namespace ulmo {

// The setting `wwn`, or a locally assigned name (NAA 3) made of the machine id. Throws
// SettingsError when the setting is bad.
Wwn local_wwn();

} // namespace ulmo
