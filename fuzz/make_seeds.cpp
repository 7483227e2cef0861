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

namespace {

namespace fs = std::filesystem;
using namespace leitch_fuzz;

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Words of a scenario line; a quoted word may hold blanks and C escapes.
std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        if (i >= line.size() || line[i] == '#') break;
        std::string word;
        if (line[i] == '"') {
            for (++i; i < line.size() && line[i] != '"'; ++i) {
                if (line[i] != '\\' || i + 1 >= line.size()) {
                    word += line[i];
                    continue;
                }
                const char e = line[++i];
                if (e == 'r') word += '\r';
                else if (e == 'n') word += '\n';
                else if (e == 't') word += '\t';
                else if (e == '0') word += '\0';
                else if (e == 'x' && i + 2 < line.size() && hex_value(line[i + 1]) >= 0 &&
                         hex_value(line[i + 2]) >= 0) {
                    word += static_cast<char>(hex_value(line[i + 1]) * 16 + hex_value(line[i + 2]));
                    i += 2;
                } else word += e;
            }
            ++i;
        } else {
            while (i < line.size() && line[i] != ' ' && line[i] != '\t') word += line[i++];
        }
        out.push_back(word);
    }
    return out;
}

int number(const std::vector<std::string>& w, size_t i) {
    return i < w.size() ? std::atoi(w[i].c_str()) : 0;
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
void levels(std::string& out, const std::vector<std::string>& w, bool update) {
    std::vector<std::string> specs(w.begin() + 1, w.end());
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

std::string encode(const fs::path& scenario, bool bytewise) {
    std::ifstream in(scenario);
    std::string out;
    std::string line;
    std::map<std::string, std::string> keys;
    bool configuring = false;
    while (std::getline(in, line)) {
        const std::vector<std::string> w = words(line);
        if (w.empty() || w[0] == "send" || w[0] == "call") continue;
        if (w[0] == "config") {
            configuring = true;
            if (w.size() == 3) keys[w[1]] = w[2];
            continue;
        }
        if (configuring) {
            config(out, keys);
            keys.clear();
            configuring = false;
        }
        if (w[0] == "levels" || w[0] == "levels-update") {
            levels(out, w, w[0] == "levels-update");
        } else if (w[0] == "router") {
            out += static_cast<char>(kRouterOn);
        } else if (w[0] == "recv" && w.size() > 1) {
            chunk(out, w[1], bytewise);
        } else if (w[0] == "crosspoint") {
            out += static_cast<char>(kCrosspoint);
            out += static_cast<char>(s8(number(w, 1)));
            out += static_cast<char>(s8(number(w, 2)));
            s16(out, number(w, 3));
        } else if (w[0] == "lock") {
            out += static_cast<char>(kCrosspointLock);
            out += static_cast<char>(s8(number(w, 1)));
            s16(out, number(w, 2));
            out += static_cast<char>(s8(number(w, 3)));
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
        for (const bool bytewise : {false, true}) {
            std::ofstream(output / (stem + (bytewise ? ".bytewise" : "")), std::ios::binary)
                << encode(entry.path(), bytewise);
            ++written;
        }
    }
    std::printf("%d seeds written to %s\n", written, output.c_str());
    return 0;
}
