// The timeline recording: a frame loop run with QAX_TIMELINE set leaves a
// trace-event file in which every thread's slices nest and keep their order,
// every frame has its slice and counters, and file work, requests, loads,
// archives and profiler slots appear where they ran. Without the variable
// nothing is written; a full buffer counts what it drops.
#include "archive/archive_builder.h"
#include "file/memory_device.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>

namespace zktest {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

void SetTimelineVariable(const std::string& value) {
#ifdef _WIN32
    static std::string setting; // the runtime may keep the pointer
    setting = "QAX_TIMELINE=" + value;
    _putenv(setting.c_str());
#else
    value.empty() ? unsetenv("QAX_TIMELINE") : setenv("QAX_TIMELINE", value.c_str(), 1);
#endif
}

std::string FreshPath(const char* name) {
    return (fs::temp_directory_path() /
            ("qax_" + std::string(name) +
             std::to_string(std::chrono::steady_clock::now().time_since_epoch().count()) + ".json"))
        .string();
}

std::string Pattern(size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>('a' + i % 23);
    return s;
}

// Microseconds with three decimals, in nanoseconds so that comparisons are exact.
int64_t Nanos(const json& value) {
    return std::llround(value.get<double>() * 1000.0);
}

std::vector<json> Named(const json& events, const std::string& name, const char* phase = "X") {
    std::vector<json> out;
    for (const json& e : events)
        if (e["ph"] == phase && e["name"] == name) out.push_back(e);
    return out;
}

// Reads and removes the file. On each thread time never goes back, 'B' and
// 'E' balance and slices nest; every flow that starts ends.
json ReadRecording(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in.good()) << "no timeline file at " << path;
    const json document = json::parse(in, nullptr, false);
    in.close();
    fs::remove(path);
    EXPECT_FALSE(document.is_discarded());
    EXPECT_TRUE(document["otherData"]["droppedEvents"].is_number_unsigned());
    std::map<int64_t, std::vector<json>> threads;
    std::map<std::string, int> flows;
    for (const json& e : document["traceEvents"]) {
        if (e["ph"] != "M") threads[e["tid"].get<int64_t>()].push_back(e);
        if (e["ph"] == "s" || e["ph"] == "f") flows[e["id"]] += e["ph"] == "s" ? 1 : -1;
    }
    for (const auto& [id, balance] : flows)
        EXPECT_EQ(balance, 0) << "flow " << id;
    for (const auto& [tid, events] : threads) {
        int64_t last = -1, balance = 0;
        std::vector<int64_t> open; // ends of the slices enclosing the current time
        for (const json& e : events) {
            const int64_t ts = Nanos(e["ts"]);
            EXPECT_GE(ts, last) << e.dump();
            last = ts;
            balance += (e["ph"] == "B") - (e["ph"] == "E");
            if (e["ph"] != "X") continue;
            const int64_t end = ts + Nanos(e["dur"]);
            while (!open.empty() && open.back() <= ts && !(open.back() == ts && end == ts))
                open.pop_back();
            EXPECT_TRUE(open.empty() || end <= open.back()) << "crosses its parent: " << e.dump();
            open.push_back(end);
        }
        EXPECT_EQ(balance, 0) << "thread " << tid;
    }
    return document;
}

constexpr uint32_t kFrames = 12;

struct LoopState {
    uint32_t frame = 0, loadedBytes = 0;
    ::Request* request = nullptr;
    FileHandle *asyncFile = nullptr, *loading = nullptr;
    char buffer[4096] = {};
    std::vector<std::string> failures;
} g_state;

MemoryDevice g_device;

void Check(bool ok, const char* what) {
    if (!ok) g_state.failures.push_back(what);
}

int ZK_CALL Init() {
    static const int32_t registered = zkRegisterDevice(&g_device); // drivers stay registered
    g_device.Reset();
    if (zkInitializeEx(kArenaSize, kDescriptors) != 0 || registered != 0 ||
        zkMount("/m", "mem:", 0) != 0)
        return 0;
    g_device.Put("mem:/stream.bin", Pattern(64 << 10));
    g_device.Put("mem:/load.bin", Pattern(40000));
    g_device.Put("mem:/retry.bin", "0123456789");
    std::vector<PackItem> items;
    for (int i = 0; i < 40; ++i)
        items.push_back(Item("data/item" + std::to_string(i) + ".txt", Pattern(100 + i)));
    PackOptions packed;
    packed.packedDirectory = true;
    g_device.Put("mem:/game.kiv", Pack(items, packed));
    Check(zkInitializeRequest(4) == 0 && zkInitializeProfiler(4, 0) == 0, "requests, profiler");
    g_state.request = zkCreateRequest();
    zkSetProfileName(0, "frame work");
    return 1;
}

