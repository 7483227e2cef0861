#pragma once

#include <list>
#include <memory>
#include <string>
#include <string_view>

#include "framework/interface.h"
#include "host/plugin_library.h"
#include "sim/client_driver.h"
#include "sim/recording.h"
#include "sim/session_context.h"

namespace routerd {

// One client's converter instance as the framework runs it: created, then
// given its driver, its configuration and the level list, in that order;
// then told the router's changes and handed the client's input, one call at
// a time. With --record, what it is told and what it does go to the link's
// transcript.
class Converter {
public:
    Converter(int client, const SessionContext& context) : client_(client), context_(context),
        driver_(client, context.router, context.switches, context.log, context.refusals) {}
    ~Converter() { destroy(); }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    // Throws if the plug-in cannot create an instance.
    void create(Interface& link, const std::string& peer);
    bool created() const { return instance_ != nullptr; }
    void destroy();

    // Inline: every take passes here, once per client.
    void crosspoint(int level, int source, int destination) {
        if (recording_) recording_->crosspoint(level, source, destination);
        instance_->Crosspoint(level, source, destination);
    }
    void lock(int level, int destination, int state) {
        if (recording_) recording_->lock(level, destination, state);
        instance_->CrosspointLock(level, destination, state);
    }
    // May throw what the link's SendData throws.
    // The router's level sizes changed: told as a framework tells them, as an update.
    void levels_changed();
    void receive(const std::string& input) {
        if (recording_) recording_->received(input);
        instance_->ReceiveData(input, nullptr);
    }

    // What the instance sent through its link, for the transcript and the verbose log.
    void sent(std::string_view data) {
        if (recording_) recording_->sent(data);
        if (context_.log.verbose()) activity_sent_ += data;
    }
    // The verbose log's line of what was sent since the last one.
    void log_sent() {
        if (!activity_sent_.empty()) log_activity();
    }
    // The event is over: its transcript lines are written.
    void end_event() {
        if (recording_) recording_->end_event();
    }
    // The instance was stopped in the middle of an event no replay could reproduce.
    void discard_event() {
        if (recording_) recording_->discard_event();
    }

private:
    void log_activity();
    std::list<LevelDesc> level_list() const;

    const int client_;
    const SessionContext& context_;
    ClientDriver driver_;
    std::unique_ptr<LinkRecording> recording_;  // --record: this link's transcript
    plugin_host::PluginLibrary::Instance instance_;  // declared after the driver and recording it borrows
    std::string activity_sent_;  // the verbose log's output not logged yet
};

}  // namespace routerd
