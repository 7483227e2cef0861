#pragma once

#include <map>
#include <string>

namespace routerd {

// The Leitch level each router (host) level is seen as by clients, as the
// converter plug-in reads its configuration (the LoadConfig map): host level
// -> Leitch level. A host level that is not in the result is one no client
// sees: its changes are never reported and no Leitch level is said to be it.
//
// The simulator never links the plug-in's code, so this mirrors the plug-in's
// reading rule for rule; tests/sim/leitch_levels_test.cpp holds it against the
// loaded plug-in.
std::map<int, int> leitch_levels(const std::map<std::string, std::string>& converter);

}  // namespace routerd
