// The control requests that reach the serial buses of a unit's firmware model (see control/channel.hpp
// for their forms).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "unit.hpp"

namespace sim {

// The response line to a request whose words are `w`, or nothing if the verb is not one of these.
std::optional<std::string> busControl(Unit& unit, const std::vector<std::string>& w);
// The "clear" request's part: silent far ends speak again, pending bursts are dropped.
void clearBusFaults(Unit& unit);

}  // namespace sim
