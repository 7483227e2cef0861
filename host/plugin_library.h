#pragma once

// The one way every host in this project loads the converter library: the
// simulator, the tests, the tools. It loads it as the framework does, with
// dlopen and the two exported entry points, and owns what it opens.

#include <memory>
#include <stdexcept>
#include <string>

#include "framework/plugin_entry.h"
#include "framework/protocol_converter.h"

namespace plugin_host {

// A converter library could not be loaded, lacks an entry point or made no instance.
class PluginError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The loaded converter library: dlopen'ed by load(), dlclose'd when the last
// owner lets go. Every instance holds a reference, so the code of an
// instance's destructor is never unloaded before it runs.
class PluginLibrary : public std::enable_shared_from_this<PluginLibrary> {
public:
    // Throws PluginError naming the file and the failing step; nothing stays
    // open when it throws.
    static std::shared_ptr<PluginLibrary> load(const std::string& path);
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    struct InstanceDeleter {
        std::shared_ptr<const PluginLibrary> library;
        void operator()(ProtocolConverter* instance) const { library->destroy_(instance); }
    };
    using Instance = std::unique_ptr<ProtocolConverter, InstanceDeleter>;

    // A new converter instance talking to the client through `link`, which
    // must outlive it.
    Instance create(Interface& link) const;

    const std::string& path() const { return path_; }
    // For hosts that check the library's exports themselves.
    void* handle() const { return handle_; }
    DestroyFunction destroy_function() const { return destroy_; }

    // Takes over an open handle; use load().
    PluginLibrary(std::string path, void* handle, CreateFunction create, DestroyFunction destroy)
        : path_(std::move(path)), handle_(handle), create_(create), destroy_(destroy) {}

private:
    std::string path_;
    void* handle_;
    CreateFunction create_;
    DestroyFunction destroy_;
};

}  // namespace plugin_host
