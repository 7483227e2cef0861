#include "sim/plugin_library.h"

#include <dlfcn.h>

namespace routerd {

namespace {

std::string last_dl_error() {
    const char* text = dlerror();
    return text ? text : "unknown error";
}

}  // namespace

std::shared_ptr<PluginLibrary> PluginLibrary::load(const std::string& path) {
    dlerror();
    // RTLD_LOCAL keeps the converter's symbols out of the global namespace, as
    // the framework loads it; RTLD_NOW reports a missing dependency here, not mid-session.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) throw PluginError("cannot load plug-in " + path + ": " + last_dl_error());

    const auto lookup = [&](const char* name) {
        dlerror();
        void* symbol = dlsym(handle, name);
        if (!symbol) {
            const std::string reason = last_dl_error();
            dlclose(handle);
            throw PluginError("plug-in " + path + " has no entry point '" + name + "': " + reason);
        }
        return symbol;
    };
    const auto create = reinterpret_cast<CreateFunction>(lookup("create"));
    const auto destroy = reinterpret_cast<DestroyFunction>(lookup("destroy"));
    return std::make_shared<PluginLibrary>(path, handle, create, destroy);
}

PluginLibrary::~PluginLibrary() { dlclose(handle_); }

PluginLibrary::Instance PluginLibrary::create(Interface& link) const {
    ProtocolConverter* instance = create_(&link);
    if (!instance) throw PluginError("plug-in " + path_ + ": create returned no instance");
    return Instance(instance, InstanceDeleter{shared_from_this()});
}

}  // namespace routerd
