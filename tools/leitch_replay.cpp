// leitch-replay: plays transcript files (recorded by leitch-routerd --record,
// or written by hand as in tests/transcripts) against a converter library,
// loaded through create/destroy as the framework loads it, and says per file
// whether every reply and driver call matched.
//
// Exit codes: 0 every file matched, 1 some file did not, 2 a file or the
// library could not be read.

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/plugin_library.h"
#include "host/transcript.h"
#include "host/transcript_player.h"

namespace {

constexpr int kAllMatched = 0;
constexpr int kSomeDiffered = 1;
constexpr int kCannotRun = 2;

std::string default_plugin_path() {
    const std::string built = LEITCH_REPLAY_BUILT_PLUGIN;
    std::error_code ignored;
    if (std::filesystem::exists(built, ignored)) return built;
    return LEITCH_REPLAY_INSTALLED_PLUGIN;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"leitch-replay: plays recorded Leitch sessions (transcript files) against a converter library\n"
                 "and reports, per file, whether every reply and driver call matched."};
    std::vector<std::string> files;
    std::string plugin_path = default_plugin_path();
    bool quiet = false;
    app.add_option("files", files, "transcript files to play")->required();
    app.add_option("-p,--plugin", plugin_path, "converter library to load")->capture_default_str();
    app.add_flag("-q,--quiet", quiet, "print only the files that differ");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : kCannotRun;
    }

    std::shared_ptr<plugin_host::PluginLibrary> library;
    try {
        library = plugin_host::PluginLibrary::load(plugin_path);
    } catch (const plugin_host::PluginError& e) {
        std::cerr << "leitch-replay: " << e.what() << '\n';
        return kCannotRun;
    }

    int status = kAllMatched;
    for (const std::string& file : files) {
        plugin_host::Transcript transcript;
        try {
            transcript = plugin_host::load_transcript(file);
        } catch (const std::exception& e) {
            std::cerr << "leitch-replay: " << e.what() << '\n';
            status = kCannotRun;
            continue;
        }
        const plugin_host::PlayResult result = plugin_host::play(*library, transcript);
        if (result.matched) {
            if (!quiet) std::printf("%s: matched (%zu actions)\n", file.c_str(), transcript.steps.size());
            continue;
        }
        std::printf("%s\n", plugin_host::describe(result, file).c_str());
        if (status == kAllMatched) status = kSomeDiffered;
    }
    return status;
}
