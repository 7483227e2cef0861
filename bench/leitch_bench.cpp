// Benchmarks of the plug-in's code, linked in directly: one command of every
// header, the router notifications, the two large inputs at two sizes, and the
// memory of a full instance.
//
//   leitch_bench [benchmark flags]   Google Benchmark, then the per-byte ratios
//                                    of the large inputs.
//   leitch_bench --callgrind [WORDS] every case (or those whose name contains
//                                    one of the comma-separated WORDS) once more, for
//                                    `valgrind --tool=callgrind --collect-atstart=no`
//                                    (bench/callgrind.sh turns the dumps into
//                                    instructions per command).

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define LEITCH_HAVE_CALLGRIND 1
#endif

#include "leitch/leitch_host.h"

// ---------------------------------------------------------------------------
// Heap accounting: every operator new of the program, in bytes the allocator
// really handed out. Kept out of line: inlined next to a `new`, the `free`
// below looks mismatched to the compiler.

namespace {
size_t gHeapLive = 0;
size_t gHeapAllocations = 0;
}  // namespace

__attribute__((noinline)) void* operator new(std::size_t size) {
    void* p = std::malloc(size == 0 ? 1 : size);
    if (!p) throw std::bad_alloc();
    gHeapLive += malloc_usable_size(p);
    ++gHeapAllocations;
    return p;
}
__attribute__((noinline)) void operator delete(void* p) noexcept {
    if (!p) return;
    gHeapLive -= malloc_usable_size(p);
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept { operator delete(p); }

namespace {

constexpr int kLevels = 16;
constexpr int kDestinations = 1024;

class Link : public Interface {
public:
    void SendData(std::string data) override {
        bytes += data.size();
        ++pieces;
    }
    size_t bytes = 0;
    size_t pieces = 0;
};

class Driver : public CommandDriver {
public:
    void TakePresets() override { ++calls; }
    void ClearPresets() override { ++calls; }
    void PresetCrosspoint(int, int, int) override { ++calls; }
    void LockCrosspoint(int, int, int) override { ++calls; }
    size_t calls = 0;
};

// An instance set up as the framework does it: 16 Leitch levels on host
// levels 0 to 15, each with 1,024 sources and 1,024 destinations, device 1.
class Rig {
public:
    Rig() {
        // The instance's log line would land between the benchmark results.
        std::streambuf* const log = std::cerr.rdbuf(nullptr);
        host = std::make_unique<LeitchHost>(&link);
        std::cerr.rdbuf(log);
        std::cerr.clear();
        host->SetCommandDriver(&driver);
        std::string mapping;
        for (int level = 0; level < kLevels; ++level) {
            mapping += (level ? "," : "") + std::to_string(level);
        }
        host->LoadConfig({{"device_id", "1"}, {"level_mapping_video", mapping}});
        std::list<LevelDesc> levels;
        for (int level = 0; level < kLevels; ++level) {
            LevelDesc desc;
            desc.level = level;
            desc.sources = kDestinations;
            desc.destinations = kDestinations;
            levels.push_back(desc);
        }
        host->LevelList(levels, false);
    }
    void receive(const std::string& text) { host->ReceiveData(text, nullptr); }
    // Every destination of a level switched (the router's notifications).
    void route_level(int level) {
        for (int d = 0; d < kDestinations; ++d) host->Crosspoint(level, d % 7, d);
    }
    // A preset pending on every destination of a level.
    void preset_level(int level) {
        char group[32];
        std::snprintf(group, sizeof group, "@ P:%X", level);
        std::string command = group;
        for (int d = 0; d < kDestinations; ++d) {
            std::snprintf(group, sizeof group, "/%X,%X", d, d % 7);
            command += group;
        }
        receive(command + "\r");
    }

    Link link;
    Driver driver;
    std::unique_ptr<LeitchHost> host;
};

// One measured case: its setup, the work of one iteration and how many
// commands and bytes that iteration holds.
struct Case {
    std::string name;
    std::function<void(Rig&)> setup;
    std::function<void(Rig&)> run;
    size_t commands = 1;
    size_t bytes = 0;
};

Case command(const std::string& name, const std::string& text,
             std::function<void(Rig&)> setup = [](Rig&) {}) {
    const std::string line = text + "\r";
    return {name, std::move(setup), [line](Rig& rig) { rig.receive(line); }, 1, line.size()};
}

// Typical lines: every command header that changes or reads state, with CR LF.
const char* const kTypicalCommands[] = {
    "@ P:0/5,3", "@ B:E",  "@ X?010", "@ X:1/7,2", "@ P?010",
    "@ W:2/5,1,1", "@ P:2/10,4", "@ P:01/1A,2F", "@ I?T", "@ X:0/1F,3",
};

std::string many_lines(size_t lines) {
    std::string chunk;
    for (size_t i = 0; i < lines; ++i) {
        chunk += kTypicalCommands[i % std::size(kTypicalCommands)];
        chunk += "\r\n";
    }
    return chunk;
}

std::string long_line(size_t commands, const std::vector<std::string>& pattern) {
    std::string line;
    for (size_t i = 0; i < commands; ++i) {
        if (i) line += ';';
        line += pattern[i % pattern.size()];
    }
    return line + "\r";
}

Case large(const std::string& name, std::string input, size_t commands) {
    const size_t bytes = input.size();
    auto shared = std::make_shared<const std::string>(std::move(input));
    return {name, [](Rig&) {}, [shared](Rig& rig) { rig.receive(*shared); }, commands, bytes};
}

std::vector<std::string> typical_pattern() {
    return {std::begin(kTypicalCommands), std::end(kTypicalCommands)};
}

std::vector<Case> all_cases() {
    std::vector<Case> cases = {
        // One command of every header, report mode off (no echo).
        command("Command_ReportOn", "@ ?"),
        command("Command_ReportOff", "@ !"),
        command("Command_PresetClear", "@ B:C"),
        command("Command_PresetExecute", "@ B:E"),
        command("Command_Preset", "@ P:0/5,3"),
        command("Command_PresetTwoLevelsTwoGroups", "@ P:01/A,1F/B,20"),
        command("Command_DirectTake", "@ X:0/5,3"),
        command("Command_Lock", "@ W:0/5,1,1"),
        command("Command_Reset1024", "@ Z:0"),
        command("Command_LevelStatus1024", "@ S?0", [](Rig& r) { r.route_level(0); }),
        command("Command_OutputStatus1024", "@ X?05", [](Rig& r) { r.route_level(0); }),
        command("Command_LevelPreset1024", "@ V?0", [](Rig& r) { r.preset_level(0); }),
        command("Command_OutputPreset1024", "@ P?05", [](Rig& r) { r.preset_level(0); }),
        command("Command_FrameSize", "@ F?0"),
        command("Command_DeviceInformation", "@ I?A"),
        command("Command_Ignored", "@ Q?"),
        command("Command_Unknown", "xyz"),
        command("Command_EmptyLine", ""),
        command("Command_EchoedPreset", "@ P:0/5,3", [](Rig& r) { r.receive("@ ?\r"); }),
    };

    // Router notifications, over every destination of a level in turn.
    auto destination = std::make_shared<int>(0);
    const auto crosspoint = [destination](Rig& rig) {
        rig.host->Crosspoint(0, 3, *destination);
        *destination = (*destination + 1) % kDestinations;
    };
    cases.push_back({"Crosspoint_ReportOff", [](Rig&) {}, crosspoint});
    cases.push_back({"Crosspoint_ReportOn", [](Rig& r) { r.receive("@ ?\r"); }, crosspoint});
    const auto lock = [destination](Rig& rig) {
        rig.host->CrosspointLock(0, *destination, 2);
        *destination = (*destination + 1) % kDestinations;
    };
    cases.push_back({"CrosspointLock_NotLockedByClient", [](Rig&) {}, lock});
    cases.push_back({"CrosspointLock_LockedByClient",
                     [](Rig& r) {
                         for (int d = 0; d < kDestinations; ++d) {
                             char text[32];
                             std::snprintf(text, sizeof text, "@ W:0/%X,1,2\r", d);
                             r.receive(text);
                         }
                     },
                     lock});

    // The large inputs, each at a quarter of its size and at full size.
    for (const size_t lines : {25000u, 100000u}) {
        cases.push_back(large("ManyLines/" + std::to_string(lines), many_lines(lines), lines));
    }
    for (const size_t commands : {5000u, 20000u}) {
        cases.push_back(large("LongLine/" + std::to_string(commands),
                              long_line(commands, typical_pattern()), commands));
    }
    // Long lines of commands whose fields run on across the ';' into later
    // commands: the scans must not start over from every command.
    const std::pair<const char*, std::vector<std::string>> hostile[] = {
        {"LongLine_LockWithoutCommas", {"@ W:0/5"}},
        {"LongLine_PresetWithoutCommas", {"@ P:0/5"}},
        {"LongLine_PresetWithoutSlash", {"@ P:0"}},
        {"LongLine_PresetThenQueries", {"@ P:0/5,3", "@ S?1", "@ X?05", "@ F?0"}},
    };
    for (const auto& [name, pattern] : hostile) {
        for (const size_t commands : {5000u, 20000u}) {
            cases.push_back(large(std::string(name) + "/" + std::to_string(commands),
                                  long_line(commands, pattern), commands));
        }
    }
    // One long line arriving in 64-byte chunks, as a client's writes reach the
    // framework: each byte is searched for the line's end once, however many
    // chunks came before it.
    for (const size_t mebibytes : {1u, 4u}) {
        auto chunks = std::make_shared<std::vector<std::string>>();
        const std::string line = long_line(mebibytes * 1024 * 1024 / 8, {"@ Q?1234"});
        for (size_t at = 0; at < line.size(); at += 64) chunks->push_back(line.substr(at, 64));
        cases.push_back({"LongLineIn64ByteChunks/" + std::to_string(mebibytes) + "MiB", [](Rig&) {},
                         [chunks](Rig& rig) {
                             for (const std::string& chunk : *chunks) rig.receive(chunk);
                         },
                         1, line.size()});
    }
    return cases;
}

// ---------------------------------------------------------------------------
// Google Benchmark

void run_case(benchmark::State& state, const Case& c) {
    Rig rig;
    c.setup(rig);
    for (auto _ : state) {
        c.run(rig);
    }
    benchmark::DoNotOptimize(rig.link.bytes);
    benchmark::DoNotOptimize(rig.driver.calls);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * c.commands));
    if (c.bytes) {
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * c.bytes));
        state.counters["bytes"] = static_cast<double>(c.bytes);
    }
}

