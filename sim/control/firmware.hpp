// The control requests that reach into a unit's firmware model (see control/channel.hpp for their forms).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "unit.hpp"

namespace sim {

// The response line ("ok ..." or "err ...") to a request whose words are `w` (w[0] the verb,
// w[1] the unit's selector), or nothing if the verb is not one of these.
std::optional<std::string> firmwareControl(Unit& unit, const std::vector<std::string>& w);

}  // namespace sim
