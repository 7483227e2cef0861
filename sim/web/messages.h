#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "sim/links/link_status.h"
#include "sim/router/router.h"
#include "sim/router/state_store.h"
#include "sim/session.h"
#include "sim/web/activity_log.h"

namespace routerd::web {

// Every JSON text the web view writes, to its pages (the WebSocket push) and
// in reply to the HTTP API alike: each kind of object is written in one place,
// so a level, a client, a link or an event has the same fields wherever it
// goes. Keys are in alphabetical order, as nlohmann-json writes an object,
// except in a frame, whose "type" comes first. Text that came from outside
// (a client's bytes, a peer's name) never breaks the JSON: invalid UTF-8 is
// written as U+FFFD.

// The Leitch level a router level is seen as, or -1.
using LeitchLevelOf = std::function<int(int)>;

// {"error":"...","field":"..."}: the field is left out when none is at fault.
std::string error_message(const std::string& error, const std::string& field = {});
// A refused change after `applied` of those asked for were made.
std::string refusal_message(const std::string& error, const std::string& field, int applied);

// {"levels":[...]}: each level's number, name, sizes and Leitch level.
std::string levels_message(const Router& router, const LeitchLevelOf& leitch_level);
// One level as above, with the source ("crosspoints") and the lock state
// ("locks") of each destination, and the labels ("source_labels",
// "destination_labels": from port 0 to the last one labelled, null for a port
// without a label; a page shows such a port by its number).
std::string level_message(const Router& router, const LevelSpec& level, int leitch_level);
// {"clients":[...]}: the connected Leitch clients, by id.
std::string clients_message(std::vector<const ClientInfo*> clients);
// {"links":[...]}: the TCP ports and serial ports served, and how they stand.
std::string links_message(const std::vector<LinkStatus>& links);
// {"events":[...]}: the events after `after`, oldest first.
std::string events_message(const ActivityEvents& events, std::uint64_t after);

// Replies to the changes asked of the API.
std::string applied_message(int applied);
std::string lock_message(int destination, bool locked);
std::string salvo_message(const Salvo& salvo);
std::string salvos_message(const std::vector<Salvo>& salvos);
std::string saved_name_message(const std::string& name);
std::string deleted_message(const std::string& name);
struct RefusedCrosspoint {
    SalvoCrosspoint crosspoint;
    Refusal refusal;
};
std::string recall_message(const std::string& name, int applied, const std::vector<RefusedCrosspoint>& refused);

// Everything a page shows, for a page that has just connected.
struct PageView {
    bool readonly = false;
    const Router& router;
    LeitchLevelOf leitch_level;
    std::vector<const ClientInfo*> clients;
    std::vector<LinkStatus> links;
    const ActivityEvents& events;
};
std::string hello_message(const PageView& view);

// A level, a destination and a value (the source of a crosspoint, the state of a lock).
using DestinationChange = std::array<int, 3>;

// What changed since the last frame message, for every open page. Frames go
// to every page at every frame end, so they are written straight to text
// rather than built as JSON objects first.
class FrameMessage {
public:
    FrameMessage(const std::vector<DestinationChange>& crosspoints, const std::vector<DestinationChange>& locks);
    void add_events(const ActivityEvents& events, std::uint64_t after);
    void add_clients_and_links(std::vector<const ClientInfo*> clients, const std::vector<LinkStatus>& links);
    // Every label of these levels, as they stand: labels change seldom, and a
    // page then shows all of a level's anew.
    void add_labels(const Router& router, const std::vector<int>& levels);
    std::string finish();

private:
    std::string text_;
};

}  // namespace routerd::web
