// The requests on an agent, of all managers.
#pragma once

#include "config-copy/copy_table.h"
#include "config-copy/output/output.h"
#include "copy_client/session.h"

#include <optional>

namespace config_copy {

void list_requests(Session &session, Output &output);

// The errors of one request, or of all.
void list_errors(Session &session, std::optional<oid> index, Output &output);

// Destroys the request; a save that it runs is aborted. Throws a Failure if there is no such
// request or if it can't be destroyed.
void abort_request(Session &session, oid index, Output &output);

} // namespace config_copy
