#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <tuple>

namespace routerd {

// Time-stamped log lines on the standard error stream (without the time stamp
// when standard error is the systemd journal, which stamps lines itself). The activity log (every
// line received and every reply) is written only when verbose; callers that
// build an activity message test verbose() first, so that a quiet simulator
// does not format every reply.
//
// Writing never blocks the event loop: a line that standard error cannot take
// at once (a reader that is slow or gone) waits in a bounded buffer, retried
// by flush(); beyond the bound lines are dropped and counted, and the count is
// logged once the stream takes lines again. A reader that has gone away
// (EPIPE) only loses the lines.
class Log {
public:
    explicit Log(bool verbose = false);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    // Makes standard error (descriptor 2) a non-blocking pipe of the log's
    // own, so that whatever writes there directly (the plug-in writes its line
    // with std::cerr) can never block the simulator; the log forwards it,
    // time-stamped, to the real standard error. Returns false, leaving
    // everything as it was, when the pipe cannot be made.
    bool capture_standard_error();

    void info(std::string_view message) const;
    void activity(std::string_view message) const {
        if (verbose_) info(message);
    }
    bool verbose() const { return verbose_; }

    // Lines about clients coming and going (and what the plug-in writes to
    // standard error, once per instance): at most kClientLinesPerSecond a
    // second, so that a client connecting in a loop cannot flood the log; the
    // rest are counted and the count logged by end_second().
    void client_line(std::string_view message) const;
    void end_second() const;
    static constexpr std::size_t kClientLinesPerSecond = 50;

    // Takes in what was written to the captured standard error, then writes
    // what waits, as far as the stream takes it without blocking.
    void flush() const;
    std::size_t waiting_bytes() const { return waiting_.size() - written_; }

    static constexpr std::size_t kMaxWaitingBytes = 1024 * 1024;

private:
    void forget_waiting() const;
    void take_in_captured() const;
    void append_line(std::string_view message) const;

    bool verbose_;
    bool time_stamped_;
    int fd_ = 2;            // where the lines go
    int captured_fd_ = -1;  // the read end of the pipe that is standard error now
    mutable std::string captured_line_;  // an unfinished line written to the captured stream
    // The log is not the simulator's state: writing it is allowed from const code.
    mutable std::string waiting_;
    mutable std::size_t written_ = 0;  // bytes of waiting_ already written
    mutable std::size_t dropped_lines_ = 0;
    mutable std::size_t client_lines_ = 0;          // this second
    mutable std::size_t client_lines_skipped_ = 0;  // this second
};

// Puts the real standard error back on descriptor 2 while a log captures it,
// for a report written as the process dies (a sanitizer's, see
// sanitizer_hooks.cpp): written into the log's pipe, which only the event
// loop reads, it would end with the process unread. What waits in the pipe
// is written out first, without time stamps. Only system calls: callable
// from anywhere, a signal handler included.
void give_back_standard_error();

// "client 3" for a Leitch client, "web" for the web view (client 0).
std::string client_name(int client);

// Refused changes, logged without letting a client flood the log: the first
// refusal of a kind for a reason is logged in full, and the ones that follow
// within the same second are counted and summed up by end_second().
class RefusalLog {
public:
    explicit RefusalLog(const Log& log) : log_(log) {}

    // "client 3: refused <what> on level 0: <reason>". `kind` is the plural of
    // what was refused ("presets", "takes", "locks"); `what` describes this
    // one ("preset of source 5 to destination 9") and is called only when the
    // line is written.
    template <typename What>
    void refused(int client, const char* kind, int level, const std::string& reason, const What& what) {
        const auto [entry, first] = counts_.try_emplace(Key{client, kind, reason}, 0);
        if (!first) {
            ++entry->second;
            return;
        }
        log_.info(client_name(client) + ": refused " + what() + " on level " + std::to_string(level) +
                  ": " + reason);
    }

    // Logs one line per kind and reason refused more than once since the last call.
    void end_second();

private:
    using Key = std::tuple<int, std::string, std::string>;
    const Log& log_;
    std::map<Key, std::size_t> counts_;  // refusals after the first
};

// The local time now in a strftime `format`, with ".mmm" milliseconds after it.
std::string local_time(const char* format);

// Control characters written as C escapes, so that one log entry stays on one line.
std::string escape(std::string_view bytes);

// 1234567 as "1,234,567".
std::string with_thousands(std::size_t number);

}  // namespace routerd
