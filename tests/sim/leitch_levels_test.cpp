// The Leitch level the simulator says each router level is seen as, held
// against the built plug-in loaded as the framework loads it: a router level
// is seen as Leitch level L exactly when the plug-in reports the level's
// changes on L and a take on L reaches it; a level seen as none has its
// changes reported on no Leitch level.

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "sim/leitch_levels.h"
#include "support/loaded_plugin.h"

namespace {

using Converter = std::map<std::string, std::string>;
using SeenAs = std::map<int, int>;  // router level -> Leitch level

constexpr int kSource = 2;
constexpr int kDestination = 1;

char hex_digit(int value) { return "0123456789ABCDEF"[value]; }

// The Leitch level the plug-in reports a change of router level `level` on,
// or -1 when it reports none. Report mode is on.
int reported_level(testhost::Session& session, int level) {
    session.link().sent.clear();
    session.host().Crosspoint(level, kSource, kDestination);
    const std::string sent = session.link().sent;
    if (sent.empty()) return -1;
    for (int leitch = 0; leitch < 16; ++leitch) {
        if (sent == std::string("\r\nS:") + hex_digit(leitch) + "1,2\r\n>") return leitch;
    }
    ADD_FAILURE() << "router level " << level << ": unexpected report " << testhost::escape(sent);
    return -2;
}

// The router levels a take on Leitch level `leitch` presets.
std::vector<int> levels_taken(testhost::Session& session, int leitch) {
    session.take_events();
    session.receive(std::string("@ X:") + hex_digit(leitch) + "/1,2\r");
    std::vector<int> levels;
    for (const std::string& event : session.take_events()) {
        int level = 0, source = 0, destination = 0;
        if (std::sscanf(event.c_str(), "call PresetCrosspoint %d %d %d", &level, &source, &destination) == 3) {
            EXPECT_EQ(source, kSource) << event;
            EXPECT_EQ(destination, kDestination) << event;
            levels.push_back(level);
        }
    }
    return levels;
}

// What the loaded plug-in, configured with `converter` and given these router
// levels, shows of each: router level -> the Leitch level it is seen as.
SeenAs as_the_plugin_sees(const Converter& converter, const std::set<int>& router_levels) {
    testhost::Session session;
    session.configure(converter);
    std::vector<LevelDesc> levels;
    for (const int level : router_levels) levels.push_back({level, 4, 4});
    session.levels(levels);
    session.receive("@ ?\r");
    SeenAs seen;
    for (const int level : router_levels) {
        const int leitch = reported_level(session, level);
        if (leitch >= 0) seen[level] = leitch;
    }
    for (const auto& [level, leitch] : seen)
        EXPECT_EQ(levels_taken(session, leitch), std::vector<int>{level}) << "take on Leitch level " << leitch;
    return seen;
}

// The router levels to ask about: the case's own and every one the function names.
std::set<int> levels_to_ask(const std::vector<int>& router_levels, const SeenAs& claimed) {
    std::set<int> levels(router_levels.begin(), router_levels.end());
    for (const auto& entry : claimed) levels.insert(entry.first);
    return levels;
}

struct Case {
    const char* name;
    Converter converter;
    std::vector<int> router_levels;
    SeenAs seen_as;
};

std::vector<Case> cases() {
    std::string sixteen_and_one;
    SeenAs first_sixteen;
    for (int host = 1; host <= 17; ++host) {
        sixteen_and_one += (host > 1 ? "," : "") + std::to_string(host);
        if (host <= 16) first_sixteen[host] = host - 1;
    }
    std::string control_beyond = "on";
    for (int i = 0; i < 19; ++i) control_beyond += ",off";
    return {
        {"BuiltInRouter", {{"device_id", "1"}, {"level_mapping_video", "0,1"}, {"level_control_video", "on,on"}},
         {0, 1}, {{0, 0}, {1, 1}}},
        {"SecondLevelSwitchedOffIsSeenAsNone",
         {{"level_mapping_video", "0,1"}, {"level_control_video", "on,off"}}, {0, 1}, {{0, 0}}},
        {"FirstLevelSwitchedOff", {{"level_mapping_video", "0,1"}, {"level_control_video", "off"}}, {0, 1},
         {{1, 1}}},
        {"ControlFlagIsCaseSensitive", {{"level_mapping_video", "3,4"}, {"level_control_video", "On"}}, {3, 4},
         {{4, 1}}},
        {"ControlFlagNotTrimmed", {{"level_mapping_video", "3,4,5"}, {"level_control_video", "on ,,on"}}, {3, 4, 5},
         {{5, 2}}},
        {"ControlFlagsForUnmappedLevelsIgnored",
         {{"level_mapping_video", "3"}, {"level_control_video", control_beyond}}, {3}, {{3, 0}}},
        {"DoubledCommaMapsHostZero", {{"level_mapping_video", "4,,6"}}, {0, 4, 6}, {{4, 0}, {0, 1}, {6, 2}}},
        {"ExampleMappingWithOneLevelOff",
         {{"device_id", "3"}, {"level_mapping_video", "1,2,5,7"}, {"level_control_video", "on,off,on"}},
         {1, 2, 5, 7}, {{1, 0}, {5, 2}, {7, 3}}},
        {"LeadingCommaMapsHostZero", {{"level_mapping_video", ",4"}}, {0, 4}, {{0, 0}, {4, 1}}},
        {"BlankAndGarbageTokensReadAsNumbers", {{"level_mapping_video", " 5,6x"}}, {5, 6}, {{5, 0}, {6, 1}}},
        {"NegativeHostLevel", {{"level_mapping_video", "-2"}}, {-2, 0}, {{-2, 0}}},
        {"NonNumericTokenIsHostZero", {{"level_mapping_video", "video"}}, {0}, {{0, 0}}},
        {"OnlySixteenLevelsMapped", {{"level_mapping_video", sixteen_and_one}}, {1, 16, 17}, first_sixteen},
        {"SameHostLevelTwiceIsSeenAsTheLater", {{"level_mapping_video", "3,3"}}, {0, 3}, {{3, 1}}},
        {"SameHostLevelTwiceFirstSwitchedOff", {{"level_mapping_video", "3,3"}, {"level_control_video", "off"}},
         {0, 3}, {}},
        {"SameHostLevelTwiceSecondSwitchedOff",
         {{"level_mapping_video", "3,3"}, {"level_control_video", "on,off"}}, {0, 3}, {}},
        {"SameHostLevelAgainAfterAnotherSwitchedOff",
         {{"level_mapping_video", "3,4,3"}, {"level_control_video", "off"}}, {3, 4}, {{4, 1}}},
        {"TrailingCommaTwoLevels", {{"level_mapping_video", "1,2,"}}, {0, 1, 2}, {{1, 0}, {2, 1}}},
        {"WithoutMappingNoLevels", {{"device_id", "1"}}, {0, 3}, {}},
        {"EmptyConfiguration", {}, {0}, {}},
        {"EmptyMapping", {{"level_mapping_video", ""}, {"level_control_video", "on"}}, {0}, {}},
        {"EmptyControlKeepsEveryLevel", {{"level_mapping_video", "1,2"}, {"level_control_video", ""}}, {1, 2},
         {{1, 0}, {2, 1}}},
        {"EmptyControlFlagSwitchesOff", {{"level_mapping_video", "1,2"}, {"level_control_video", ",on"}}, {1, 2},
         {{2, 1}}},
        {"SignsBlanksAndHexPrefixesReadLikeAtoi", {{"level_mapping_video", "+5, -0,0x10,\t7"}}, {0, 5, 7, 10, 16},
         {{5, 0}, {0, 2}, {7, 3}}},
    };
}

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class LeitchLevelsCase : public testing::TestWithParam<Case> {};

TEST_P(LeitchLevelsCase, RouterLevelsAreSeenAsThePluginShowsThem) {
    const Case& c = GetParam();
    const SeenAs claimed = routerd::leitch_levels(c.converter);
    EXPECT_EQ(claimed, c.seen_as);
    EXPECT_EQ(as_the_plugin_sees(c.converter, levels_to_ask(c.router_levels, claimed)), claimed);
}

INSTANTIATE_TEST_SUITE_P(LeitchLevels, LeitchLevelsCase, testing::ValuesIn(cases()),
                         [](const testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

// Mappings and flags drawn from tokens the plug-in reads in every way it can:
// blanks, signs, garbage, numbers beyond an int, repeats, flags that are
// almost "on".
TEST(LeitchLevels, DrawnConfigurationsAreSeenAsThePluginShowsThem) {
    const std::vector<std::string> levels{"0", "1", "2", "3", "7", "15", "-1", "", " 2", "x", "3x", "+4",
                                          "99999999999", "-99999999999"};
    const std::vector<std::string> flags{"on", "on", "off", "On", "on ", " on", ""};
    std::mt19937 random(20261123);
    const auto list = [&random](const std::vector<std::string>& tokens) {
        std::string text;
        const int count = static_cast<int>(random() % 19);
        for (int i = 0; i < count; ++i) text += (i > 0 ? "," : "") + tokens[random() % tokens.size()];
        return text;
    };
    testing::internal::CaptureStderr();  // every instance writes its creation line
    for (int round = 0; round < 400; ++round) {
        Converter converter;
        if (random() % 8 != 0) converter["level_mapping_video"] = list(levels);
        if (random() % 4 != 0) converter["level_control_video"] = list(flags);
        std::string described;
        for (const auto& [key, value] : converter) described += key + " \"" + value + "\" ";
        const SeenAs claimed = routerd::leitch_levels(converter);
        EXPECT_EQ(as_the_plugin_sees(converter, levels_to_ask({-1, 0, 1, 2, 3, 4, 7, 15}, claimed)), claimed)
            << described;
    }
    testing::internal::GetCapturedStderr();
}

}  // namespace
