#include "host/transcript.h"

#include "host/c_escape.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>


namespace plugin_host {

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Split a line into words; a quoted word may hold blanks.
std::vector<std::string> words(const std::string& line) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t')) ++i;
        if (i >= line.size() || line[i] == '#') break;
        size_t start = i;
        if (line[i] == '"') {
            ++i;
            while (i < line.size() && line[i] != '"') i += line[i] == '\\' ? 2 : 1;
            if (i >= line.size()) throw std::runtime_error("unterminated string");
            ++i;
        } else {
            while (i < line.size() && line[i] != ' ' && line[i] != '\t') ++i;
        }
        out.push_back(line.substr(start, i - start));
    }
    return out;
}

}  // namespace

std::string escape(const std::string& bytes) { return "\"" + plugin_host::c_escape(bytes, true) + "\""; }

std::string unquote(const std::string& quoted) {
    if (quoted.size() < 2 || quoted.front() != '"' || quoted.back() != '"') return quoted;
    std::string out;
    for (size_t i = 1; i + 1 < quoted.size(); ++i) {
        if (quoted[i] != '\\') {
            out += quoted[i];
            continue;
        }
        const char e = quoted[++i];
        switch (e) {
            case 'r': out += '\r'; break;
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case '0': out += '\0'; break;
            case 'x': {
                const int hi = hex_value(quoted[i + 1]);
                const int lo = hex_value(quoted[i + 2]);
                if (hi < 0 || lo < 0) throw std::runtime_error("bad \\x escape");
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                break;
            }
            default: out += e;
        }
    }
    return out;
}

Transcript load_transcript(const std::string& path) {
    std::ifstream in(path);
    if (!in) throw std::runtime_error("cannot open " + path);
    Transcript t;
    t.name = std::filesystem::path(path).stem().string();
    std::string text;
    int number = 0;
    while (std::getline(in, text)) {
        ++number;
        try {
            const std::vector<std::string> w = words(text);
            if (w.empty()) continue;
            const std::string& verb = w[0];
            if (verb == "send") {
                if (w.size() != 2 || t.steps.empty()) throw std::runtime_error("send needs one string after an action");
                t.steps.back().expect.push_back("send " + escape(unquote(w[1])));
            } else if (verb == "call") {
                if (t.steps.empty()) throw std::runtime_error("call before any action");
                std::string event = "call";
                for (size_t i = 1; i < w.size(); ++i) event += " " + w[i];
                t.steps.back().expect.push_back(event);
            } else if (verb == "config" || verb == "levels" || verb == "levels-update" ||
                       verb == "router" || verb == "recv" || verb == "crosspoint" || verb == "lock") {
                TranscriptStep step;
                step.line = number;
                step.action = verb;
                for (size_t i = 1; i < w.size(); ++i) step.args.push_back(unquote(w[i]));
                t.steps.push_back(step);
            } else {
                throw std::runtime_error("unknown word '" + verb + "'");
            }
        } catch (const std::exception& e) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": " + e.what());
        }
    }
    return t;
}

std::vector<std::string> transcript_files(const std::string& directory) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        if (entry.path().extension() == ".txt") files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace plugin_host
