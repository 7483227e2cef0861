#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "sim/log.h"

namespace routerd {

// What the simulator can tell of a client's lines from outside its converter
// instance, for the web view.
struct LineNotes {
    std::size_t lines_received = 0;
    std::string last_line;  // the first 256 bytes of it
    // From the last "@ ?" (on) or "@ !" (off) line received.
    bool report_mode = false;
};

// A client's input on its way to the converter: read into one buffer, held
// there and handed over a slice at a time. What it holds is watched on the
// way: the bound on a line's length, the verbose log's lines received, and
// the web view's notes.
class ClientInput {
public:
    ClientInput(int client, const Log& log, std::size_t max_line_bytes)
        : client_(client), log_(log), max_line_bytes_(max_line_bytes) {}

    // Where the next read goes.
    char* buffer() { return received_.data(); }
    std::size_t capacity() const { return received_.size(); }
    // Holds buffer()[begin, end) for the converter; false, holding and
    // noting nothing, when it leaves a line longer than the bound.
    bool hold(std::size_t begin, std::size_t end, LineNotes& notes);
    bool empty() const { return begin_ == end_; }
    // The next slice of what is held: about kInputSliceBytes, never ending
    // just after TAB, CR or LF, so that slicing is invisible to the converter.
    std::string_view next_slice();

private:
    bool line_too_long(const char* data, std::size_t length);
    void log_received(const char* data, std::size_t length);
    void note_lines(const char* data, std::size_t length, LineNotes& notes);

    std::array<char, 16 * 1024> received_;
    std::size_t begin_ = 0;  // received_[begin_, end_) waits for the converter
    std::size_t end_ = 0;
    const int client_;
    const Log& log_;
    const std::size_t max_line_bytes_;
    std::size_t bytes_since_line_end_ = 0;
    std::string activity_line_;  // the verbose log's unfinished received line
    std::string current_line_;   // received since the last line end, cut at 256 bytes
};

}  // namespace routerd
