#pragma once

// Plays transcripts against a loaded plug-in: an instance with a link and a
// driver that record every SendData piece and driver call, set up in the
// framework's order, and a player that performs each action of a transcript
// and compares what the instance did with what the transcript expects.

#include <list>
#include <map>
#include <string>
#include <vector>

#include "framework/interface.h"
#include "framework/protocol_converter.h"
#include "host/answering_driver.h"
#include "host/plugin_library.h"
#include "host/transcript.h"

namespace plugin_host {

// One ordered record of everything the instance did: "send <escaped text>" for
// each SendData piece (escaped as in transcripts) and "call <Operation> <args>"
// for each driver call.
using EventLog = std::vector<std::string>;

// "call LockCrosspoint 0 5 1" and the like, as transcripts write driver calls.
std::string driver_call_text(AnsweringDriver::Operation operation, int a, int b, int c);

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
class RecordingDriver : public AnsweringDriver {
public:
    explicit RecordingDriver(EventLog& log) : log_(log) {}

private:
    void record(Operation operation, int a, int b, int c) override {
        log_.push_back(driver_call_text(operation, a, b, c));
    }
    EventLog& log_;
};

// An instance with its recording link and driver, created and given its
// driver; LoadConfig and LevelList are the caller's.
class RecordingSession {
public:
    explicit RecordingSession(const PluginLibrary& library);
    ProtocolConverter& host() { return *instance_; }
    RecordingDriver& driver() { return driver_; }
    RecordingInterface& link() { return link_; }

    void configure(const std::map<std::string, std::string>& config) { instance_->LoadConfig(config); }
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

// The outcome of playing one transcript: matched, or the first action whose
// events differ from the expected ones (or that the transcript does not spell
// correctly).
struct PlayResult {
    bool matched = true;
    int line = 0;        // of the action in the file
    std::string action;  // "recv", "crosspoint"...
    EventLog expected;
    EventLog actual;
    std::string problem;  // a malformed action, if that is what stopped it
};

PlayResult play(const PluginLibrary& library, const Transcript& transcript);

// "file:line: after recv: expected ..., got ..." for a result that did not match.
std::string describe(const PlayResult& result, const std::string& file);

}  // namespace plugin_host
