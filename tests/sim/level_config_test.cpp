// The labels of [[level]] in the configuration file: what is read, and
// errors that name the file, the line and the key.

#include <string>
#include <vector>

#include "tests/sim/config_file_test.h"

namespace routerd {
namespace {

using Labels = std::vector<std::string>;

class LevelLabelsConfig : public ConfigFileTest {
protected:
    // A level of four sources and three destinations, with `more` after its sizes.
    static std::string level(const std::string& more) {
        return "[[level]]\n"
               "number = 0\n"
               "sources = 4\n"
               "destinations = 3\n" +
               more;
    }
};

TEST_F(LevelLabelsConfig, EachLevelHasTheLabelsItLists) {
    const SimulatorConfig config = load(level("source_labels = [\"CAM 1\", \"\", \"Studio A PGM\"]\n"
                                              "destination_labels = [\"MON 1\", \"Caf\u00e9 \u2192 TX\"]\n") +
                                        "[[level]]\n"
                                        "number = 1\n"
                                        "sources = 2\n"
                                        "destinations = 2\n");
    ASSERT_EQ(config.levels.size(), 2u);
    EXPECT_EQ(config.levels[0].source_labels, (Labels{"CAM 1", "", "Studio A PGM"}));
    EXPECT_EQ(config.levels[0].destination_labels, (Labels{"MON 1", "Caf\u00e9 \u2192 TX"}));
    EXPECT_EQ(config.levels[1].source_labels, Labels{});
    EXPECT_EQ(config.levels[1].destination_labels, Labels{});
}

TEST_F(LevelLabelsConfig, TheBuiltInLevelsHaveNoLabels) {
    const SimulatorConfig config = load("");
    ASSERT_EQ(config.levels.size(), 2u);
    EXPECT_EQ(config.levels[0].source_labels, Labels{});
    EXPECT_EQ(config.levels[0].destination_labels, Labels{});
}

TEST_F(LevelLabelsConfig, AsManyLabelsAsTheLevelHasPortsAndAsLongAsAllowed) {
    const std::string longest(64, 'x');
    const SimulatorConfig config =
        load(level("source_labels = [\"a\", \"b\", \"c\", \"" + longest + "\"]\n"
                   "destination_labels = [\"x\", \"y\", \"z\"]\n"));
    EXPECT_EQ(config.levels[0].source_labels, (Labels{"a", "b", "c", longest}));
    EXPECT_EQ(config.levels[0].destination_labels, (Labels{"x", "y", "z"}));
}

TEST_F(LevelLabelsConfig, LabelsMustBeAnArrayOfStrings) {
    EXPECT_EQ(error_of(level("source_labels = \"CAM 1\"\n")),
              "FILE:5: key 'level[0].source_labels': must be an array of strings");
    EXPECT_EQ(error_of(level("destination_labels = [\n"
                             "  \"MON 1\",\n"
                             "  2,\n"
                             "]\n")),
              "FILE:7: key 'level[0].destination_labels[1]': must be a string");
    EXPECT_EQ(error_of(level("source_labels = [[\"CAM 1\"]]\n")),
              "FILE:5: key 'level[0].source_labels[0]': must be a string");
}

TEST_F(LevelLabelsConfig, NoMoreLabelsThanTheLevelHasSourcesOrDestinations) {
    EXPECT_EQ(error_of(level("source_labels = [\"a\", \"b\", \"c\", \"d\", \"e\"]\n")),
              "FILE:5: key 'level[0].source_labels': lists 5 labels, but the level has 4 sources");
    EXPECT_EQ(error_of(level("destination_labels = [\"a\", \"b\", \"c\", \"d\"]\n")),
              "FILE:5: key 'level[0].destination_labels': lists 4 labels, but the level has 3 destinations");
}

TEST_F(LevelLabelsConfig, ALabelLongerThan64BytesIsRefused) {
    // 22 characters of three bytes each.
    std::string arrows;
    for (int i = 0; i < 22; ++i) arrows += "\u2192";
    EXPECT_EQ(error_of(level("source_labels = [\"ok\", \"" + arrows + "\"]\n")),
              "FILE:5: key 'level[0].source_labels[1]': at most 64 bytes (this one has 66)");
    EXPECT_EQ(error_of(level("destination_labels = [\"" + std::string(65, 'x') + "\"]\n")),
              "FILE:5: key 'level[0].destination_labels[0]': at most 64 bytes (this one has 65)");
}

TEST_F(LevelLabelsConfig, ALabelWithAControlCharacterOrALineBreakIsRefused) {
    EXPECT_EQ(error_of(level("source_labels = [\"CAM\\t1\"]\n")),
              "FILE:5: key 'level[0].source_labels[0]': must hold no control characters or line breaks "
              "(U+0009 at byte 3)");
    EXPECT_EQ(error_of(level("destination_labels = [\n"
                             "  \"MON 1\",\n"
                             "  \"\"\"two\n"
                             "lines\"\"\",\n"
                             "]\n")),
              "FILE:7: key 'level[0].destination_labels[1]': must hold no control characters or line breaks "
              "(U+000A at byte 3)");
    EXPECT_EQ(error_of(level("source_labels = [\"A\\u2028B\"]\n")),
              "FILE:5: key 'level[0].source_labels[0]': must hold no control characters or line breaks "
              "(U+2028 at byte 1)");
    EXPECT_EQ(error_of(level("source_labels = [\"bell\\u0007\"]\n")),
              "FILE:5: key 'level[0].source_labels[0]': must hold no control characters or line breaks "
              "(U+0007 at byte 4)");
}

TEST_F(LevelLabelsConfig, TheSecondLevelIsNamedByItsPlace) {
    EXPECT_EQ(error_of(level("") +
                       "[[level]]\n"
                       "number = 5\n"
                       "sources = 1\n"
                       "destinations = 1\n"
                       "source_labels = [\"a\", \"b\"]\n"),
              "FILE:9: key 'level[1].source_labels': lists 2 labels, but the level has 1 source");
}

}  // namespace
}  // namespace routerd
