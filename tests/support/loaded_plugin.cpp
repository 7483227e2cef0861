#include "support/loaded_plugin.h"

namespace testhost {

const PluginLibrary& shared_library() {
    static const std::shared_ptr<PluginLibrary> library = PluginLibrary::load(LEITCH_PLUGIN_PATH);
    return *library;
}

}  // namespace testhost
