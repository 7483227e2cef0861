// Queries: "@ S?", "@ X?", "@ V?", "@ P?", "@ F?" and "@ I?".

#include <cstdio>
#include <string>
#include <vector>

#include "leitch/leitch_host.h"
#include "leitch/scan.h"
#include "leitch/wire.h"

using leitch::asc_val;
using leitch::ends_message;
using leitch::kNewLine;
using leitch::kReportRoom;
using leitch::write_hex;
using leitch::write_text;
using leitch::move_next;
using leitch::read_field;

namespace {

constexpr const char* kDeviceName = "Quorel Dastrame";

// The level queries answer at most this many level positions.
constexpr int kMaxLevelPositions = 16;

// Level and destination of "@ X?" and "@ P?": one hex digit, then hex digits to
// the end of the message with nothing between them. False when either does not
// convert.
bool read_level_and_destination(char* text, int* level, int* destination) {
    if (ends_message(*text)) return false;
    bool converted = false;
    char* rest = asc_val(text, 1, "%X", level, 0, &converted);
    return converted && read_field(rest, "%X", destination, '\r');
}

}  // namespace

void LeitchHost::SendXpointLevelStatus(char* text) {
    // Every character position reads a decimal number from there on: "12" asks
    // for level 12 and then for level 2. Positions where no number starts
    // (separators, letters) ask for nothing.
    int levels[kMaxLevelPositions];
    int count = 0;
    for (int position = 0; position < kMaxLevelPositions && !ends_message(text[position]);
         ++position) {
        if (leitch::scan_decimal(text + position, &levels[count])) ++count;
    }
    for (int i = 0; i < count; ++i) {
        const auto known = xpointStatus.find(levels[i]);
        if (known == xpointStatus.end()) continue;
        for (const auto& [destination, source] : known->second) {
            SendXpointStatus(levels[i], destination, source);
        }
    }
}

void LeitchHost::SendXpointOutputStatus(char* text) {
    int level = 0;
    int destination = 0;
    if (!read_level_and_destination(text, &level, &destination)) return;
    if (levelSize.count(level) == 0) return;
    // A destination the router never reported is answered with source 0 and
    // from now on listed by "@ S?" too.
    const int source = xpointStatus[level][destination];
    SendXpointStatus(level, destination, source);
}

void LeitchHost::SendXpointLevelPreset(char* text) {
    // Levels to the end of the message.
    std::vector<int> levels;
    const bool named = !ends_message(*text);
    leitch::LevelDigits digits;
    for (char* p = text; !ends_message(*p); ++p) {
        const int l = digits.next(*p);
        if (l >= 0) levels.push_back(l);
    }
    if (!named) {
        // No level named: every host level number of the mapping, used unchanged
        // as a Leitch level.
        for (const auto& mapping : levelMapping) levels.push_back(mapping.first);
    }
    for (const int l : levels) {
        const auto pending = xpointPreset.find(l);
        if (pending == xpointPreset.end()) continue;
        const int destinations = levelSize[l].second;
        if (destinations <= 0) continue;
        // Pending presets on destinations 0 to destinations - 1, in order.
        const auto& presets = pending->second;
        for (auto it = presets.lower_bound(0); it != presets.end() && it->first < destinations;
             ++it) {
            SendXpointPreset(l, it->first, it->second);
        }
    }
}

void LeitchHost::SendXpointOutputPreset(char* text) {
    int level = 0;
    int destination = 0;
    if (!read_level_and_destination(text, &level, &destination)) return;
    const auto& presets = xpointPreset[level];
    const auto pending = presets.find(destination);
    if (pending == presets.end()) return;
    SendXpointPreset(level, destination, pending->second);
}

void LeitchHost::SendFramesSize(char* text) {
    if (ends_message(*text)) return;
    int level = 0;
    bool converted = false;
    asc_val(text, 1, "%X", &level, 0, &converted);
    if (!converted) return;
    const auto size = levelSize.find(level);
    if (size == levelSize.end()) return;
    const int highestDestination = size->second.second - 1;
    const int highestSource = size->second.first - 1;
    // A level needs two sources but only one destination to be answered.
    if (highestSource < 1 || highestDestination < 0) return;
    char report[kReportRoom];
    char* end = write_text(write_text(report, kNewLine), "F:");
    end = write_hex(write_hex(end, level), highestDestination);
    *end++ = ',';
    end = write_hex(end, highestSource);
    *end++ = '/';
    end = write_hex(end, highestDestination);
    *end++ = ',';
    end = write_hex(end, highestSource);
    Send({report, static_cast<size_t>(end - report)});
}

void LeitchHost::SendDeviceInformation(char* text) {
    const char kind = *text;
    int lowest = 0;
    int highest = deviceId;
    int t = 0;
    // The kind letter may be followed directly by one option letter and its
    // number, which runs to the end of the message.
    if (!ends_message(text[0]) && !ends_message(text[1])) {
        const char option = text[1];
        int value = 0;
        const bool converted = read_field(move_next(text + 2), "%X", &value, '\r');
        if (converted && option == 'E') highest = value;
        if (converted && option == 'T') t = value;
        if (converted && option == 'B') lowest = value;
    }
    if (t != 0) return;
    if (lowest > deviceId || highest < deviceId) return;

    char report[kReportRoom];
    char* end = write_text(report, kNewLine);
    if (kind == 'T') {
        end = write_text(write_hex(write_text(end, "I!T,"), deviceId), ",0,0,FFFF,100");
    } else if (kind == 'V') {
        end = write_text(write_hex(write_text(end, "I!V,"), deviceId), ",0,0,100,0,100");
    } else if (kind == 'A') {
        // The device name travels as two hex digits per byte; it never changes.
        static const std::string name = [] {
            std::string digits;
            for (const char* c = kDeviceName; *c; ++c) {
                char pair[3];
                std::snprintf(pair, sizeof pair, "%02X", static_cast<unsigned char>(*c));
                digits += pair;
            }
            return digits;
        }();
        const int nameLength = static_cast<int>(std::char_traits<char>::length(kDeviceName));
        end = write_hex(write_text(write_hex(write_text(end, "I!A,"), deviceId), ",0,"), nameLength);
        *end++ = ',';
        end = write_text(end, name);
    } else {
        return;
    }
    Send({report, static_cast<size_t>(end - report)});
}
