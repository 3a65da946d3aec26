#include "config-copy/copies/retries.h"

#include "config-copy/interrupt.h"
#include "config-copy/output/output.h"
#include "copy_client/waiting.h"

namespace config_copy {

void wait_for_retry(std::size_t agents, std::chrono::seconds pause, Output &output) {
    output.retrying(agents, pause);
    copy_client::pause_for(pause, interrupt_descriptor());
}

} // namespace config_copy
