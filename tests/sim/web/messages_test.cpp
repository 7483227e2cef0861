// The JSON the web view writes, to its pages and in reply to the API: the
// exact text of each kind of message for a small router.

#include <gtest/gtest.h>

#include <chrono>

#include "sim/web/messages.h"

namespace routerd::web {
namespace {

const std::chrono::system_clock::time_point kTime{std::chrono::milliseconds(1700000000123)};

class Messages : public ::testing::Test {
protected:
    Messages() {
        router_.preset_crosspoint(0, 2, 1);
        router_.preset_lock(0, 2, 1);
    }

    ActivityEvent& add(ActivityEvent::Kind kind, int client) {
        ActivityEvent& event = activity_.add(kind, client);
        event.time = kTime;
        return event;
    }

    ActivityEvent& add_change(ActivityEvent::Kind kind, int level, int destination, int value) {
        ActivityEvent& event = add(kind, 0);
        event.level = level;
        event.destination = destination;
        event.value = value;
        return event;
    }

    static int leitch_level(int level) { return level == 0 ? 0 : -1; }

    static ClientInfo client(int id, const std::string& last_line) {
        ClientInfo info;
        info.id = id;
        info.peer = "127.0.0.1:4000" + std::to_string(id);
        info.link = "tcp";
        info.connected_since = kTime;
        info.lines_received = 2;
        info.last_line = last_line;
        info.report_mode = true;
        return info;
    }

    Router router_{{{0, "video", 3, 3}, {1, "audio", 2, 1}}};
    ActivityLog activity_{10};
};

TEST_F(Messages, AnErrorNamesItsFieldWhenThereIsOne) {
    EXPECT_EQ(error_message("no level 7", "level"), R"({"error":"no level 7","field":"level"})");
    EXPECT_EQ(error_message("no such endpoint: /api/x"), R"({"error":"no such endpoint: /api/x"})");
}

TEST_F(Messages, ARefusalSaysHowManyChangesWereApplied) {
    EXPECT_EQ(refusal_message("destination locked", "takes[1].destination", 1),
              R"({"applied":1,"error":"destination locked","field":"takes[1].destination"})");
}

TEST_F(Messages, LevelsListEachLevelWithItsLeitchLevelOrNull) {
    EXPECT_EQ(levels_message(router_, leitch_level),
              R"({"levels":[{"destinations":3,"leitch_level":0,"name":"video","number":0,"sources":3},)"
              R"({"destinations":1,"leitch_level":null,"name":"audio","number":1,"sources":2}]})");
}

TEST_F(Messages, ALevelHasTheSourceAndLockOfEachDestination) {
    EXPECT_EQ(level_message(router_, router_.levels()[0], 0),
              R"({"crosspoints":[0,2,0],"destination_labels":[],"destinations":3,"leitch_level":0,"locks":[0,0,1],)"
              R"("name":"video","number":0,"source_labels":[],"sources":3})");
}

TEST_F(Messages, ALevelListsItsLabelsToTheLastOneWithNullForThoseWithout) {
    router_.set_label(0, LabelSide::source, 2, "Studio A \"PGM\"");
    router_.set_label(0, LabelSide::destination, 0, "MON \u2192 1");
    EXPECT_EQ(level_message(router_, router_.levels()[0], 0),
              R"({"crosspoints":[0,2,0],"destination_labels":["MON )" "\u2192" R"( 1"],"destinations":3,"leitch_level":0,)"
              R"("locks":[0,0,1],"name":"video","number":0,"source_labels":[null,null,"Studio A \"PGM\""],)"
              R"("sources":3})");
}

TEST_F(Messages, AFrameCarriesTheLabelsOfTheLevelsWhoseLabelsChanged) {
    router_.set_label(1, LabelSide::source, 1, "MIC 2");
    FrameMessage frame({}, {});
    frame.add_labels(router_, {1, 0, 7});
    EXPECT_EQ(frame.finish(),
              R"({"type":"frame","crosspoints":[],"locks":[],"labels":[)"
              R"({"destination_labels":[],"number":1,"source_labels":[null,"MIC 2"]},)"
              R"({"destination_labels":[],"number":0,"source_labels":[]}]})");
}

