// Writes a seed corpus for the fuzz target from the scenario files of the
// transcript tests: their configuration, levels, router mode, received text
// and notifications, encoded as fuzz operations (fuzz_input.h). Each scenario
// gives two seeds: its chunks as sent, and all of its text one byte at a time.
//
//   leitch_fuzz_seeds TRANSCRIPT_DIR OUTPUT_DIR

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "fuzz/fuzz_input.h"
#include "host/transcript.h"

namespace {

namespace fs = std::filesystem;
using namespace leitch_fuzz;

int number(const std::vector<std::string>& args, size_t i) {
    return i < args.size() ? std::atoi(args[i].c_str()) : 0;
}

uint8_t s8(int v) { return static_cast<uint8_t>(static_cast<int8_t>(std::clamp(v, -128, 127))); }

void s16(std::string& out, int v) {
    const auto u = static_cast<uint16_t>(static_cast<int16_t>(std::clamp(v, -32768, 32767)));
    out += static_cast<char>(u & 0xFF);
    out += static_cast<char>(u >> 8);
}

uint8_t destinations_byte(int d) {
    if (d >= 1024) return kFullLevel;
    return s8(std::clamp(d, -128, 127));
}

void chunk(std::string& out, const std::string& text, bool bytewise) {
    const size_t most = bytewise ? kByteChunksLast - kByteChunks + 1u : kChunkLast - kChunk + 1u;
    const uint8_t first = bytewise ? kByteChunks : kChunk;
    for (size_t at = 0; at < text.size(); at += most) {
        const std::string piece = text.substr(at, most);
        out += static_cast<char>(first + piece.size() - 1);
        out += piece;
    }
}

// "H:SxD" words of a levels line, at most seven to an operation.
void levels(std::string& out, const std::vector<std::string>& specs, bool update) {
    for (size_t at = 0; at == 0 || at < specs.size(); at += kLevelCountMask) {
        const size_t n = std::min<size_t>(kLevelCountMask, specs.size() - std::min(at, specs.size()));
        out += static_cast<char>(kLevelList | n | (update || at > 0 ? kLevelUpdateBit : 0));
        for (size_t i = at; i < at + n; ++i) {
            int host = 0, sources = 0, count = 0;
            std::sscanf(specs[i].c_str(), "%d:%dx%d", &host, &sources, &count);
            out += static_cast<char>(s8(host));
            out += static_cast<char>(s8(sources));
            out += static_cast<char>(destinations_byte(count));
        }
    }
}

void config(std::string& out, const std::map<std::string, std::string>& keys) {
    std::string text;
    const auto value = [&](const char* key) {
        const auto found = keys.find(key);
        return found == keys.end() ? std::string() : found->second;
    };
    text = value("device_id") + "|" + value("level_mapping_video") + "|" +
           value("level_control_video");
    if (text.size() > 255) text.resize(255);
    out += static_cast<char>(kLoadConfig);
    out += static_cast<char>(text.size());
    out += text;
}

std::string encode(const plugin_host::Transcript& scenario, bool bytewise) {
    std::string out;
    std::map<std::string, std::string> keys;
    bool configuring = false;
    for (const plugin_host::TranscriptStep& step : scenario.steps) {
        const std::vector<std::string>& args = step.args;
        if (step.action == "config") {
            configuring = true;
            if (args.size() == 2) keys[args[0]] = args[1];
            continue;
        }
        if (configuring) {
            config(out, keys);
            keys.clear();
            configuring = false;
        }
        if (step.action == "levels" || step.action == "levels-update") {
            levels(out, args, step.action == "levels-update");
        } else if (step.action == "router") {
            out += static_cast<char>(kRouterOn);
        } else if (step.action == "recv" && !args.empty()) {
            chunk(out, args[0], bytewise);
        } else if (step.action == "crosspoint") {
            out += static_cast<char>(kCrosspoint);
            out += static_cast<char>(s8(number(args, 0)));
            out += static_cast<char>(s8(number(args, 1)));
            s16(out, number(args, 2));
        } else if (step.action == "lock") {
            out += static_cast<char>(kCrosspointLock);
            out += static_cast<char>(s8(number(args, 0)));
            s16(out, number(args, 1));
            out += static_cast<char>(s8(number(args, 2)));
        }
    }
    if (configuring) config(out, keys);
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s TRANSCRIPT_DIR OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    const fs::path output = argv[2];
    fs::create_directories(output);
    int written = 0;
    for (const auto& entry : fs::directory_iterator(argv[1])) {
        if (entry.path().extension() != ".txt") continue;
        const std::string stem = entry.path().stem().string();
        const plugin_host::Transcript scenario = plugin_host::load_transcript(entry.path().string());
        for (const bool bytewise : {false, true}) {
            std::ofstream(output / (stem + (bytewise ? ".bytewise" : "")), std::ios::binary)
                << encode(scenario, bytewise);
            ++written;
        }
    }
    std::printf("%d seeds written to %s\n", written, output.c_str());
    return 0;
}
