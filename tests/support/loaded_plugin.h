#pragma once

// A test host: loads the built plug-in with the shared loader, exactly as the
// framework does, and drives instances only through the framework's base classes.

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/interface.h"
#include "framework/protocol_converter.h"
#include "host/answering_driver.h"
#include "host/plugin_library.h"
#include "support/transcript.h"

namespace testhost {

using plugin_host::PluginLibrary;

// The library every test uses, loaded once per test program.
const PluginLibrary& shared_library();

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

// Records every driver call; answers like a router once routerTarget is set.
class RecordingDriver : public plugin_host::AnsweringDriver {
public:
    explicit RecordingDriver(EventLog& log) : log_(log) {}

private:
    void record(Operation operation, int a, int b, int c) override;
    EventLog& log_;
};

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
    PluginLibrary::Instance instance_;
};

}  // namespace testhost
