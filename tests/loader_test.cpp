// The loader every host shares: what it says when loading fails, and that an
// instance keeps its library loaded.

#include <gtest/gtest.h>

#include "support/loaded_plugin.h"

namespace testhost {
namespace {

std::string load_error(const std::string& path) {
    try {
        PluginLibrary::load(path);
    } catch (const plugin_host::PluginError& e) {
        return e.what();
    }
    return "loaded";
}

TEST(Loader, MissingFileIsNamedWithTheFailingStep) {
    const std::string error = load_error("/nonexistent/libleitch_passthrough.so");
    EXPECT_EQ(0u, error.find("cannot load plug-in /nonexistent/libleitch_passthrough.so: ")) << error;
}

TEST(Loader, LibraryWithoutEntryPointsIsNamedWithTheMissingEntryPoint) {
    const std::string error = load_error(LEITCH_NO_ENTRY_POINTS_PATH);
    EXPECT_EQ(0u, error.find(std::string("plug-in ") + LEITCH_NO_ENTRY_POINTS_PATH +
                             " has no entry point 'create': "))
        << error;
}

TEST(Loader, InstanceKeepsTheLibraryLoadedAfterTheLastOtherOwnerLetsGo) {
    EventLog log;
    RecordingInterface link(log);
    auto library = PluginLibrary::load(LEITCH_PLUGIN_PATH);
    PluginLibrary::Instance instance = library->create(link);
    library.reset();
    instance->ReceiveData("@ I?T\r", nullptr);
    EXPECT_EQ("\r\nI!T,1,0,0,FFFF,100\r\n>", link.sent);
    EXPECT_EQ("0.02", instance->GetVersion());
}

}  // namespace
}  // namespace testhost
