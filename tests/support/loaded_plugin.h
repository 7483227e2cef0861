#pragma once

// A test host: loads the built plug-in with dlopen exactly as the framework
// does and drives instances only through the framework's base classes.

#include <dlfcn.h>

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "framework/command_driver.h"
#include "framework/interface.h"
#include "framework/plugin_entry.h"
#include "framework/protocol_converter.h"
#include "support/transcript.h"

namespace testhost {

// Keeps the library loaded for as long as it lives.
class PluginLibrary {
public:
    explicit PluginLibrary(const std::string& path)
        : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
        if (!handle_) throw std::runtime_error(std::string("dlopen: ") + dlerror());
        create_ = reinterpret_cast<CreateFunction>(dlsym(handle_, "create"));
        destroy_ = reinterpret_cast<DestroyFunction>(dlsym(handle_, "destroy"));
        if (!create_ || !destroy_) throw std::runtime_error("create/destroy not exported");
    }
    ~PluginLibrary() { dlclose(handle_); }
    PluginLibrary(const PluginLibrary&) = delete;
    PluginLibrary& operator=(const PluginLibrary&) = delete;

    CreateFunction create() const { return create_; }
    DestroyFunction destroy() const { return destroy_; }
    void* handle() const { return handle_; }

    // The library every test uses, loaded once per test program.
    static PluginLibrary& shared();

private:
    void* handle_;
    CreateFunction create_ = nullptr;
    DestroyFunction destroy_ = nullptr;
};

inline PluginLibrary& PluginLibrary::shared() {
    static PluginLibrary library(LEITCH_PLUGIN_PATH);
    return library;
}

// One ordered record of everything the instance did: "send <escaped text>" for
// each SendData piece (escaped as in transcripts) and "call <Operation> <args>"
// for each driver call.
using EventLog = std::vector<std::string>;

class RecordingInterface : public Interface {
public:
    explicit RecordingInterface(EventLog& log) : log_(log) {}
    void SendData(std::string data) override {
        sent += data;
        log_.push_back("send " + escape(data));
    }
    std::string sent;  // everything sent, concatenated

private:
    EventLog& log_;
};

// Records every driver call. In "router" mode it also behaves like a router
// that answers synchronously: a lock is reported back through CrosspointLock
// from inside LockCrosspoint, and a take reports every queued crosspoint
// through Crosspoint from inside TakePresets.
class RecordingDriver : public CommandDriver {
public:
    explicit RecordingDriver(EventLog& log) : log_(log) {}

    void TakePresets() override;
    void ClearPresets() override;
    void PresetCrosspoint(int level, int source, int destination) override;
    void LockCrosspoint(int level, int destination, int state) override;

    ProtocolConverter* routerTarget = nullptr;  // set for router mode

private:
    struct Queued {
        int level, source, destination;
    };
    EventLog& log_;
    std::vector<Queued> queue_;
};

struct InstanceDeleter {
    DestroyFunction destroy;
    void operator()(ProtocolConverter* p) const { destroy(p); }
};
using InstancePtr = std::unique_ptr<ProtocolConverter, InstanceDeleter>;

// An instance with its recording link and driver, set up in the framework's
// order: create, SetCommandDriver, LoadConfig, LevelList.
class Session {
public:
    Session();
    ProtocolConverter& host() { return *instance_; }
    RecordingDriver& driver() { return driver_; }
    RecordingInterface& link() { return link_; }

    void configure(const std::map<std::string, std::string>& config) { instance_->LoadConfig(config); }
    // Levels as host level -> (sources, destinations).
    void levels(const std::vector<LevelDesc>& levels, bool update = false);
    void receive(const std::string& bytes) { instance_->ReceiveData(bytes, nullptr); }

    // Events recorded since the last call.
    EventLog take_events();

    EventLog log;  // declared first: the link and the driver record into it

private:
    RecordingInterface link_;
    RecordingDriver driver_;
    InstancePtr instance_;
};

}  // namespace testhost
