#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "framework/protocol_converter.h"
#include "host/answering_driver.h"
#include "sim/log.h"

namespace routerd {

// Where and how much to record (--record DIR).
struct RecordSettings {
    std::string directory;  // empty: no recording
    std::size_t max_bytes = 16 * 1024 * 1024;  // per client link
};

// One client link's session written as a transcript, the format the test
// suite and leitch-replay read: what the instance was given (configuration,
// levels, every chunk as it was handed over, every router notification),
// each followed by the SendData pieces and driver calls it caused. Lines are
// written at the end of every event, so a crash loses at most the last one;
// past the size bound the recording stops, at an event's end, with a log line,
// and what was written still plays.
class LinkRecording {
public:
    // Opens DIRECTORY/<time>-client<id>-<peer>.txt; null (and a log line) when it cannot.
    static std::unique_ptr<LinkRecording> open(const RecordSettings& settings, int client, const std::string& peer,
                                               const Log& log);
    ~LinkRecording();
    LinkRecording(const LinkRecording&) = delete;
    LinkRecording& operator=(const LinkRecording&) = delete;

    // What the instance is given.
    void configuration(const std::map<std::string, std::string>& config);
    void levels(const std::list<LevelDesc>& levels);
    void received(std::string_view chunk);
    void crosspoint(int level, int source, int destination);
    void lock(int level, int destination, int state);

    // What it does.
    void sent(std::string_view piece);
    void called(plugin_host::AnsweringDriver::Operation operation, int a = 0, int b = 0, int c = 0);

    // Writes what the event recorded.
    void end_event();
    // Forgets what the current event recorded: the instance was stopped in
    // the middle of it, and no replay could reproduce that.
    void discard_event();

private:
    LinkRecording(int fd, std::string path, int client, std::size_t max_bytes, const Log& log)
        : fd_(fd), path_(std::move(path)), client_(client), max_bytes_(max_bytes), log_(log) {}
    void action(const std::string& line);
    void write_all(const std::string& text);

    int fd_;
    std::string path_;
    int client_;
    std::size_t max_bytes_;
    const Log& log_;
    std::string event_;  // lines of the current event
    std::size_t written_ = 0;
    bool stopped_ = false;
};

}  // namespace routerd
