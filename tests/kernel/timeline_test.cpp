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
#include <thread>

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

// The events of one thread in file order, 'M' records left out.
std::map<int64_t, std::vector<json>> ByThread(const json& events) {
    std::map<int64_t, std::vector<json>> threads;
    for (const json& e : events)
        if (e["ph"] != "M") threads[e["tid"].get<int64_t>()].push_back(e);
    return threads;
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
    ASSERT_TRUE(document.contains("traceEvents"));
    ASSERT_TRUE(document["traceEvents"].is_array());
    ASSERT_TRUE(document["otherData"]["droppedEvents"].is_number_unsigned());
    for (const auto& [tid, events] : ByThread(document["traceEvents"])) {
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
            if (!open.empty()) {
                EXPECT_LE(end, open.back()) << "slice crosses its parent: " << e.dump();
            }
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

// Begins and initialises the library with the variable naming a fresh file,
// which is returned; the variable is unset again.
std::string StartRecording(const char* name) {
    const std::string path = FreshPath(name);
    SetTimelineVariable(path);
    EXPECT_EQ(zkBeginProcess(0), 0);
    EXPECT_EQ(zkInitializeEx(kArenaSize, kDescriptors), 0);
    SetTimelineVariable("");
    return path;
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
    uint32_t itemCount = 0;
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
    g_state.itemCount = static_cast<uint32_t>(items.size());
    Check(zkInitializeRequest(4) == 0, "requests");
    g_state.request = zkCreateRequest();
    Check(zkInitializeProfiler(4, 0) == 0, "profiler");
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
        uint32_t size = 0;
        Check(zkLoadKivItem(archive, "data/item7.txt", &item, &size) == 0 && size == 107,
              "archive item");
        zkReleaseKivItem(item);
        zkCloseKiv(archive);
        zkEndProfile(1);
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
        zkFreeData(data);
        zkCloseFile(s.loading);
        s.loading = nullptr;
    }
    zkEndProfile(0);
    const bool done = s.frame >= kFrames && !s.loading;
    return done || s.frame >= 400 ? ZK_FRAME_END : 0;
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

    // Threads by name: the main thread, the worker, the loader.
    std::map<std::string, int64_t> tidOf;
    for (const json& e : events)
        if (e["ph"] == "M" && e["name"] == "thread_name") tidOf[e["args"]["name"]] = e["tid"];
    ASSERT_TRUE(tidOf.count("main") && tidOf.count("I/O worker") && tidOf.count("background load"));
    const int64_t main = tidOf["main"], worker = tidOf["I/O worker"];

    // One slice per frame on the main thread, loop counts 1..n, each with the
    // five counters at its start; every frame but the last ends with the wait
    // for the next period.
    const std::vector<json> frameSlices = Named(events, "frame");
    ASSERT_EQ(frameSlices.size(), frames);
    std::map<std::string, std::vector<double>> counters;
    for (const json& e : events)
        if (e["ph"] == "C") counters[e["name"].get<std::string>()].push_back(e["ts"].get<double>());
    const std::vector<json> waits = Named(events, "wait for period");
    uint32_t messages = 0;
    for (uint32_t i = 0; i < frames; ++i) {
        const json& f = frameSlices[i];
        EXPECT_EQ(f["tid"], main);
        EXPECT_EQ(f["args"]["loop"], i + 1);
        messages += f["args"]["messages"].get<uint32_t>();
        const double start = f["ts"].get<double>(), end = start + f["dur"].get<double>();
        for (const char* name : {"system pool bytes", "system pool largest gap", "open files",
                                 "live requests", "bytes read"}) {
            const std::vector<double>& at = counters[name];
            EXPECT_NE(std::find(at.begin(), at.end(), start), at.end())
                << name << " missing at frame " << i + 1;
        }
        if (i + 1 < frames) {
            const bool waited = std::any_of(waits.begin(), waits.end(), [&](const json& w) {
                const double ws = w["ts"].get<double>();
                return ws >= start && ws + w["dur"].get<double>() <= end + 0.001;
            });
            EXPECT_TRUE(waited) << "frame " << i + 1 << " has no wait for the period";
        }
    }
    EXPECT_GE(messages, 1u);
    const std::vector<json> dispatched = Named(events, "dispatch message");
    EXPECT_TRUE(std::any_of(dispatched.begin(), dispatched.end(),
                            [](const json& d) { return d["args"]["message"] == 0x400; }));

    // Profiler slots by name, on the main thread.
    EXPECT_EQ(Named(events, "frame work").size(), frames);
    const std::vector<json> archiveWork = Named(events, "archive work");
    ASSERT_EQ(archiveWork.size(), 1u);
    EXPECT_EQ(archiveWork[0]["cat"], "profiler");

    // Every I/O step on the worker, with its device, path, queue wait and try;
    // the retried read shows try 2 and a retry mark, the failing one a failure.
    uint32_t ioSteps = 0, secondTries = 0;
    for (const json& e : events) {
        if (e["ph"] != "X" || e["cat"] != "io") continue;
        ++ioSteps;
        EXPECT_EQ(e["tid"], worker);
        for (const char* key :
             {"try", "queue_wait_ns", "urgent", "bytes", "result", "device", "path"})
            EXPECT_TRUE(e["args"].contains(key)) << key << " missing in " << e.dump();
        EXPECT_EQ(e["args"]["device"], "mem");
        secondTries += e["args"]["try"] == 2;
    }
    EXPECT_GE(ioSteps, 8u);
    EXPECT_GE(secondTries, 2u);                        // the retried read and the failing one
    EXPECT_EQ(Named(events, "retry", "i").size(), 3u); // 1 + 2 tries that were retried
    EXPECT_EQ(Named(events, "failed", "i").size(), 1u);
    EXPECT_EQ(Named(events, "queued (normal)", "b").size(),
              Named(events, "queued (normal)", "e").size());

    // Synchronous calls on the caller's thread, with the path.
    const std::vector<json> reads = Named(events, "zkReadFile");
    EXPECT_TRUE(std::any_of(reads.begin(), reads.end(), [&](const json& r) {
        return r["tid"] == main && r["args"]["path"] == "/m/stream.bin" &&
               r["args"]["bytes"] == 4096;
    }));

    // The asynchronous read as a flow: begun on the main thread, stepped on the
    // worker, completed, ended on the main thread.
    std::map<std::string, std::multimap<int64_t, char>> flows; // id -> phases by time
    std::map<std::string, bool> stepOnWorker;
    for (const json& e : events) {
        const std::string ph = e["ph"].get<std::string>();
        if (ph != "s" && ph != "t" && ph != "f") continue;
        flows[e["id"].get<std::string>()].emplace(Nanos(e["ts"]), ph[0]);
        if (ph == "t" && e["tid"] == worker) stepOnWorker[e["id"].get<std::string>()] = true;
    }
    EXPECT_EQ(flows.size(), 3u); // the requests' open, read and close
    for (const auto& [id, phases] : flows) {
        EXPECT_EQ(phases.begin()->second, 's') << id;
        EXPECT_EQ(phases.rbegin()->second, 'f') << id;
        EXPECT_GE(phases.size(), 3u) << id << ": begun, completed, ended";
    }
    EXPECT_EQ(stepOnWorker.size(), 3u);

    // The background load on its own thread, with the whole file's size.
    const std::vector<json> loads = Named(events, "background load");
    ASSERT_EQ(loads.size(), 1u);
    EXPECT_EQ(loads[0]["tid"], tidOf["background load"]);
    EXPECT_EQ(loads[0]["args"]["bytes"], 40000);
    EXPECT_EQ(g_state.loadedBytes, 40000u);

    // The archive open with its item count and the slide expansion of its
    // packed directory inside it.
    const std::vector<json> opens = Named(events, "archive open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0]["args"]["items"], g_state.itemCount);
    const std::vector<json> expansions = Named(events, "slide expand");
    ASSERT_EQ(expansions.size(), 1u);
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
    ASSERT_TRUE(MountDevice());
    Device().Put("mem:/a.bin", "abc");
    void* data = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(zkLoadDataFromFile("/m/a.bin", &data, &size), 0);
    zkFreeData(data);
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
    SetTimelineVariable("");
    EXPECT_FALSE(fs::exists(path));
}

TEST(Timeline, AFullBufferDropsEventsAndTheFileCountsThem) {
    const std::string path = StartRecording("full");
    ASSERT_EQ(zkInitializeProfiler(1, 0), 0);
    zkSetProfileName(0, "tight loop");
    constexpr uint32_t kPairs = 200000; // far more than one thread's buffer holds
    for (uint32_t i = 0; i < kPairs; ++i) {
        zkBeginProfile(0);
        zkEndProfile(0);
    }
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);

    const json document = ReadRecording(path);
    const uint64_t dropped = document["otherData"]["droppedEvents"].get<uint64_t>();
    const size_t kept = Named(document["traceEvents"], "tight loop").size();
    EXPECT_GT(dropped, 0u);
    EXPECT_GT(kept, 1000u);
    EXPECT_LT(kept, kPairs);
    EXPECT_GE(kept + dropped, kPairs); // every slice either kept or counted
}

// Several threads record at once, each into its own buffer: every thread's
// calls are all there, nested and in order.
TEST(Timeline, ConcurrencyThreadsRecordAtOnce) {
    const std::string path = StartRecording("threads");
    ASSERT_TRUE(MountDevice());
    constexpr int kThreads = 4;
    const int rounds = kThreadSanitizer ? 40 : 200;
    for (int t = 0; t < kThreads; ++t)
        Device().Put("mem:/t" + std::to_string(t) + ".bin", Pattern(1000));
    std::vector<std::thread> threads;
    std::vector<int> failures(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const std::string name = "/m/t" + std::to_string(t) + ".bin";
            char buffer[1000];
            for (int i = 0; i < rounds; ++i) {
                FileHandle* file = zkOpenFile(name.c_str(), ZK_OPEN_READ, 0);
                uint32_t got = 0;
                failures[t] += zkReadFile(file, buffer, sizeof(buffer), &got) != 0 || got != 1000;
                zkCloseFile(file);
            }
        });
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(zkTerminate(), 0);
    EXPECT_EQ(zkEndProcess(), 0);
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));

    const json document = ReadRecording(path);
    EXPECT_EQ(document["otherData"]["droppedEvents"], 0);
    std::map<std::string, std::set<int64_t>> threadsOfPath;
    std::map<std::string, int> readsOfPath;
    for (const json& e : Named(document["traceEvents"], "zkReadFile")) {
        const std::string p = e["args"]["path"].get<std::string>();
        threadsOfPath[p].insert(e["tid"].get<int64_t>());
        ++readsOfPath[p];
    }
    ASSERT_EQ(readsOfPath.size(), size_t(kThreads));
    for (const auto& [p, count] : readsOfPath) {
        EXPECT_EQ(count, rounds) << p;
        EXPECT_EQ(threadsOfPath[p].size(), 1u) << p << " was read by one thread";
    }
}

} // namespace
} // namespace zktest