// Reads retry.bin with `failures` of the device's reads failing, three tries.
int32_t ReadWithFailures(uint32_t failures) {
    g_device.plan.tries = 3;
    const uint32_t next = g_device.Count(kFileRead) + 1;
    g_device.plan.faults[kFileRead] = {next, next + failures, -35};
    FileHandle* file = zkOpenFile("/m/retry.bin", ZK_OPEN_READ, 0);
    uint32_t got = 0;
    const int32_t result = zkReadFile(file, g_state.buffer, 10, &got);
    zkCloseFile(file);
    g_device.plan.faults[kFileRead] = {};
    return result;
}

uint32_t ZK_CALL Frame() {
    LoopState& s = g_state;
    zkBeginProfile(0);
    uint32_t got = 0;
    switch (++s.frame) {
    case 1: {
        FileHandle* file = zkOpenFile("/m/stream.bin", ZK_OPEN_READ, 0);
        Check(zkReadFile(file, s.buffer, 4096, &got) == 0 && got == 4096, "sync read");
        zkCloseFile(file);
        break;
    }
    case 2: // an asynchronous open, and a read collected next frame
        Check(zkBeginOpenFile("/m/stream.bin", ZK_OPEN_READ, 0, s.request) == 0 &&
                  zkEndOpenFile(&s.asyncFile, s.request) == 0 &&
                  zkBeginReadFile(s.asyncFile, s.buffer, 4096, s.request) == 0,
              "async open, begin read");
        break;
    case 3:
        Check(zkEndReadFile(&got, s.request) == 0 && got == 4096 &&
                  zkBeginCloseFile(s.asyncFile, s.request) == 0 && zkEndCloseFile(s.request) == 0,
              "end read, async close");
        Check((s.loading = zkStartLoadingDataFromFile("/m/load.bin")) != nullptr, "load");
        break;
    case 4: {
        KivArchive* archive = zkOpenKiv("/m/game.kiv", 0);
        void* item = nullptr;
        Check(zkLoadKivItem(archive, "data/item7.txt", &item, &got) == 0 && got == 107, "item");
        zkReleaseKivItem(item), zkCloseKiv(archive);
        break;
    }
    case 5:
        Check(ReadWithFailures(1) == 0 && ReadWithFailures(3) == -35, "retried, failed reads");
        break;
    case 6:
        zkPostWindowMessage(zkGetMainWindow(), 0x0400, 0, 0);
        break;
    }
    if (s.loading && !zkIsFileProcessing(s.loading)) {
        void* data = nullptr;
        Check(zkGetLoadedData(s.loading, &data, &s.loadedBytes) == 0, "loaded data");
        zkFreeData(data), zkCloseFile(s.loading);
        s.loading = nullptr;
    }
    zkEndProfile(0);
    return (s.frame >= kFrames && !s.loading) || s.frame >= 400 ? ZK_FRAME_END : 0;
}

void ZK_CALL Term() {
    zkReleaseRequest(g_state.request);
    zkTerminate();
}

