// The HTTP API without sockets: the route table, and the replies of a web
// state over a small router whose io_context never runs (a change is applied
// at once; only its telling waits for the frame, which never comes here).

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <regex>
#include <set>

#include <boost/asio/io_context.hpp>

#include "sim/backends/simulated_backend.h"
#include "sim/web/api.h"
#include "sim/web/web_state.h"

namespace routerd::web {
namespace {

namespace http = boost::beast::http;

TEST(ApiRoutes, EachRouteIsFoundByItsMethodAndPath) {
    struct Case {
        http::verb method;
        const char* path;
        const char* route;
        std::vector<std::string_view> parameters;
    };
    const Case cases[] = {
        {http::verb::get, "/api/levels", "/api/levels", {}},
        {http::verb::get, "/api/levels/3", "/api/levels/{level}", {"3"}},
        {http::verb::post, "/api/levels/3/take", "/api/levels/{level}/take", {"3"}},
        {http::verb::post, "/api/levels/x/lock", "/api/levels/{level}/lock", {"x"}},
        {http::verb::get, "/api/clients", "/api/clients", {}},
        {http::verb::get, "/api/links", "/api/links", {}},
        {http::verb::get, "/api/events", "/api/events", {}},
        {http::verb::get, "/api/salvos", "/api/salvos", {}},
        {http::verb::post, "/api/salvos", "/api/salvos", {}},
        {http::verb::delete_, "/api/salvos/morning", "/api/salvos/{name}", {"morning"}},
        {http::verb::post, "/api/salvos/morning/recall", "/api/salvos/{name}/recall", {"morning"}},
    };
    for (const Case& c : cases) {
        const RouteMatch match = find_route(c.method, c.path);
        ASSERT_NE(match.route, nullptr) << c.path;
        EXPECT_EQ(match.route->path, c.route);
        EXPECT_EQ(match.route->method, c.method) << c.path;
        EXPECT_EQ(match.parameters, c.parameters) << c.path;
    }
}

TEST(ApiRoutes, AKnownPathAskedWithAnotherMethodNamesTheFirstMethodOfThePath) {
    const RouteMatch take = find_route(http::verb::get, "/api/levels/0/take");
    EXPECT_EQ(take.route, nullptr);
    ASSERT_NE(take.path_route, nullptr);
    EXPECT_EQ(take.path_route->method, http::verb::post);
    const RouteMatch salvos = find_route(http::verb::delete_, "/api/salvos");
    ASSERT_NE(salvos.path_route, nullptr);
    EXPECT_EQ(salvos.path_route->method, http::verb::get);
}

TEST(ApiRoutes, AnUnknownPathFindsNothing) {
    for (const char* path : {"/api/nothing", "/api/levels/0/preset", "/api/salvos/a/b/c", "/api/"}) {
        const RouteMatch match = find_route(http::verb::get, path);
        EXPECT_EQ(match.route, nullptr) << path;
        EXPECT_EQ(match.path_route, nullptr) << path;
    }
}

TEST(ApiRoutes, EmptyPartsOfThePathAreSkipped) {
    const RouteMatch match = find_route(http::verb::get, "/api//levels/2/");
    ASSERT_NE(match.route, nullptr);
    EXPECT_EQ(match.route->path, "/api/levels/{level}");
    EXPECT_EQ(match.parameters, std::vector<std::string_view>{"2"});
}

TEST(ApiRoutes, NoTwoRoutesShareAMethodAndPath) {
    std::set<std::pair<http::verb, std::string_view>> seen;
    for (const ApiRoute& route : api_routes()) {
        EXPECT_TRUE(seen.insert({route.method, route.path}).second) << route.path;
        EXPECT_NE(route.handler, nullptr) << route.path;
    }
}

TEST(ApiRoutes, TheListingIsWrittenFromTheTable) {
    EXPECT_EQ(describe_routes(),
              "GET    /api/levels                the levels\n"
              "GET    /api/levels/{level}        crosspoints and locks of a level\n"
              "POST   /api/levels/{level}/take   take {\"destination\":5,\"source\":3}, or several: "
              "{\"takes\":[{...},...]}\n"
              "POST   /api/levels/{level}/lock   lock or unlock {\"destination\":5,\"locked\":true}\n"
              "GET    /api/clients               the connected Leitch clients\n"
              "GET    /api/links                 the links served, and how they stand\n"
              "GET    /api/events                the recent events, or those after ?after=SEQ\n"
              "GET    /api/salvos                the saved routings\n"
              "POST   /api/salvos                save the routing {\"name\":\"morning\"}, or of one level: "
              "\"level\":0\n"
              "DELETE /api/salvos/{name}         delete a saved routing\n"
              "POST   /api/salvos/{name}/recall  take every crosspoint of a saved routing\n");
}

// The API's page shows a curl command for each route: the table and it must agree.
TEST(ApiRoutes, TheApiPageShowsEveryRoute) {
    std::ifstream file(LEITCH_SOURCE_DIR "/docs/web-and-api.md");
    ASSERT_TRUE(file) << "docs/web-and-api.md";
    std::stringstream page;
    page << file.rdbuf();
    for (const ApiRoute& route : api_routes()) {
        const std::string path = std::regex_replace(std::string(route.path), std::regex("\\{[a-z]+\\}"), "[^/ ?']+");
        const std::string method(http::to_string(route.method));
        const std::string curl = route.method == http::verb::get ? "curl '?" : "curl -X " + method + " ";
        const std::regex shown(curl + "http://127\\.0\\.0\\.1:8080" + path + "[ ?'\n]");
        EXPECT_TRUE(std::regex_search(page.str(), shown)) << method << " " << route.path;
    }
}

class FixedLinks final : public LinkDirectory {
public:
    std::vector<LinkStatus> links() const override { return {{"tcp", "127.0.0.1:2323", "", true, ""}}; }
};

SimulatorConfig small_router(bool readonly) {
    SimulatorConfig config;
    config.levels = {{0, "video", 3, 3}, {1, "audio", 2, 1}};
    config.converter["level_mapping_video"] = "0";
    config.web.readonly = readonly;
    return config;
}

class Api : public ::testing::Test {
protected:
    explicit Api(bool readonly = false, StateStore* store = nullptr)
        : config_(small_router(readonly)),
          router_(config_.levels),
          writer_(store ? std::make_unique<StateWriter>(
                              *store, [this](std::function<void()> work) { boost::asio::post(io_, std::move(work)); }, [this](std::uint64_t frame) { switches_.settle(frame); },
                              log_)
                        : nullptr),
          state_(io_.get_executor(), config_, router_, switches_, sessions_, log_, writer_.get(), links_) {
        switches_.set_journal(writer_.get());
    }

