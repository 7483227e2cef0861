#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include "framework/plugin_entry.h"
#include "framework/protocol_converter.h"

namespace routerd {

// A converter library could not be loaded or lacks an entry point.
class PluginError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The loaded converter library: dlopen'ed on construction, dlclose'd when the
// last owner lets go. Every instance holds a reference, so the code of an
// instance's destructor is never unloaded before it runs.
class PluginLibrary : public std::enable_shared_from_this<PluginLibrary> {
public:
    // Throws PluginError naming the file and the failing step.
    static std::shared_ptr<PluginLibrary> load(const std::string& path);
    ~PluginLibrary();
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    struct InstanceDeleter {
        std::shared_ptr<const PluginLibrary> library;
        void operator()(ProtocolConverter* instance) const { library->destroy_(instance); }
    };
    using Instance = std::unique_ptr<ProtocolConverter, InstanceDeleter>;

    // A new converter instance talking to the client through `link`.
    Instance create(Interface& link) const;

    const std::string& path() const { return path_; }

    // Takes over an open handle; use load().
    PluginLibrary(std::string path, void* handle, CreateFunction create, DestroyFunction destroy)
        : path_(std::move(path)), handle_(handle), create_(create), destroy_(destroy) {}

private:
    std::string path_;
    void* handle_;
    CreateFunction create_;
    DestroyFunction destroy_;
};

}  // namespace routerd