TEST(Timeline, AFrameLoopWithFilesRequestsLoadsAndArchivesIsRecorded) {
    const std::string path = FreshPath("timeline");
    SetTimelineVariable(path);
    ASSERT_EQ(zkMain(Init, Frame, Term, 0), 0);
    SetTimelineVariable("");
    EXPECT_EQ(g_state.failures, std::vector<std::string>{});

    const json document = ReadRecording(path);
    const json& events = document["traceEvents"];
    const uint32_t frames = g_state.frame;
    EXPECT_EQ(document["otherData"]["droppedEvents"], 0);
    std::map<std::string, int64_t> tid;
    std::map<std::string, std::set<int64_t>> counters;
    uint32_t ioSteps = 0, secondTries = 0;
    std::map<std::string, std::multimap<int64_t, char>> flows; // id -> phases by time
    for (const json& e : events)
        if (e["ph"] == "M" && e["name"] == "thread_name") tid[e["args"]["name"]] = e["tid"];
    for (const json& e : events) {
        if (e["ph"] == "C") counters[e["name"]].insert(Nanos(e["ts"]));
        const char ph = e["ph"].get<std::string>()[0];
        if (ph == 's' || ph == 't' || ph == 'f') // a step elsewhere than on the worker shows '?'
            flows[e["id"]].emplace(Nanos(e["ts"]),
                                   ph == 't' && e["tid"] != tid["I/O worker"] ? '?' : ph);
        if (e["ph"] != "X" || e["cat"] != "io") continue;
        ++ioSteps, secondTries += e["args"]["try"] == 2;
        EXPECT_TRUE(e["tid"] == tid["I/O worker"] && e["args"]["device"] == "mem" &&
                    e["args"].contains("queue_wait_ns") && e["args"].contains("path"))
            << e.dump();
    }
    ASSERT_TRUE(tid.count("main") && tid.count("I/O worker") && tid.count("background load"));
    // Each frame on the main thread with its loop count and five counters at
    // its start; every frame but the last waits for the next period.
    const std::vector<json> frameSlices = Named(events, "frame"),
                            waits = Named(events, "wait for period");
    ASSERT_EQ(frameSlices.size(), frames);
    uint32_t messages = 0;
    for (uint32_t i = 0; i < frames; ++i) {
        const json& f = frameSlices[i];
        EXPECT_EQ(Codes({f["tid"], f["args"]["loop"]}), Codes({tid["main"], i + 1}));
        messages += f["args"]["messages"].get<uint32_t>();
        const int64_t start = Nanos(f["ts"]), end = start + Nanos(f["dur"]);
        for (const char* name : {"system pool bytes", "system pool largest gap", "open files",
                                 "live requests", "bytes read"})
            EXPECT_EQ(counters[name].count(start), 1u) << name << " at frame " << i + 1;
        auto inFrame = [&](const json& w) {
            return Nanos(w["ts"]) >= start && Nanos(w["ts"]) + Nanos(w["dur"]) <= end + 1;
        };
        EXPECT_TRUE(i + 1 == frames || std::any_of(waits.begin(), waits.end(), inFrame))
            << "frame " << i + 1 << " has no wait";
    }
    EXPECT_GE(messages, 1u);
    const std::vector<json> dispatched = Named(events, "dispatch message");
    EXPECT_TRUE(std::any_of(dispatched.begin(), dispatched.end(),
                            [](const json& d) { return d["args"]["message"] == 0x400; }));
    EXPECT_EQ(Named(events, "frame work").size(), frames);
    // I/O steps on the worker; the retried and the failing read show try 2,
    // 1 + 2 retry marks and one failure.
    EXPECT_GE(ioSteps, 8u);
    EXPECT_GE(secondTries, 2u);
    EXPECT_EQ(Codes({int64_t(Named(events, "retry", "i").size()),
                     int64_t(Named(events, "failed", "i").size())}),
              Codes({3, 1}));
    // The requests' open, read and close as flows begun, stepped on the worker, ended.
    EXPECT_EQ(flows.size(), 3u);
    for (const auto& [id, phases] : flows) {
        std::string order;
        for (const auto& step : phases)
            order += step.second;
        EXPECT_TRUE(order.front() == 's' && order.back() == 'f' &&
                    order.find('t') != std::string::npos && order.find('?') == std::string::npos)
            << id << ": " << order;
    }
    // The load on its own thread; the archive open with its packed directory's expansion.
    const std::vector<json> loads = Named(events, "background load"),
                            opens = Named(events, "archive open"),
                            expansions = Named(events, "slide expand");
    ASSERT_EQ(Codes({int64_t(loads.size()), int64_t(opens.size()), int64_t(expansions.size())}),
              Codes({1, 1, 1}));
    EXPECT_EQ(Codes({loads[0]["tid"], loads[0]["args"]["bytes"], g_state.loadedBytes,
                     opens[0]["args"]["items"]}),
              Codes({tid["background load"], 40000, 40000, 40}));
    EXPECT_GT(expansions[0]["args"]["expanded"].get<int64_t>(),
              expansions[0]["args"]["packed"].get<int64_t>());
}

// The variable is read at start: set only afterwards, nothing is written. A
// full buffer drops events and the file counts them.
TEST(Timeline, UnsetAtStartWritesNothingAndAFullBufferCountsWhatItDrops) {
    const std::string unset = FreshPath("unset"), full = FreshPath("full");
    constexpr uint32_t kPairs = 200000; // far more than one thread's buffer holds
    for (const std::string* path : {&unset, &full}) {
        SetTimelineVariable(path == &full ? full : "");
        ASSERT_EQ(zkBeginProcess(0) + zkInitializeEx(kArenaSize, kDescriptors), 0);
        SetTimelineVariable(path == &full ? "" : unset);
        ASSERT_EQ(zkInitializeProfiler(1, 0), 0);
        zkSetProfileName(0, "tight loop");
        for (uint32_t i = 0; i < (path == &full ? kPairs : 1); ++i)
            zkBeginProfile(0), zkEndProfile(0);
        EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);
    }
    SetTimelineVariable("");
    EXPECT_FALSE(fs::exists(unset));
    const json document = ReadRecording(full);
    const uint64_t dropped = document["otherData"]["droppedEvents"].get<uint64_t>();
    const size_t kept = Named(document["traceEvents"], "tight loop").size();
    EXPECT_TRUE(dropped > 0 && kept > 1000 && kept < kPairs) << dropped << " " << kept;
    EXPECT_GE(kept + dropped, kPairs);
}

} // namespace
} // namespace zktest