// Heap of one instance with 16 levels of 1,024 destinations, as configured,
// then with every table full: all crosspoints reported, a preset pending, a
// router lock state and a client lock owner on every destination.
void BM_Memory_16Levels1024(benchmark::State& state) {
    size_t configured = 0;
    size_t full = 0;
    for (auto _ : state) {
        const size_t before = gHeapLive;
        Rig rig;
        configured = gHeapLive - before;
        char text[32];
        for (int level = 0; level < kLevels; ++level) {
            rig.route_level(level);
            for (int d = 0; d < kDestinations; ++d) rig.host->CrosspointLock(level, d, 1);
            for (int d = 0; d < kDestinations; ++d) {
                std::snprintf(text, sizeof text, "@ W:%X/%X,1,0\r", level, d);
                rig.receive(text);
            }
        }
        // Last: every lock command ends with a take, which empties the presets.
        for (int level = 0; level < kLevels; ++level) rig.preset_level(level);
        full = gHeapLive - before;
    }
    state.counters["configured_bytes"] = static_cast<double>(configured);
    state.counters["full_bytes"] = static_cast<double>(full);
    state.counters["bytes_per_entry"] =
        static_cast<double>(full - configured) / (4.0 * kLevels * kDestinations);
}

// Prints the results as usual, then the per-byte time of each large input at
// its larger size against its smaller size.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const auto bytes = run.counters.find("bytes");
            if (run.run_type != Run::RT_Iteration || bytes == run.counters.end()) continue;
            const std::string name = run.benchmark_name();
            const size_t slash = name.find('/');
            if (slash == std::string::npos) continue;
            const double ns = run.GetAdjustedRealTime() /
                              benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
            perByte_[name.substr(0, slash)].push_back({name, ns / bytes->second.value});
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        if (perByte_.empty()) return;
        std::printf("\n%-44s %12s %12s %8s\n", "large input (small -> large)", "ns/byte", "ns/byte",
                    "ratio");
        for (const auto& [family, sizes] : perByte_) {
            if (sizes.size() < 2) continue;
            const double ratio = sizes.back().second / sizes.front().second;
            std::printf("%-44s %12.3f %12.3f %8.2f%s\n", family.c_str(), sizes.front().second,
                        sizes.back().second, ratio, ratio > 1.5 ? "  NOT FLAT" : "");
        }
    }

