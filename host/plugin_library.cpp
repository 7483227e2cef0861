#include "host/plugin_library.h"

#include <dlfcn.h>

#include <utility>

namespace plugin_host {

namespace {

std::string last_dl_error() {
    const char* text = dlerror();
    return text ? text : "unknown error";
}

// Closes the handle unless released: a failed look-up leaves nothing open.
struct OpenHandle {
    void* handle;
    ~OpenHandle() {
        if (handle) dlclose(handle);
    }
    void* release() { return std::exchange(handle, nullptr); }
};

}  // namespace

std::shared_ptr<PluginLibrary> PluginLibrary::load(const std::string& path) {
    dlerror();
    // RTLD_LOCAL keeps the converter's symbols out of the global namespace, as
    // the framework loads it; RTLD_NOW reports a missing dependency here, not mid-session.
    OpenHandle open{dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)};
    if (!open.handle) throw PluginError("cannot load plug-in " + path + ": " + last_dl_error());

    const auto lookup = [&](const char* name) {
        dlerror();
        void* symbol = dlsym(open.handle, name);
        if (!symbol) {
            throw PluginError("plug-in " + path + " has no entry point '" + name +
                              "': " + last_dl_error());
        }
        return symbol;
    };
    const auto create = reinterpret_cast<CreateFunction>(lookup("create"));
    const auto destroy = reinterpret_cast<DestroyFunction>(lookup("destroy"));
    auto library = std::make_shared<PluginLibrary>(path, open.handle, create, destroy);
    open.release();
    return library;
}

PluginLibrary::~PluginLibrary() { dlclose(handle_); }

PluginLibrary::Instance PluginLibrary::create(Interface& link) const {
    ProtocolConverter* instance = create_(&link);
    if (!instance) throw PluginError("plug-in " + path_ + ": create returned no instance");
    return Instance(instance, InstanceDeleter{shared_from_this()});
}

}  // namespace plugin_host
