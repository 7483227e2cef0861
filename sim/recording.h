#pragma once

#include <chrono>
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
    // All the recordings in the directory together, those found there at
    // start-up included: enough for 16 links recorded to their own bound, or
    // some 700 sessions on a router of 16 levels of 1152 x 1152 (each starts
    // with every crosspoint, about 360 kB), and small on any disk. Measured
    // before there was a bound: 250 short connections wrote 89.5 MB in 3 s.
    std::size_t max_total_bytes = 256 * 1024 * 1024;
};

// Whether a file name is one this simulator gives a recording:
// <YYYYMMDD>-<HHMMSS>.<mmm>-client<N>-<peer>.txt.
bool is_recording_name(std::string_view name);

class LinkRecording;

// The record directory and the room left in it. The recordings found there at
// start-up and every byte written since count against max_total_bytes; each
// open recording also holds the room of its last line, so that it can always
// end properly. When the bound is reached, new sessions are not recorded and
// open recordings stop at their next event, with one log line for all of
// them; no file is ever deleted. Recording resumes once the recordings there
// take no more than three quarters of the bound again: the directory is
// measured anew, at most once a second, when a session would be recorded.
class RecordDirectory {
public:
    // Measures the recordings already in the directory.
    RecordDirectory(RecordSettings settings, const Log& log);
    RecordDirectory(const RecordDirectory&) = delete;
    RecordDirectory& operator=(const RecordDirectory&) = delete;

    // A new recording of one client link: DIRECTORY/<time>-client<id>-<peer>.txt.
    // Null when the directory is full (logged once for all) or the file cannot
    // be made (logged).
    std::unique_ptr<LinkRecording> open(int client, const std::string& peer);

    // The bytes of the recordings, on disk and held for last lines.
    std::size_t used() const { return on_disk_ + held_; }
    bool full() const { return full_; }

private:
    friend class LinkRecording;
    // Whether `bytes` more fit; logs when the bound is reached and when
    // recording resumes.
    bool room(std::size_t bytes);
    bool fits(std::size_t bytes) const { return used() + bytes <= settings_.max_total_bytes; }
    // Room for `bytes` more, counted as written; false once the bound is reached.
    bool take(std::size_t bytes);
    // Room taken and then not written.
    void give_back(std::size_t bytes);
    void measure();

    const RecordSettings settings_;
    const Log& log_;
    std::size_t on_disk_ = 0;  // the recordings' files, as measured plus what was written since
    std::size_t held_ = 0;     // last-line room of the open recordings
    bool full_ = false;
    std::chrono::steady_clock::time_point measured_;
};

// One client link's session written as a transcript, the format the test
// suite and leitch-replay read: what the instance was given (configuration,
// levels, every chunk as it was handed over, every router notification),
// each followed by the SendData pieces and driver calls it caused. Lines are
// written at the end of every event, so a crash loses at most the last one;
// past the size bound, or when the directory's bound is reached, the
// recording stops at an event's end with a last line saying so, and what was
// written still plays.
class LinkRecording {
public:
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
    friend class RecordDirectory;
    LinkRecording(int fd, std::string path, int client, RecordDirectory& directory, const Log& log);
    void action(const std::string& line);
    void stop(const std::string& why);
    void write_last_line(const std::string& line);
    // Writes what the directory gave room for; false when the file took less.
    bool write_all(const std::string& text);

    int fd_;
    std::string path_;
    int client_;
    std::size_t max_bytes_;
    RecordDirectory& directory_;
    const Log& log_;
    std::string event_;  // lines of the current event
    std::size_t written_ = 0;
    bool stopped_ = false;
    bool holding_last_line_ = true;  // the directory holds the room of the last line
};

}  // namespace routerd