    // The reply, once there is one: saved routings are answered after the
    // state file's thread has done its part.
    ApiReply call(http::verb method, const std::string& target, const std::string& body) {
        std::optional<ApiReply> reply;
        handle_api(state_, method, target, body, [&](ApiReply answer) { reply = std::move(answer); });
        const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!reply && std::chrono::steady_clock::now() < give_up) {
            io_.restart();
            io_.run_one_for(std::chrono::milliseconds(100));
        }
        // The frames the request made are told, as the event loop would.
        io_.restart();
        io_.poll();
        return reply.value_or(ApiReply{http::status::gateway_timeout, "no reply"});
    }
    ApiReply get(const std::string& target) { return call(http::verb::get, target, ""); }
    ApiReply post(const std::string& target, const std::string& body) { return call(http::verb::post, target, body); }
    static std::string without_times(const std::string& text) {
        return std::regex_replace(text, std::regex("\"time\":[0-9]+"), "\"time\":T");
    }

    boost::asio::io_context io_;
    Log log_;
    RefusalLog refusals_{log_};
    FixedLinks links_;
    SimulatorConfig config_;
    Router router_;
    SessionManager sessions_{io_.get_executor()};
    SimulatedBackend backend_{router_};
    SwitchQueue switches_{io_.get_executor(), router_, backend_, refusals_, [] {}};
    std::unique_ptr<StateWriter> writer_;
    WebState state_;
};

void expect_reply(const ApiReply& reply, http::status status, const std::string& body) {
    EXPECT_EQ(reply.status, status);
    EXPECT_EQ(reply.body, body);
}

TEST_F(Api, TheLevelsOfTheRouter) {
    expect_reply(get("/api/levels"), http::status::ok,
                 R"({"levels":[{"destinations":3,"leitch_level":0,"name":"video","number":0,"sources":3},)"
                 R"({"destinations":1,"leitch_level":null,"name":"audio","number":1,"sources":2}]})");
}

TEST_F(Api, ATakeIsAppliedAtOnceAndShownInItsLevel) {
    expect_reply(post("/api/levels/0/take", R"({"destination":2,"source":1})"), http::status::ok,
                 R"({"applied":1})");
    expect_reply(get("/api/levels/0"), http::status::ok,
                 R"({"crosspoints":[0,0,1],"destination_labels":[],"destinations":3,"leitch_level":0,)"
                 R"("locks":[0,0,0],"name":"video","number":0,"source_labels":[],"sources":3})");
}

TEST_F(Api, ALevelShowsItsLabelsAsTheyStandAndTheListOfLevelsDoesNot) {
    router_.set_label(0, LabelSide::source, 1, "CAM 2");
    router_.set_label(0, LabelSide::destination, 2, "MON 3");
    expect_reply(get("/api/levels/0"), http::status::ok,
                 R"({"crosspoints":[0,0,0],"destination_labels":[null,null,"MON 3"],"destinations":3,)"
                 R"("leitch_level":0,"locks":[0,0,0],"name":"video","number":0,"source_labels":[null,"CAM 2"],)"
                 R"("sources":3})");
    expect_reply(get("/api/levels"), http::status::ok,
                 R"({"levels":[{"destinations":3,"leitch_level":0,"name":"video","number":0,"sources":3},)"
                 R"({"destinations":1,"leitch_level":null,"name":"audio","number":1,"sources":2}]})");
}

TEST_F(Api, ARefusedTakeNamesItsFieldAndWhatWasApplied) {
    expect_reply(post("/api/levels/0/take", R"({"destination":3,"source":1})"), http::status::bad_request,
                 R"({"applied":0,"error":"destination out of range","field":"destination"})");
    expect_reply(post("/api/levels/0/take", R"({"destination":0,"source":3})"), http::status::bad_request,
                 R"({"applied":0,"error":"source out of range","field":"source"})");
}

TEST_F(Api, TakesBeforeALockedDestinationAreApplied) {
    expect_reply(post("/api/levels/0/lock", R"({"destination":1,"locked":true})"), http::status::ok,
                 R"({"destination":1,"locked":true})");
    expect_reply(post("/api/levels/0/take", R"({"takes":[{"destination":0,"source":2},{"destination":1,"source":2}]})"),
                 http::status::conflict,
                 R"({"applied":1,"error":"destination locked","field":"takes[1].destination"})");
    EXPECT_EQ(router_.source_of(0, 0), 2);
    EXPECT_EQ(router_.source_of(0, 1), 0);
}

TEST_F(Api, ARefusedLockSaysNothingOfWhatWasApplied) {
    expect_reply(post("/api/levels/1/lock", R"({"destination":1,"locked":true})"), http::status::bad_request,
                 R"({"error":"destination out of range","field":"destination"})");
}

TEST_F(Api, BadRequestsNameTheField) {
    expect_reply(post("/api/levels/0/take", "{not json"), http::status::bad_request,
                 R"({"error":"the body is not valid JSON","field":"body"})");
    expect_reply(post("/api/levels/0/take", R"({"source":1})"), http::status::bad_request,
                 R"({"error":"missing field destination","field":"destination"})");
    expect_reply(post("/api/levels/0/take", R"({"takes":[1]})"), http::status::bad_request,
                 R"({"error":"takes[0] must be an object","field":"takes[0]"})");
    expect_reply(post("/api/levels/0/lock", R"({"destination":1,"locked":1})"), http::status::bad_request,
                 R"({"error":"locked must be true or false","field":"locked"})");
    expect_reply(get("/api/events?after=-1"), http::status::bad_request,
                 R"({"error":"after must be a sequence number","field":"after"})");
}

TEST_F(Api, UnknownLevelsPathsAndMethods) {
    expect_reply(post("/api/levels/7/take", R"({"destination":1,"source":1})"), http::status::not_found,
                 R"({"error":"no level 7","field":"level"})");
    expect_reply(get("/api/levels/x?y"), http::status::not_found, R"({"error":"no level x","field":"level"})");
    expect_reply(get("/api/nothing?x=1"), http::status::not_found, R"({"error":"no such endpoint: /api/nothing"})");
    expect_reply(get("/api/levels/0/take"), http::status::method_not_allowed, R"({"error":"use POST here"})");
    expect_reply(call(http::verb::put, "/api/salvos", ""), http::status::method_not_allowed,
                 R"({"error":"use GET here"})");
}

TEST_F(Api, SavedRoutingsNeedTheStateFile) {
    expect_reply(get("/api/salvos"), http::status::conflict,
                 R"({"error":"saved routings are kept in the state file: start with --state FILE"})");
}

TEST_F(Api, ClientsLinksAndEvents) {
    post("/api/levels/0/take", R"({"destination":2,"source":1})");
    post("/api/levels/0/take", R"({"destination":2,"source":9})");
    expect_reply(get("/api/clients"), http::status::ok, R"({"clients":[]})");
    expect_reply(get("/api/links"), http::status::ok,
                 R"({"links":[{"kind":"tcp","problem":"","settings":"","up":true,"where":"127.0.0.1:2323"}]})");
    const ApiReply events = get("/api/events?after=1");
    EXPECT_EQ(events.status, http::status::ok);
    EXPECT_EQ(without_times(events.body),
              R"({"events":[{"client":0,"destination":2,"kind":"refused take","level":0,)"
              R"("reason":"source out of range","seq":2,"source":9,"time":T}]})");
}

TEST_F(Api, HelloIsWhatTheApiShowsTogether) {
    EXPECT_EQ(state_.hello(),
              R"({"clients":[],"events":[],"levels":[)"
              R"({"crosspoints":[0,0,0],"destination_labels":[],"destinations":3,"leitch_level":0,)"
              R"("locks":[0,0,0],"name":"video","number":0,"source_labels":[],"sources":3},)"
              R"({"crosspoints":[0],"destination_labels":[],"destinations":1,"leitch_level":null,"locks":[0],)"
              R"("name":"audio","number":1,"source_labels":[],"sources":2}],)"
              R"("links":[{"kind":"tcp","problem":"","settings":"","up":true,"where":"127.0.0.1:2323"}],)"
              R"("readonly":false,"type":"hello"})");
}

class ReadOnlyApi : public Api {
protected:
    ReadOnlyApi() : Api(true) {}
};

TEST_F(ReadOnlyApi, ChangesAreRefused) {
    const std::string refusal = R"({"error":"the web view is read-only (--http-readonly): changes are refused"})";
    expect_reply(post("/api/levels/0/take", R"({"destination":2,"source":1})"), http::status::forbidden, refusal);
    expect_reply(post("/api/levels/0/lock", R"({"destination":2,"locked":true})"), http::status::forbidden, refusal);
    EXPECT_EQ(router_.source_of(0, 2), 0);
}

// A fresh state file for each test, removed once it is closed.
class StoredRoutings {
protected:
    explicit StoredRoutings(SalvoLimits limits = {})
        : store_{file_.path, small_router(false).levels, true,
                 [this](const std::string& line) { store_log_.info(line); }, limits} {}

