// Judges answers: an agent that is broken, or wants to do harm, may send anything.
#pragma once

#include "copy_client/session.h"

#include <optional>
#include <vector>

namespace copy_client {

// The values of an answer to a GET of these names, in their order. Throws Trouble of wrong_answer
// when it is about other names, or a value has a type or a length that its object does not have.
std::vector<Value> values_of(const netsnmp_pdu &answer, const std::vector<Oid> &names);

// The instance in an answer to a GETNEXT of `name`, as long as it is one of `column`. Throws
// Trouble of wrong_answer, and of names_not_rising when the walk would come back to where it was.
std::optional<Binding> instance_of(const netsnmp_pdu &answer, const Oid &column, const Oid &name);

} // namespace copy_client
