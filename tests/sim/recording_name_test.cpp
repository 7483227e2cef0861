// Which files of the record directory count against its bound: the names the
// simulator gives its recordings, <YYYYMMDD>-<HHMMSS>.<mmm>-client<N>-<peer>.txt.

#include <gtest/gtest.h>

#include "sim/recording.h"

namespace routerd {
namespace {

TEST(RecordingName, TheSimulatorsOwnNamesCount) {
    EXPECT_TRUE(is_recording_name("20241123-234520.123-client1-127.0.0.1_40000.txt"));
    EXPECT_TRUE(is_recording_name("20241123-234520.123-client65535-__1__40000.txt"));
    EXPECT_TRUE(is_recording_name("20241123-234520.123-client7-_dev_ttyUSB0.txt"));
}

TEST(RecordingName, EveryOtherFileOfTheUsersIsLeftOut) {
    for (const char* name : {"notes.txt", "20241123-234520.123-client1-127.0.0.1_40000.txt~",
                             "20241123-234520.123-client1-.txt", "20241123-234520.123-client-x.txt",
                             "20241123-234520-client1-x.txt", "2024112-234520.123-client1-x.txt",
                             "20241123_234520.123-client1-x.txt", "20241123-234520.12-client1-x.txt",
                             "20241123-234520.123-clientX-x.txt", "20241123-234520.123-client1-x.log", ""}) {
        EXPECT_FALSE(is_recording_name(name)) << name;
    }
}

}  // namespace
}  // namespace routerd
