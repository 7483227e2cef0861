#pragma once

// The simulator loads the converter with the loader every host shares.
#include "host/plugin_library.h"

namespace routerd {

using plugin_host::PluginError;
using plugin_host::PluginLibrary;

}  // namespace routerd
