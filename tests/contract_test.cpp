// The plug-in as the framework sees it: loaded with dlopen, driven only
// through the framework's base classes.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include "support/loaded_plugin.h"

namespace testhost {
namespace {

TEST(Contract, ExportsCreateAndDestroyUnderPlainNames) {
    void* handle = shared_library().handle();
    EXPECT_NE(nullptr, dlsym(handle, "create"));
    EXPECT_NE(nullptr, dlsym(handle, "destroy"));
    // Nothing of the class is visible from outside.
    EXPECT_EQ(nullptr, dlsym(handle, "_ZN10LeitchHost8_VersionE"));
    EXPECT_EQ(nullptr, dlsym(handle, "msg_switcher"));
}

TEST(Contract, CreateWritesTheLogLineToStandardError) {
    testing::internal::CaptureStderr();
    { Session session; }
    EXPECT_EQ("Creating Leitch Passthrough host instance\n", testing::internal::GetCapturedStderr());
}

TEST(Contract, EachInstanceLogsOnce) {
    testing::internal::CaptureStderr();
    {
        Session a;
        Session b;
        a.receive("@ S?0\r");
    }
    EXPECT_EQ("Creating Leitch Passthrough host instance\nCreating Leitch Passthrough host instance\n",
              testing::internal::GetCapturedStderr());
}

TEST(Contract, VersionIsZeroPointZeroTwo) {
    Session session;
    const std::string& version = session.host().GetVersion();
    EXPECT_EQ("0.02", version);
    // A reference to one class-wide string.
    Session other;
    EXPECT_EQ(&version, &other.host().GetVersion());
}

TEST(Contract, DestroyIgnoresNull) {
    shared_library().destroy_function()(nullptr);
    SUCCEED();
}

TEST(Contract, ConstructionSendsNothingAndCallsNothing) {
    Session session;
    EXPECT_TRUE(session.take_events().empty());
}

TEST(Contract, NotificationsBeforeLevelListAreDropped) {
    Session session;
    session.configure({{"level_mapping_video", "0"}});
    session.host().Crosspoint(0, 3, 5);
    session.host().CrosspointLock(0, 5, 1);
    session.receive("@ ?;@ S?0\r");
    EXPECT_EQ("@ ?\r\n@ S?0\r\n>", session.link().sent);
}

TEST(Contract, InterfaceArgumentOfReceiveDataIsNotUsed) {
    Session session;
    EventLog otherLog;
    RecordingInterface other(otherLog);
    session.host().ReceiveData("@ I?T\r", &other);
    EXPECT_TRUE(otherLog.empty());
    EXPECT_EQ("\r\nI!T,1,0,0,FFFF,100\r\n>", session.link().sent);
}

TEST(Contract, FreshInstanceIsDeviceOneWithoutConfiguration) {
    Session session;
    session.receive("@ I?V\r");
    EXPECT_EQ("\r\nI!V,1,0,0,100,0,100\r\n>", session.link().sent);
}

TEST(Contract, UnusedFrameworkOperationsDoNothing) {
    Session session;
    ProtocolConverter& host = session.host();
    std::list<InputOutputDesc> io;
    std::map<int, int> m;
    host.SetInterface(boost::shared_ptr<Interface>());
    host.ReceiveDataImmediate("@ I?T\r", nullptr);
    host.InputList(io, false);
    host.OutputList(io, true);
    host.VirtualCrosspoint(0, 1, 2);
    host.VirtualCrosspoint(0, m, 2);
    host.Parameter(0, 1, 2);
    host.Salvo(0, 1, true);
    host.DestinationStatus(0, 1, m);
    host.SalvoSignalStatus(0, 1, 2);
    EXPECT_TRUE(session.take_events().empty());
}

}  // namespace
}  // namespace testhost
