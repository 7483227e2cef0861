#include "host/transcript.h"

#include "host/c_escape.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <iterator>
#include <stdexcept>
#include <utility>

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
                if (i + 2 >= quoted.size() - 1) throw std::runtime_error("bad \\x escape");
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

namespace {

bool is_quoted(const std::string& word) { return word.size() >= 2 && word.front() == '"' && word.back() == '"'; }

bool is_integer(const std::string& word) {
    std::size_t i = word.size() > 1 && word[0] == '-' ? 1 : 0;
    if (i == word.size()) return false;
    for (; i < word.size(); ++i) {
        if (word[i] < '0' || word[i] > '9') return false;
    }
    return true;
}

// "H:SxD", each a number.
bool is_level(const std::string& word) {
    const std::size_t colon = word.find(':');
    const std::size_t by = word.find('x', colon == std::string::npos ? 0 : colon);
    return colon != std::string::npos && by != std::string::npos && is_integer(word.substr(0, colon)) &&
           is_integer(word.substr(colon + 1, by - colon - 1)) && is_integer(word.substr(by + 1));
}

const char* const kActions[] = {"config", "levels", "levels-update", "router", "recv", "crosspoint", "lock"};

// Why an action line's arguments cannot be played, or nothing.
const char* bad_arguments(const std::vector<std::string>& w) {
    const std::string& verb = w[0];
    const std::size_t count = w.size() - 1;
    if (verb == "config" && count != 0 && (count != 2 || !is_quoted(w[2]))) return "config needs KEY \"VALUE\"";
    if (verb == "router" && count != 0) return "router takes nothing";
    if (verb == "recv" && (count != 1 || !is_quoted(w[1]))) return "recv needs one quoted string";
    if (verb == "crosspoint" || verb == "lock") {
        if (count != 3 || !is_integer(w[1]) || !is_integer(w[2]) || !is_integer(w[3]))
            return verb == "lock" ? "lock needs three numbers" : "crosspoint needs three numbers";
    }
    if (verb == "levels" || verb == "levels-update") {
        for (std::size_t i = 1; i < w.size(); ++i) {
            if (!is_level(w[i])) return "a level is H:SOURCESxDESTINATIONS";
        }
    }
    return nullptr;
}

const char* bad_call(const std::vector<std::string>& w) {
    static const std::pair<const char*, std::size_t> kCalls[] = {
        {"TakePresets", 0}, {"ClearPresets", 0}, {"PresetCrosspoint", 3}, {"LockCrosspoint", 3}};
    for (const auto& [name, count] : kCalls) {
        if (w.size() < 2 || w[1] != name) continue;
        if (w.size() - 2 != count) return "call: wrong number of arguments";
        for (std::size_t i = 2; i < w.size(); ++i) {
            if (!is_integer(w[i])) return "call: arguments are numbers";
        }
        return nullptr;
    }
    return "call names TakePresets, ClearPresets, PresetCrosspoint or LockCrosspoint";
}

void add_line(Transcript& t, const std::vector<std::string>& w, int number) {
    const std::string& verb = w[0];
    if (verb == "send") {
        if (w.size() != 2 || !is_quoted(w[1]) || t.steps.empty())
            throw std::runtime_error("send needs one quoted string after an action");
        t.steps.back().expect.push_back("send " + escape(unquote(w[1])));
        return;
    }
    if (verb == "call") {
        if (t.steps.empty()) throw std::runtime_error("call before any action");
        if (const char* why = bad_call(w)) throw std::runtime_error(why);
        std::string event = "call";
        for (std::size_t i = 1; i < w.size(); ++i) event += " " + w[i];
        t.steps.back().expect.push_back(event);
        return;
    }
    if (std::find(std::begin(kActions), std::end(kActions), verb) == std::end(kActions))
        throw std::runtime_error("unknown word '" + verb + "'");
    if (const char* why = bad_arguments(w)) throw std::runtime_error(why);
    TranscriptStep step;
    step.line = number;
    step.action = verb;
    for (std::size_t i = 1; i < w.size(); ++i) step.args.push_back(unquote(w[i]));
    t.steps.push_back(step);
}

}  // namespace

Transcript parse_transcript(std::istream& in, const std::string& name) {
    Transcript t;
    t.name = name;
    std::string text;
    std::string last;
    int number = 0;
    bool recording = false;
    while (std::getline(in, text)) {
        ++number;
        const auto fail = [&](const std::string& why) {
            return std::runtime_error(name + ":" + std::to_string(number) + ": " + why);
        };
        // Every line of a whole file ends in a line end.
        if (in.eof()) throw fail("the file ends in the middle of this line (cut short?)");
        if (number == 1) recording = text.rfind(kRecordingHeader, 0) == 0;
        if (!text.empty()) last = text;
        try {
            const std::vector<std::string> w = words(text);
            if (!w.empty()) add_line(t, w, number);
        } catch (const std::exception& e) {
            throw fail(e.what());
        }
    }
    if (recording && last.rfind(kRecordingEnd, 0) != 0 && last.rfind(kRecordingStopped, 0) != 0) {
        throw std::runtime_error(name + ":" + std::to_string(number) +
                                 ": the recording ends here without its last line (cut short?)");
    }
    if (t.steps.empty()) throw std::runtime_error(name + ": no actions");
    return t;
}

Transcript load_transcript(const std::string& path) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) throw std::runtime_error("cannot open " + path + ": no such file");
    if (!std::filesystem::is_regular_file(path, ec)) throw std::runtime_error(path + ": not a regular file");
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot open " + path);
    Transcript t = parse_transcript(in, path);
    t.name = std::filesystem::path(path).stem().string();
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
