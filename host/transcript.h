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

// Throws std::runtime_error naming the file and line on a malformed file.
Transcript load_transcript(const std::string& path);

// Decode a quoted string with C escapes.
std::string unquote(const std::string& quoted);

// The bytes as a quoted string with C escapes, as transcripts write them.
std::string escape(const std::string& bytes);

std::vector<std::string> transcript_files(const std::string& directory);

}  // namespace plugin_host