private:
    std::map<std::string, std::vector<std::pair<std::string, double>>> perByte_;
};

// ---------------------------------------------------------------------------
// Instruction counts: each case is set up, run once to warm up, then run a
// fixed number of times with collection on and dumped under its own name,
// "name commands iterations".

// `only`: when not empty, the cases whose name contains one of its
// comma-separated words.
bool selected(const std::string& name, const std::string& only) {
    if (only.empty()) return true;
    size_t start = 0;
    while (start <= only.size()) {
        const size_t comma = std::min(only.find(',', start), only.size());
        const std::string word = only.substr(start, comma - start);
        if (!word.empty() && name.find(word) != std::string::npos) return true;
        start = comma + 1;
    }
    return false;
}

int callgrind_main(const std::string& only) {
#ifdef LEITCH_HAVE_CALLGRIND
    for (const Case& c : all_cases()) {
        if (!selected(c.name, only)) continue;
        Rig rig;
        c.setup(rig);
        c.run(rig);
        const int iterations = c.bytes > 100000 ? 1 : 200;
        CALLGRIND_TOGGLE_COLLECT;
        for (int i = 0; i < iterations; ++i) c.run(rig);
        CALLGRIND_TOGGLE_COLLECT;
        const std::string label =
            c.name + " " + std::to_string(c.commands) + " " + std::to_string(iterations);
        CALLGRIND_DUMP_STATS_AT(label.c_str());
    }
    return 0;
#else
    (void)only;
    std::fprintf(stderr, "built without valgrind/callgrind.h\n");
    return 1;
#endif
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::strcmp(argv[1], "--callgrind") == 0) {
        return callgrind_main(argc >= 3 ? argv[2] : "");
    }

    for (const Case& c : all_cases()) {
        benchmark::RegisterBenchmark(("BM_" + c.name).c_str(),
                                     [c](benchmark::State& state) { run_case(state, c); });
    }
    benchmark::RegisterBenchmark("BM_Memory_16Levels1024", BM_Memory_16Levels1024)->Iterations(1);

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
