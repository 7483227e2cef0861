#include "host/transcript_player.h"

#include <cstdlib>
#include <sstream>

namespace plugin_host {

namespace {

bool parse_levels(const TranscriptStep& step, std::vector<LevelDesc>& levels) {
    for (const std::string& text : step.args) {
        LevelDesc d;
        char colon = 0, by = 0;
        std::istringstream in(text);
        if (!(in >> d.level >> colon >> d.sources >> by >> d.destinations) || colon != ':' || by != 'x') return false;
        levels.push_back(d);
    }
    return true;
}

bool numbers(const TranscriptStep& step, int (&values)[3]) {
    if (step.args.size() != 3) return false;
    for (std::size_t i = 0; i < 3; ++i) values[i] = std::atoi(step.args[i].c_str());
    return true;
}

std::string joined(const EventLog& events) {
    if (events.empty()) return "nothing";
    std::string text;
    for (const std::string& event : events) text += (text.empty() ? "" : ", ") + event;
    return text;
}

}  // namespace

std::string driver_call_text(AnsweringDriver::Operation operation, int a, int b, int c) {
    const auto args = [&](std::initializer_list<int> values) {
        std::string text;
        for (const int v : values) text += " " + std::to_string(v);
        return text;
    };
    switch (operation) {
        case AnsweringDriver::Operation::kTakePresets: return "call TakePresets";
        case AnsweringDriver::Operation::kClearPresets: return "call ClearPresets";
        case AnsweringDriver::Operation::kPresetCrosspoint: return "call PresetCrosspoint" + args({a, b, c});
        case AnsweringDriver::Operation::kLockCrosspoint: return "call LockCrosspoint" + args({a, b, c});
    }
    return "call ?";
}

RecordingSession::RecordingSession(const PluginLibrary& library)
    : link_(log), driver_(log), instance_(library.create(link_)) {
    instance_->SetCommandDriver(&driver_);
}

void RecordingSession::levels(const std::vector<LevelDesc>& levels, bool update) {
    std::list<LevelDesc> list(levels.begin(), levels.end());
    instance_->LevelList(list, update);
}

EventLog RecordingSession::take_events() {
    EventLog events;
    events.swap(log);
    return events;
}

PlayResult play(const PluginLibrary& library, const Transcript& transcript) {
    RecordingSession session(library);
    std::map<std::string, std::string> config;
    for (std::size_t i = 0; i < transcript.steps.size(); ++i) {
        const TranscriptStep& step = transcript.steps[i];
        PlayResult result;
        result.line = step.line;
        result.action = step.action;
        int values[3] = {0, 0, 0};
        if (step.action == "config") {
            // A bare "config" line stands for an empty configuration map.
            if (step.args.size() == 2) {
                config[step.args[0]] = step.args[1];
            } else if (!step.args.empty()) {
                result.problem = "config KEY VALUE";
            }
            // Consecutive config lines form one LoadConfig call.
            const bool more = i + 1 < transcript.steps.size() && transcript.steps[i + 1].action == "config" &&
                              step.expect.empty();
            if (more && result.problem.empty()) continue;
            session.configure(config);
            config.clear();
        } else if (step.action == "levels" || step.action == "levels-update") {
            std::vector<LevelDesc> levels;
            if (parse_levels(step, levels)) {
                session.levels(levels, step.action == "levels-update");
            } else {
                result.problem = "bad level: H:SOURCESxDESTINATIONS";
            }
        } else if (step.action == "router") {
            session.driver().routerTarget = &session.host();
        } else if (step.action == "recv") {
            session.receive(step.args.at(0));
        } else if (step.action == "crosspoint" || step.action == "lock") {
            if (!numbers(step, values)) {
                result.problem = step.action + " takes three numbers";
            } else if (step.action == "crosspoint") {
                session.host().Crosspoint(values[0], values[1], values[2]);
            } else {
                session.host().CrosspointLock(values[0], values[1], values[2]);
            }
        }
        result.actual = session.take_events();
        result.expected = step.expect;
        if (!result.problem.empty() || result.actual != result.expected) {
            result.matched = false;
            return result;
        }
    }
    return {};
}

std::string describe(const PlayResult& result, const std::string& file) {
    const std::string where = file + ":" + std::to_string(result.line) + ": ";
    if (!result.problem.empty()) return where + result.problem;
    // The first event that differs, then the whole lists.
    std::size_t i = 0;
    while (i < result.expected.size() && i < result.actual.size() && result.expected[i] == result.actual[i]) ++i;
    const std::string expected = i < result.expected.size() ? result.expected[i] : "nothing more";
    const std::string actual = i < result.actual.size() ? result.actual[i] : "nothing more";
    return where + "after " + result.action + ", event " + std::to_string(i + 1) + ": expected " + expected +
           ", got " + actual + "\n  expected: " + joined(result.expected) + "\n  got:      " + joined(result.actual);
}

}  // namespace plugin_host
