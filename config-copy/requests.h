// A look at the requests that an agent has, whoever made them.
#pragma once

#include "config-copy/output.h"
#include "copy_client/session.h"

#include <optional>

namespace config_copy {

void list_requests(Session &session, Output &output);

// Of one request, or of all.
void list_errors(Session &session, std::optional<oid> index, Output &output);

// Destroys the request; a save that runs in it is given up. Throws a Failure when there is none, or
// it can't be destroyed.
void abort_request(Session &session, oid index, Output &output);

} // namespace config_copy
