#pragma once

// Transcript files: one scenario per file, replayed against a loaded instance.
//
//   # comment
//   config KEY "VALUE"            LoadConfig; all config lines before the first
//                                 other line form one map (later `config` lines
//                                 after an action start a new LoadConfig call)
//   levels H:SxD ...              LevelList(full list): host level H with S
//                                 sources and D destinations
//   levels-update H:SxD ...       LevelList(update)
//   router                        from here on the driver answers like a router:
//                                 locks and takes are reported back from inside
//                                 the driver call
//   recv "TEXT"                   ReceiveData with the bytes (C escapes \r \n \t
//                                 \0 \\ \" \xHH)
//   crosspoint H SOURCE DEST      Crosspoint notification
//   lock H DEST STATE             CrosspointLock notification
//     send "TEXT"                 expected SendData piece
//     call Operation ARGS...      expected driver call (TakePresets, ClearPresets,
//                                 PresetCrosspoint level source destination,
//                                 LockCrosspoint level destination state)
//
// The expected lines after an action are exactly the events that action causes,
// in order; an action with none listed must cause none.

#include <istream>
#include <string>
#include <vector>

namespace plugin_host {

struct TranscriptStep {
    int line = 0;
    std::string action;               // "config", "levels", "levels-update", "router",
                                      // "recv", "crosspoint", "lock"
    std::vector<std::string> args;    // decoded arguments
    std::vector<std::string> expect;  // "send <escaped>" / "call <op> <args>"
};

struct Transcript {
    std::string name;
    std::vector<TranscriptStep> steps;
};

// What leitch-routerd --record writes first and last: a recording that
// lacks its last line was cut short.
inline constexpr const char* kRecordingHeader = "# leitch-routerd: ";
inline constexpr const char* kRecordingEnd = "# end of session";
inline constexpr const char* kRecordingStopped = "# recording stopped";

// Throws std::runtime_error naming the file and line on a malformed file,
// one cut short (the last line without its line end, a recording without its
// last line) or one without actions; and on anything but a regular file.
Transcript load_transcript(const std::string& path);
// The same from text; errors begin with `name`.
Transcript parse_transcript(std::istream& in, const std::string& name);

// Decode a quoted string with C escapes.
std::string unquote(const std::string& quoted);

// The bytes as a quoted string with C escapes, as transcripts write them.
std::string escape(const std::string& bytes);

std::vector<std::string> transcript_files(const std::string& directory);

}  // namespace plugin_host