TEST_F(Messages, ClientsAreListedByIdWithTheirLastLineEscaped) {
    const ClientInfo second = client(2, "@ X:0/1,2");
    const ClientInfo first = client(1, "\x01\xff");
    EXPECT_EQ(clients_message({&second, &first}),
              R"({"clients":[)"
              R"({"connected_since":1700000000123,"id":1,"last_line":"\\x01\\xFF","lines_received":2,"link":"tcp",)"
              R"("peer":"127.0.0.1:40001","report_mode":true},)"
              R"({"connected_since":1700000000123,"id":2,"last_line":"@ X:0/1,2","lines_received":2,"link":"tcp",)"
              R"("peer":"127.0.0.1:40002","report_mode":true}]})");
}

TEST_F(Messages, LinksSayHowTheyStand) {
    EXPECT_EQ(links_message({{"tcp", "127.0.0.1:2323", "", true, ""},
                             {"serial", "/dev/ttyUSB0", "38400 8N1", false, "gone"}}),
              R"({"links":[{"kind":"tcp","problem":"","settings":"","up":true,"where":"127.0.0.1:2323"},)"
              R"({"kind":"serial","problem":"gone","settings":"38400 8N1","up":false,"where":"/dev/ttyUSB0"}]})");
}

TEST_F(Messages, EachKindOfEventHasItsOwnFields) {
    add_change(ActivityEvent::Kind::take, 0, 1, 2);
    add_change(ActivityEvent::Kind::refused_take, 0, 5, 1).text = "destination out of range";
    add_change(ActivityEvent::Kind::lock, 1, 0, 1);
    add_change(ActivityEvent::Kind::refused_lock, 7, 0, 1).text = "unknown level";
    add(ActivityEvent::Kind::connect, 3).text = "127.0.0.1:40003";
    add(ActivityEvent::Kind::disconnect, 3).text = "closed by client";
    EXPECT_EQ(events_message(activity_.events(), 0),
              R"({"events":[)"
              R"({"client":0,"destination":1,"kind":"take","level":0,"seq":1,"source":2,"time":1700000000123},)"
              R"({"client":0,"destination":5,"kind":"refused take","level":0,"reason":"destination out of range",)"
              R"("seq":2,"source":1,"time":1700000000123},)"
              R"({"client":0,"destination":0,"kind":"lock","level":1,"seq":3,"state":1,"time":1700000000123},)"
              R"({"client":0,"destination":0,"kind":"refused lock","level":7,"reason":"unknown level",)"
              R"("seq":4,"state":1,"time":1700000000123},)"
              R"({"client":3,"kind":"connect","peer":"127.0.0.1:40003","seq":5,"time":1700000000123},)"
              R"({"client":3,"kind":"disconnect","reason":"closed by client","seq":6,"time":1700000000123}]})");
}

TEST_F(Messages, TextThatIsNotUtf8IsWrittenWithReplacementCharacters) {
    add(ActivityEvent::Kind::disconnect, 1).text = "bad \xff\"byte\"";
    EXPECT_EQ(events_message(activity_.events(), 0),
              "{\"events\":[{\"client\":1,\"kind\":\"disconnect\",\"reason\":\"bad \xEF\xBF\xBD\\\"byte\\\"\","
              "\"seq\":1,\"time\":1700000000123}]}");
}

TEST_F(Messages, EventsAfterASequenceNumberAreThoseThatFollowIt) {
    add_change(ActivityEvent::Kind::take, 0, 1, 2);
    add_change(ActivityEvent::Kind::take, 0, 2, 2);
    EXPECT_EQ(events_message(activity_.events(), 1),
              R"({"events":[{"client":0,"destination":2,"kind":"take","level":0,"seq":2,"source":2,)"
              R"("time":1700000000123}]})");
    EXPECT_EQ(events_message(activity_.events(), 2), R"({"events":[]})");
}

