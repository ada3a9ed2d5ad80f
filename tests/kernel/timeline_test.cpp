// The timeline recording: a frame loop run with QAX_TIMELINE set leaves a
// trace-event file that a JSON parser reads, in which every thread's slices
// nest and keep their order, every frame has its slice and its counters, and
// file work, requests, background loads, archives and profiler slots appear
// where they ran. Without the variable nothing is written.
#include "archive/archive_builder.h"
#include "file/memory_device.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

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
    if (value.empty())
        unsetenv("QAX_TIMELINE");
    else
        setenv("QAX_TIMELINE", value.c_str(), 1);
#endif
}

std::string FreshPath(const char* name) {
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    return (fs::temp_directory_path() /
            (std::string("qax_") + name + "_" + std::to_string(stamp) + ".json"))
        .string();
}

MemoryDevice& Device() {
    static MemoryDevice device;
    return device;
}

// The device registered (once: drivers stay registered) and mounted at /m.
bool MountDevice() {
    static const int32_t registered = zkRegisterDevice(&Device());
    Device().Reset();
    return registered == 0 && zkMount("/m", "mem:", 0) == 0;
}

std::string Pattern(size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i)
        s[i] = static_cast<char>('a' + i % 23);
    return s;
}

// A timestamp or duration of the file (microseconds, three decimals) in
// nanoseconds, so that comparisons are exact.
int64_t Nanos(const json& value) {
    return std::llround(value.get<double>() * 1000.0);
}

std::vector<json> Named(const json& events, const std::string& name, const char* phase = "X") {
    std::vector<json> out;
    for (const json& e : events)
        if (e["ph"] == phase && e["name"] == name) out.push_back(e);
    return out;
}

// What holds for every recording: on each thread the timestamps never go
// back, begin/end pairs match and slices nest (a slice that starts inside
// another ends inside it too); flows end where they start; a dropped count
// is present.
void ExpectWellFormed(const json& document) {
    ASSERT_TRUE(document["traceEvents"].is_array());
    ASSERT_TRUE(document["otherData"]["droppedEvents"].is_number_unsigned());
    std::map<int64_t, std::vector<json>> threads; // each thread's events in file order
    for (const json& e : document["traceEvents"])
        if (e["ph"] != "M") threads[e["tid"].get<int64_t>()].push_back(e);
    for (const auto& [tid, events] : threads) {
        int64_t last = -1;
        std::vector<int64_t> open;    // ends of the slices enclosing the current time
        int64_t begins = 0, ends = 0; // 'B' and 'E'
        for (const json& e : events) {
            const int64_t ts = Nanos(e["ts"]);
            EXPECT_GE(ts, last) << "thread " << tid << " went back in time at " << e.dump();
            last = ts;
            begins += e["ph"] == "B";
            ends += e["ph"] == "E";
            if (e["ph"] != "X") continue;
            const int64_t end = ts + Nanos(e["dur"]);
            while (!open.empty() && open.back() <= ts && !(open.back() == ts && end == ts))
                open.pop_back();
            EXPECT_TRUE(open.empty() || end <= open.back()) << "slice crosses its parent: " << e.dump();
            open.push_back(end);
        }
        EXPECT_EQ(begins, ends) << "thread " << tid;
    }
    std::map<std::string, int> starts, finishes;
    for (const json& e : document["traceEvents"]) {
        if (e["ph"] == "s") ++starts[e["id"].get<std::string>()];
        if (e["ph"] == "f") ++finishes[e["id"].get<std::string>()];
    }
    EXPECT_EQ(starts, finishes) << "every flow that starts must end";
}

// Reads the recording, checks that it is well formed, and removes the file.
json ReadRecording(const std::string& path) {
    json document;
    {
        std::ifstream in(path, std::ios::binary);
        EXPECT_TRUE(in.good()) << "no timeline file at " << path;
        document = json::parse(in, nullptr, false);
    }
    EXPECT_FALSE(document.is_discarded()) << "the timeline is not valid JSON";
    ExpectWellFormed(document);
    fs::remove(path);
    return document;
}

// ---- one frame loop with everything in it -----------------------------------

constexpr uint32_t kFrames = 12;

struct LoopState {
    uint32_t frame = 0;
    ::Request* request = nullptr;
    FileHandle* asyncFile = nullptr;
    FileHandle* loading = nullptr;
    uint32_t loadedBytes = 0;
    char buffer[4096] = {};
    std::vector<std::string> failures;
};
LoopState g_state;

void Check(bool ok, const char* what) {
    if (!ok) g_state.failures.push_back(what);
}

int ZK_CALL Init() {
    if (zkInitializeEx(kArenaSize, kDescriptors) != 0 || !MountDevice()) return 0;
    Device().Put("mem:/stream.bin", Pattern(64 << 10));
    Device().Put("mem:/load.bin", Pattern(40000));
    Device().Put("mem:/retry.bin", "0123456789");
    PackOptions packed;
    packed.packedDirectory = true;
    std::vector<PackItem> items;
    for (int i = 0; i < 40; ++i)
        items.push_back(Item("data/item" + std::to_string(i) + ".txt", Pattern(100 + i)));
    Device().Put("mem:/game.kiv", Pack(items, packed));
    Check(zkInitializeRequest(4) == 0 && zkInitializeProfiler(4, 0) == 0, "requests, profiler");
    g_state.request = zkCreateRequest();
    zkSetProfileName(0, "frame work");
    zkSetProfileName(1, "archive work");
    return 1;
}