    struct RemovedAtEnd {
        std::string path;
        ~RemovedAtEnd() {
            for (const char* suffix : {"", "-wal", "-shm", "-journal"}) std::remove((path + suffix).c_str());
        }
    };
    RemovedAtEnd file_{::testing::TempDir() + "web_routes_" + std::to_string(::getpid()) + ".db"};
    Log store_log_;
    StateStore store_;
};

class SalvoApi : private StoredRoutings, public Api {
protected:
    SalvoApi() : Api(false, &store_) {}
};

TEST_F(SalvoApi, SaveListRecallAndDelete) {
    post("/api/levels/0/take", R"({"destination":2,"source":1})");
    expect_reply(post("/api/salvos", R"({"name":"video","level":0})"), http::status::ok,
                 R"({"crosspoints":3,"levels":[0],"name":"video"})");
    expect_reply(get("/api/salvos"), http::status::ok,
                 R"({"salvos":[{"crosspoints":3,"levels":[0],"name":"video"}]})");
    post("/api/levels/0/take", R"({"destination":2,"source":0})");
    post("/api/levels/0/lock", R"({"destination":0,"locked":true})");
    expect_reply(post("/api/salvos/video/recall", ""), http::status::ok,
                 R"({"applied":2,"name":"video",)"
                 R"("refused":[{"destination":0,"level":0,"reason":"destination locked","source":0}]})");
    EXPECT_EQ(router_.source_of(0, 2), 1);
    expect_reply(call(http::verb::delete_, "/api/salvos/video", ""), http::status::ok,
                 R"({"deleted":"video"})");
    expect_reply(post("/api/salvos/video/recall", ""), http::status::not_found,
                 R"({"error":"no saved routing video","field":"name"})");
}

// At most two routings, of at most 6 crosspoints together.
class BoundedSalvoApi : private StoredRoutings, public Api {
protected:
    BoundedSalvoApi() : StoredRoutings(SalvoLimits{2, 6}), Api(false, &store_) {}
};

TEST_F(BoundedSalvoApi, PastTheNumberOfRoutingsASaveIsAConflict) {
    expect_reply(post("/api/salvos", R"({"name":"one","level":1})"), http::status::ok,
                 R"({"crosspoints":1,"levels":[1],"name":"one"})");
    expect_reply(post("/api/salvos", R"({"name":"two","level":1})"), http::status::ok,
                 R"({"crosspoints":1,"levels":[1],"name":"two"})");
    expect_reply(post("/api/salvos", R"({"name":"three","level":1})"), http::status::conflict,
                 R"({"error":"already 2 saved routings, the most the state file keeps (max_salvos): delete one, )"
                 R"(or save under the name of one"})");
    expect_reply(post("/api/salvos", R"({"name":"two","level":0})"), http::status::ok,
                 R"({"crosspoints":3,"levels":[0],"name":"two"})");
}

TEST_F(BoundedSalvoApi, PastTheirCrosspointsASaveIsTooLarge) {
    expect_reply(post("/api/salvos", R"({"name":"all"})"), http::status::ok,
                 R"({"crosspoints":4,"levels":[0,1],"name":"all"})");
    expect_reply(post("/api/salvos", R"({"name":"video","level":0})"), http::status::payload_too_large,
                 R"({"error":"the saved routings would hold 7 crosspoints, more than the state file keeps (6, )"
                 R"(max_salvo_crosspoints): delete one"})");
    expect_reply(call(http::verb::delete_, "/api/salvos/all", ""), http::status::ok, R"({"deleted":"all"})");
    expect_reply(post("/api/salvos", R"({"name":"video","level":0})"), http::status::ok,
                 R"({"crosspoints":3,"levels":[0],"name":"video"})");
}

}  // namespace
}  // namespace routerd::web
