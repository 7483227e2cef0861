#pragma once

#include <list>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "framework/command_driver.h"
#include "framework/interface.h"
#include "framework/protocol_converter.h"
#include "leitch/scan.h"

// The host (router) side of the Leitch pass-through protocol: one instance per
// client link. It keeps, per Leitch level, its own picture of the router and
// turns client commands into CommandDriver calls and router changes into reports.
//
// Every per-level table is keyed by the Leitch level (0 to 15); the inner maps
// are keyed by destination. Several look-ups insert on a miss and leave the
// entry behind: clients can observe that through later queries.
class LeitchHost : public ProtocolConverter {
public:
    explicit LeitchHost(Interface* link);
    ~LeitchHost() override;

    LeitchHost(const LeitchHost&) = delete;
    LeitchHost& operator=(const LeitchHost&) = delete;

    // Framework operations.
    void ReceiveData(const std::string& data, Interface* source) override;
    void LoadConfig(const std::map<std::string, std::string>& config) override;
    const std::string& GetVersion() override;
    void SetCommandDriver(CommandDriver* driver) override;
    void LevelList(std::list<LevelDesc>& levels, bool update) override;
    void Crosspoint(int level, int source, int destination) override;
    void CrosspointLock(int level, int destination, int state) override;

    // One line of client text, without its terminator.
    void Decode(std::string& line);

    // Reports.
    void SendXpointStatus(int level, int destination, int source);
    void SendXpointPreset(int level, int destination, int source);
    void SendXpointLockStatus(int level, int destination, int state);

    // Queries; `text` points just behind the header.
    void SendXpointLevelStatus(char* text);   // "@ S?"
    void SendXpointOutputStatus(char* text);  // "@ X?"
    void SendXpointLevelPreset(char* text);   // "@ V?"
    void SendXpointOutputPreset(char* text);  // "@ P?"
    void SendFramesSize(char* text);          // "@ F?"
    void SendDeviceInformation(char* text);   // "@ I?"

    // Commands; `text` points just behind the header.
    void PresetXpoint(char* text);      // "@ P:"
    void XpointDirectTake(char* text);  // "@ X:"
    void PresetExecute();               // "@ B:E"
    void PresetClear();                 // "@ B:C"
    void XpointReset(char* text);       // "@ Z:"
    void LockXpoint(char* text);        // "@ W:"

    static const std::string _Version;

private:
    using LevelTable = std::map<int, std::map<int, int>>;

    void Send(std::string_view text) { hostInterface->SendData(std::string(text)); }

    // Decode for a line that ends at a NUL, whatever its storage.
    void DecodeText(char* line);

    // The Leitch level a router notification about host level `level` concerns,
    // or -1 when Leitch clients do not see that level.
    int NotifiedLevel(int level);

    // Whether `device` asked for the lock on this destination (lock command).
    bool OwnsLock(int level, int destination, int device) const;

    CommandDriver* commandDriver;
    Interface* hostInterface;
    bool reportingEnabled;
    std::string rxBuffer;
    // How much of rxBuffer, from its start, is known to hold no CR or LF, so
    // that a line arriving in many chunks is searched for its end only once.
    size_t rxSearched = 0;
    int deviceId;
    std::map<int, int> levelMapping;  // host level -> Leitch level
    std::map<int, int> levelControl;  // Leitch level -> host level
    std::map<int, std::pair<int, int>> levelSize;  // Leitch level -> (sources, destinations)
    LevelTable xpointStatus;  // destination -> source, as the router reported it
    LevelTable xpointPreset;  // destination -> pending preset source
    LevelTable presetLock;    // destination -> lock state, as the router reported it
    LevelTable xpointLock;    // destination -> device number that asked for the lock

    // Field ends of the line being decoded, for the commands whose fields run
    // on across ';' (Decode starts and ends each line).
    leitch::FieldEnds fieldEnds;

    // The last host level a notification was seen for and its Leitch level.
    // Notifications come in runs for one level; a level once seen stays seen
    // until LoadConfig or a full LevelList rebuild the tables it was found in.
    int seenHostLevel = 0;
    int seenLeitchLevel = -1;  // -1: nothing remembered
};
