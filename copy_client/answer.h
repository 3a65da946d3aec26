// Checks answers: a broken or malicious agent may send anything.
#pragma once

#include "copy_client/session.h"

#include <optional>
#include <vector>

namespace copy_client {

// The values in an answer to a GET of these names, in the same order. Throws Trouble of
// wrong_answer if the answer is about other names, or if a value has a type or a length that its
// object can't have.
std::vector<Value> values_of(const netsnmp_pdu &answer, const std::vector<Oid> &names);

// The instance in an answer to a GETNEXT of `name`; empty if it is not an instance of `column`.
// Throws Trouble of wrong_answer, and of names_not_rising if the walk would go back.
std::optional<Binding> instance_of(const netsnmp_pdu &answer, const Oid &column, const Oid &name);

} // namespace copy_client