// Reads retry.bin once with the device failing `failures` of its read calls
// and three tries.
int32_t ReadWithFailures(uint32_t failures) {
    Device().plan.tries = 3;
    const uint32_t next = Device().Count(kFileRead) + 1;
    Device().plan.faults[kFileRead] = {next, next + failures, -35};
    FileHandle* file = zkOpenFile("/m/retry.bin", ZK_OPEN_READ, 0);
    uint32_t got = 0;
    const int32_t result = zkReadFile(file, g_state.buffer, 10, &got);
    zkCloseFile(file);
    Device().plan.faults[kFileRead] = {};
    return result;
}

uint32_t ZK_CALL Frame() {
    LoopState& s = g_state;
    ++s.frame;
    zkBeginProfile(0);
    uint32_t got = 0;
    switch (s.frame) {
    case 1: { // synchronous calls
        FileHandle* file = zkOpenFile("/m/stream.bin", ZK_OPEN_READ, 0);
        Check(zkReadFile(file, s.buffer, 4096, &got) == 0 && got == 4096, "sync read");
        zkCloseFile(file);
        break;
    }
    case 2: // asynchronous open, then a read begun here and collected next frame
        Check(zkBeginOpenFile("/m/stream.bin", ZK_OPEN_READ, 0, s.request) == 0 &&
                  zkEndOpenFile(&s.asyncFile, s.request) == 0,
              "async open");
        Check(zkBeginReadFile(s.asyncFile, s.buffer, 4096, s.request) == 0, "begin read");
        break;
    case 3:
        Check(zkEndReadFile(&got, s.request) == 0 && got == 4096, "end read");
        Check(zkBeginCloseFile(s.asyncFile, s.request) == 0 && zkEndCloseFile(s.request) == 0,
              "async close");
        s.loading = zkStartLoadingDataFromFile("/m/load.bin");
        Check(s.loading != nullptr, "background load");
        break;
    case 4: { // an archive with a packed directory
        zkBeginProfile(1);
        KivArchive* archive = zkOpenKiv("/m/game.kiv", 0);
        void* item = nullptr;
        Check(zkLoadKivItem(archive, "data/item7.txt", &item, &got) == 0 && got == 107, "item");
        zkReleaseKivItem(item), zkCloseKiv(archive), zkEndProfile(1);
        break;
    }
    case 5:
        Check(ReadWithFailures(1) == 0, "read after a retry");
        Check(ReadWithFailures(3) == -35, "read failing every try");
        break;
    case 6:
        zkPostWindowMessage(zkGetMainWindow(), 0x0400, 0, 0);
        break;
    default:
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
    g_state = LoopState{};
    ASSERT_EQ(zkMain(Init, Frame, Term, 0), 0);
    SetTimelineVariable("");
    EXPECT_EQ(g_state.failures, std::vector<std::string>{});

    const json document = ReadRecording(path);
    const json& events = document["traceEvents"];
    const uint32_t frames = g_state.frame;
    EXPECT_EQ(document["otherData"]["droppedEvents"], 0);
    std::map<std::string, int64_t> tidOf; // the main thread, the worker, the loader
    for (const json& e : events)
        if (e["ph"] == "M" && e["name"] == "thread_name") tidOf[e["args"]["name"]] = e["tid"];
    ASSERT_TRUE(tidOf.count("main") && tidOf.count("I/O worker") && tidOf.count("background load"));

    // One slice per frame on the main thread, loop counts 1..n, each with the
    // five counters at its start; every frame but the last ends with the wait
    // for the next period.
    const std::vector<json> frameSlices = Named(events, "frame"),
                            waits = Named(events, "wait for period");
    ASSERT_EQ(frameSlices.size(), frames);
    std::map<std::string, std::set<int64_t>> counters;
    for (const json& e : events)
        if (e["ph"] == "C") counters[e["name"].get<std::string>()].insert(Nanos(e["ts"]));
    uint32_t messages = 0;
    for (uint32_t i = 0; i < frames; ++i) {
        const json& f = frameSlices[i];
        EXPECT_EQ(Codes({f["tid"], f["args"]["loop"]}), Codes({tidOf["main"], i + 1}));
        messages += f["args"]["messages"].get<uint32_t>();
        const int64_t start = Nanos(f["ts"]), end = start + Nanos(f["dur"]);
        for (const char* name : {"system pool bytes", "system pool largest gap", "open files",
                                 "live requests", "bytes read"})
            EXPECT_EQ(counters[name].count(start), 1u) << name << " missing at frame " << i + 1;
        auto inFrame = [&](const json& w) {
            return Nanos(w["ts"]) >= start && Nanos(w["ts"]) + Nanos(w["dur"]) <= end + 1;
        };
        EXPECT_TRUE(i + 1 == frames || std::any_of(waits.begin(), waits.end(), inFrame))
            << "frame " << i + 1 << " has no wait for the period";
    }
    EXPECT_GE(messages, 1u);
    const std::vector<json> dispatched = Named(events, "dispatch message");
    EXPECT_TRUE(std::any_of(dispatched.begin(), dispatched.end(),
                            [](const json& d) { return d["args"]["message"] == 0x400; }));
    EXPECT_EQ(Named(events, "frame work").size(), frames); // a profiler slot by its name

    // Every I/O step on the worker, with its device, path, queue wait and try;
    // the retried read shows try 2 and a retry mark, the failing one a failure.
    uint32_t ioSteps = 0, secondTries = 0;
    for (const json& e : events) {
        if (e["ph"] != "X" || e["cat"] != "io") continue;
        ++ioSteps;
        secondTries += e["args"]["try"] == 2;
        EXPECT_TRUE(e["tid"] == tidOf["I/O worker"] && e["args"]["device"] == "mem" &&
                    e["args"].contains("queue_wait_ns") && e["args"].contains("path"))
            << e.dump();
    }
    EXPECT_GE(ioSteps, 8u);
    EXPECT_GE(secondTries, 2u); // the retried read and the failing one
    EXPECT_EQ(Codes({int64_t(Named(events, "retry", "i").size()),
                     int64_t(Named(events, "failed", "i").size())}),
              Codes({3, 1})); // 1 + 2 tries that were retried; one failure

    // The requests' open, read and close as flows: begun on the main thread,
    // stepped on the worker, completed, ended.
    std::map<std::string, std::multimap<int64_t, char>> flows; // id -> phases by time
    std::set<std::string> stepOnWorker;
    for (const json& e : events) {
        const std::string ph = e["ph"].get<std::string>();
        if (ph != "s" && ph != "t" && ph != "f") continue;
        flows[e["id"].get<std::string>()].emplace(Nanos(e["ts"]), ph[0]);
        if (ph == "t" && e["tid"] == tidOf["I/O worker"]) stepOnWorker.insert(e["id"]);
    }
    EXPECT_EQ(Codes({int64_t(flows.size()), int64_t(stepOnWorker.size())}), Codes({3, 3}));
    for (const auto& [id, phases] : flows)
        EXPECT_TRUE(phases.begin()->second == 's' && phases.rbegin()->second == 'f' &&
                    phases.size() >= 3)
            << id;

    // The background load on its own thread with the whole file's size; the
    // archive open with its item count and its packed directory's expansion.
    const std::vector<json> loads = Named(events, "background load"),
                            opens = Named(events, "archive open"),
                            expansions = Named(events, "slide expand");
    ASSERT_EQ(Codes({int64_t(loads.size()), int64_t(opens.size()), int64_t(expansions.size())}),
              Codes({1, 1, 1}));
    EXPECT_EQ(Codes({loads[0]["tid"], loads[0]["args"]["bytes"], g_state.loadedBytes,
                     opens[0]["args"]["items"]}),
              Codes({tidOf["background load"], 40000, 40000, 40}));
    EXPECT_GT(expansions[0]["args"]["expanded"].get<int64_t>(),
              expansions[0]["args"]["packed"].get<int64_t>());
}

// ---- without the variable, and with a full buffer ------------------------------

// The variable is read when the library starts: set only afterwards, it
// starts no recording and nothing is written at termination.
TEST(Timeline, WithoutTheVariableAtStartNothingIsWritten) {
    const std::string path = FreshPath("unset");
    SetTimelineVariable("");
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
    SetTimelineVariable(path);
    zkBeginProfile(0), zkEndProfile(0);
    EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);
    SetTimelineVariable("");
    EXPECT_FALSE(fs::exists(path));
}

TEST(Timeline, AFullBufferDropsEventsAndTheFileCountsThem) {
    const std::string path = FreshPath("full");
    SetTimelineVariable(path);
    ASSERT_EQ(zkBeginProcess(0), 0);
    ASSERT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
    SetTimelineVariable("");
    ASSERT_EQ(zkInitializeProfiler(1, 0), 0);
    zkSetProfileName(0, "tight loop");
    constexpr uint32_t kPairs = 200000; // far more than one thread's buffer holds
    for (uint32_t i = 0; i < kPairs; ++i)
        zkBeginProfile(0), zkEndProfile(0);
    EXPECT_EQ(zkTerminate() + zkEndProcess(), 0);

    const json document = ReadRecording(path);
    const uint64_t dropped = document["otherData"]["droppedEvents"].get<uint64_t>();
    const size_t kept = Named(document["traceEvents"], "tight loop").size();
    EXPECT_TRUE(dropped > 0 && kept > 1000 && kept < kPairs) << dropped << " " << kept;
    EXPECT_GE(kept + dropped, kPairs); // every slice either kept or counted
}

} // namespace
} // namespace zktest
