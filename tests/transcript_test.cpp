// Replays every scenario file of tests/transcripts against the loaded plug-in.

#include <gtest/gtest.h>

#include "support/loaded_plugin.h"

namespace testhost {
namespace {

class TranscriptTest : public testing::TestWithParam<std::string> {};

TEST_P(TranscriptTest, ReplaysExactly) {
    const plugin_host::PlayResult result = plugin_host::play(shared_library(), plugin_host::load_transcript(GetParam()));
    EXPECT_TRUE(result.matched) << plugin_host::describe(result, GetParam());
}

std::string test_name(const testing::TestParamInfo<std::string>& info) {
    std::string name = plugin_host::load_transcript(info.param).name;
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Files, TranscriptTest,
                         testing::ValuesIn(plugin_host::transcript_files(LEITCH_TRANSCRIPT_DIR)), test_name);

}  // namespace
}  // namespace testhost
