// Fuzz target: one plug-in instance fed arbitrary bytes in arbitrary chunks,
// interleaved with router notifications, level lists and configurations, all
// decoded from the same input. The driver either only records, or answers like
// a router that reports back from inside the call: lock changes from inside
// LockCrosspoint, the switched crosspoints from inside TakePresets.
//
// The input is a sequence of operations; see fuzz_input.h for the encoding,
// which the seed tool writes as well.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <iostream>
#include <list>
#include <map>
#include <string>

#include "fuzz/fuzz_input.h"
#include "host/answering_driver.h"
#include "leitch/leitch_host.h"

namespace {

using namespace leitch_fuzz;

// Reads the operations off the front of the input. Past the end every read
// yields zeros, so a truncated operation still runs.
class Reader {
public:
    Reader(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    bool empty() const { return left_ == 0; }
    size_t left() const { return left_; }
    uint8_t byte() {
        if (left_ == 0) return 0;
        --left_;
        return *data_++;
    }
    int8_t signed_byte() { return static_cast<int8_t>(byte()); }
    int16_t signed_word() {
        const unsigned low = byte();
        return static_cast<int16_t>(low | (unsigned{byte()} << 8));
    }
    std::string bytes(size_t n) {
        if (n > left_) n = left_;
        std::string out(reinterpret_cast<const char*>(data_), n);
        data_ += n;
        left_ -= n;
        return out;
    }

private:
    const uint8_t* data_;
    size_t left_;
};

// Keeps the last piece sent: whatever leaves during a ReceiveData call must
// end with the prompt of the last line it decoded.
class Link : public Interface {
public:
    void SendData(std::string data) override {
        ++pieces;
        last = std::move(data);
    }
    size_t pieces = 0;
    std::string last;
};

// Records the calls as a count and a running hash: one reset can make millions.
class Driver : public plugin_host::AnsweringDriver {
public:
    uint64_t calls = 0;
    uint64_t hash = 0;

private:
    void record(Operation operation, int a, int b, int c) override {
        ++calls;
        for (const int v : {static_cast<int>(operation), a, b, c}) {
            hash = (hash ^ static_cast<uint32_t>(v)) * 0x100000001b3u;
        }
    }
};

void check(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "leitch_fuzz: %s\n", what);
    std::abort();
}

// The three configuration values travel as one text, separated by '|'; a
// missing part leaves its key out of the map.
std::map<std::string, std::string> configuration(const std::string& text) {
    static const char* const kKeys[] = {"device_id", "level_mapping_video",
                                        "level_control_video"};
    std::map<std::string, std::string> config;
    size_t start = 0;
    for (const char* key : kKeys) {
        if (start > text.size()) break;
        const size_t bar = text.find('|', start);
        const size_t end = bar == std::string::npos ? text.size() : bar;
        config[key] = text.substr(start, end - start);
        start = end + 1;
    }
    return config;
}

void receive(LeitchHost& host, Link& link, const std::string& chunk) {
    const size_t before = link.pieces;
    host.ReceiveData(chunk, nullptr);
    if (link.pieces != before) check(link.last == "\r\n>", "a line ended without its prompt");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every instance logs a line on std::cerr; millions of them would only slow
    // the search. The sanitizers and libFuzzer write to the descriptor itself.
    static const bool quiet = (std::cerr.rdbuf(nullptr), true);
    (void)quiet;
    Reader in(data, size);
    Link link;
    Driver driver;
    LeitchHost host(&link);
    host.SetCommandDriver(&driver);

    while (!in.empty()) {
        const uint8_t op = in.byte();
        if (op <= kChunkLast) {
            receive(host, link, in.bytes(op - kChunk + 1u));
        } else if (op <= kLongChunkLast) {
            const size_t n = static_cast<uint16_t>(in.signed_word());
            receive(host, link, in.bytes(n));
        } else if (op <= kByteChunksLast) {
            // Every byte a chunk of its own.
            const std::string bytes = in.bytes(op - kByteChunks + 1u);
            for (const char c : bytes) receive(host, link, std::string(1, c));
        } else if (op <= kCrosspointLast) {
            const int level = in.signed_byte();
            const int source = in.signed_byte();
            host.Crosspoint(level, source, in.signed_word());
        } else if (op <= kCrosspointLockLast) {
            const int level = in.signed_byte();
            const int destination = in.signed_word();
            host.CrosspointLock(level, destination, in.signed_byte());
        } else if (op <= kLevelListLast) {
            std::list<LevelDesc> levels;
            for (int i = 0; i < (op & kLevelCountMask); ++i) {
                LevelDesc desc;
                desc.level = in.signed_byte();
                desc.sources = in.signed_byte();
                desc.destinations = destinations(in.byte());
                levels.push_back(desc);
            }
            host.LevelList(levels, (op & kLevelUpdateBit) != 0);
        } else if (op <= kLoadConfigLast) {
            host.LoadConfig(configuration(in.bytes(in.byte())));
        } else {
            driver.routerTarget = (op & 1) != 0 ? &host : nullptr;
        }
    }
    return 0;
}