TEST_F(Messages, AFrameHasItsChangesAsTriples) {
    FrameMessage frame({{0, 1, 2}, {1, 0, 1}}, {{0, 2, 1}});
    EXPECT_EQ(frame.finish(), R"({"type":"frame","crosspoints":[[0,1,2],[1,0,1]],"locks":[[0,2,1]]})");
}

TEST_F(Messages, AFrameCarriesNewEventsAndClientsWhenThereAreSome) {
    add_change(ActivityEvent::Kind::take, 0, 1, 2);
    add(ActivityEvent::Kind::connect, 1).text = "127.0.0.1:40001";
    const ClientInfo one = client(1, "");
    FrameMessage frame({}, {});
    frame.add_events(activity_.events(), 1);
    frame.add_clients_and_links({&one}, {{"tcp", "127.0.0.1:2323", "", true, ""}});
    EXPECT_EQ(frame.finish(),
              R"({"type":"frame","crosspoints":[],"locks":[],)"
              R"("events":[{"client":1,"kind":"connect","peer":"127.0.0.1:40001","seq":2,"time":1700000000123}],)"
              R"("clients":[{"connected_since":1700000000123,"id":1,"last_line":"","lines_received":2,"link":"tcp",)"
              R"("peer":"127.0.0.1:40001","report_mode":true}],)"
              R"("links":[{"kind":"tcp","problem":"","settings":"","up":true,"where":"127.0.0.1:2323"}]})");
}

TEST_F(Messages, HelloHasEverythingAPageShows) {
    add_change(ActivityEvent::Kind::take, 0, 1, 2);
    router_.set_label(1, LabelSide::source, 0, "MIC 1");
    router_.set_label(1, LabelSide::destination, 0, "OUT");
    EXPECT_EQ(hello_message({true, router_, leitch_level, {}, {}, activity_.events()}),
              R"({"clients":[],)"
              R"("events":[{"client":0,"destination":1,"kind":"take","level":0,"seq":1,"source":2,)"
              R"("time":1700000000123}],)"
              R"("levels":[{"crosspoints":[0,2,0],"destination_labels":[],"destinations":3,"leitch_level":0,)"
              R"("locks":[0,0,1],"name":"video","number":0,"source_labels":[],"sources":3},)"
              R"({"crosspoints":[0],"destination_labels":["OUT"],"destinations":1,"leitch_level":null,"locks":[0],)"
              R"("name":"audio","number":1,"source_labels":["MIC 1"],"sources":2}],)"
              R"("links":[],"readonly":true,"type":"hello"})");
}

TEST_F(Messages, RepliesToChanges) {
    EXPECT_EQ(applied_message(2), R"({"applied":2})");
    EXPECT_EQ(lock_message(5, true), R"({"destination":5,"locked":true})");
    EXPECT_EQ(deleted_message("morning"), R"({"deleted":"morning"})");
    EXPECT_EQ(saved_name_message("morning"), R"({"name":"morning"})");
}

TEST_F(Messages, SavedRoutingsAndARecallThatWasRefusedSome) {
    EXPECT_EQ(salvos_message({{"morning", {0, 1}, 4}, {"video", {0}, 3}}),
              R"({"salvos":[{"crosspoints":4,"levels":[0,1],"name":"morning"},)"
              R"({"crosspoints":3,"levels":[0],"name":"video"}]})");
    EXPECT_EQ(salvo_message({"video", {0}, 3}), R"({"crosspoints":3,"levels":[0],"name":"video"})");
    EXPECT_EQ(recall_message("morning", 3, {{{0, 2, 1}, Refusal::destination_locked}}),
              R"({"applied":3,"name":"morning",)"
              R"("refused":[{"destination":2,"level":0,"reason":"destination locked","source":1}]})");
}

}  // namespace
}  // namespace routerd::web
