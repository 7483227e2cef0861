// Replays every scenario file of tests/transcripts against the loaded plug-in.

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>

#include "support/loaded_plugin.h"
#include "support/transcript.h"

namespace testhost {
namespace {

std::vector<LevelDesc> parse_levels(const TranscriptStep& step) {
    std::vector<LevelDesc> levels;
    for (const std::string& text : step.args) {
        LevelDesc d;
        char colon = 0, by = 0;
        std::istringstream in(text);
        if (!(in >> d.level >> colon >> d.sources >> by >> d.destinations) || colon != ':' || by != 'x') {
            ADD_FAILURE() << "line " << step.line << ": bad level " << text;
        }
        levels.push_back(d);
    }
    return levels;
}

int arg(const TranscriptStep& step, size_t i) {
    if (i >= step.args.size()) {
        ADD_FAILURE() << "line " << step.line << ": missing argument";
        return 0;
    }
    return std::atoi(step.args[i].c_str());
}

void run(const Transcript& transcript) {
    Session session;
    std::map<std::string, std::string> config;
    for (size_t i = 0; i < transcript.steps.size(); ++i) {
        const TranscriptStep& step = transcript.steps[i];
        if (step.action == "config") {
            // A bare "config" line stands for an empty configuration map.
            if (step.args.size() == 2) {
                config[step.args[0]] = step.args[1];
            } else if (!step.args.empty()) {
                ADD_FAILURE() << "line " << step.line << ": config KEY VALUE";
            }
            // Consecutive config lines form one LoadConfig call.
            const bool more = i + 1 < transcript.steps.size() &&
                              transcript.steps[i + 1].action == "config" && step.expect.empty();
            if (more) continue;
            session.configure(config);
            config.clear();
        } else if (step.action == "levels" || step.action == "levels-update") {
            session.levels(parse_levels(step), step.action == "levels-update");
        } else if (step.action == "router") {
            session.driver().routerTarget = &session.host();
        } else if (step.action == "recv") {
            session.receive(step.args.at(0));
        } else if (step.action == "crosspoint") {
            session.host().Crosspoint(arg(step, 0), arg(step, 1), arg(step, 2));
        } else if (step.action == "lock") {
            session.host().CrosspointLock(arg(step, 0), arg(step, 1), arg(step, 2));
        }
        EXPECT_EQ(step.expect, session.take_events())
            << transcript.name << " line " << step.line << " (" << step.action << ")";
    }
}

class TranscriptTest : public testing::TestWithParam<std::string> {};

TEST_P(TranscriptTest, ReplaysExactly) { run(load_transcript(GetParam())); }

std::string test_name(const testing::TestParamInfo<std::string>& info) {
    std::string name = load_transcript(info.param).name;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Files, TranscriptTest,
                         testing::ValuesIn(transcript_files(LEITCH_TRANSCRIPT_DIR)), test_name);

}  // namespace
}  // namespace testhost
