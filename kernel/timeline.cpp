// Timeline recording: the per-thread buffers, the frame and counter events,
// and the start and stop of a recording.
//
// Owns: up to kMaxBuffers thread buffers (static records, their blocks taken
// from the platform on first use and kept for the life of the process), the
// frame state of the thread that runs the frame loop, the output path.
//
// Locks: none. A thread claims a free buffer with one compare-exchange on the
// buffer's owner word and from then on is its only writer; it publishes each
// record with a release store of the buffer's used count, which the export
// reads with an acquire load. Start and Stop run on the thread that
// initialises and terminates the library.
#include "kernel/timeline.h"

#include "file/file_system.h"
#include "kernel/context.h"
#include "kernel/timeline_buffer.h"
#include "memory/memory_manager.h"
#include "platform/platform.h"
#include "thread/request.h"

#include <cstring>

namespace zk::timeline {

std::atomic<bool> gRecording{false};

namespace {

// The calling thread's place in the recording: its buffer and identity,
// valid while generation matches the recording's.
struct ThreadState {
    ThreadBuffer* buffer = nullptr;
    uint32_t generation = 0;
    uint32_t tid = 0;
    uint32_t nextId = 0;
};

thread_local ThreadState tState;

// The frame loop's open frame. Only the thread that waits for periods
// touches it (and Stop, on that same thread).
struct FrameState {
    bool open = false;
    const ThreadState* owner = nullptr;
    int64_t start = 0;
    uint32_t messages = 0;
    uint32_t number = 0;
};

FrameState gFrame;

uint32_t TextLength(const char* text) {
    uint32_t n = 0;
    while (n < kMaxText && text[n] != '\0')
        ++n;
    return n;
}

uint32_t RoundUp8(uint32_t n) {
    return (n + 7u) & ~7u;
}

// Writes bytes of one record into the thread's buffer, or counts it dropped.
void Append(ThreadBuffer* buffer, const Event& event) {
    const uint32_t argBytes = event.argCount * sizeof(RecordArg);
    const uint32_t textCount = event.textCount + (event.nameText ? 1u : 0u);
    uint32_t textBytes = textCount * sizeof(const char*);
    uint32_t lengths[kMaxRecordTexts];
    const char* texts[kMaxRecordTexts];
    const char* keys[kMaxRecordTexts];
    uint32_t k = 0;
    if (event.nameText) {
        keys[k] = nullptr;
        texts[k] = event.nameText;
        lengths[k] = TextLength(event.nameText);
        textBytes += lengths[k] + 1;
        ++k;
    }
    for (uint32_t i = 0; i < event.textCount && k < kMaxRecordTexts; ++i, ++k) {
        keys[k] = event.texts[i].key;
        texts[k] = event.texts[i].text ? event.texts[i].text : "";
        lengths[k] = TextLength(texts[k]);
        textBytes += lengths[k] + 1;
    }
    const uint32_t size = RoundUp8(sizeof(RecordHeader) + argBytes + textBytes);
    const uint32_t used = buffer->used.load(std::memory_order_relaxed);
    if (size > kBufferSize - used) {
        buffer->dropped.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    uint8_t* at = buffer->base + used;
    RecordHeader header{};
    header.start = event.start;
    header.end = event.end;
    header.id = event.id;
    header.category = event.category;
    header.name = event.name;
    header.size = static_cast<uint16_t>(size);
    header.phase = event.phase;
    header.argCount = static_cast<uint8_t>(event.argCount);
    header.textCount = static_cast<uint8_t>(k);
    header.nameInText = event.nameText ? 1 : 0;
    std::memcpy(at, &header, sizeof(header));
    uint8_t* p = at + sizeof(header);
    for (uint32_t i = 0; i < event.argCount; ++i) {
        RecordArg arg{event.args[i].key, event.args[i].value};
        std::memcpy(p, &arg, sizeof(arg));
        p += sizeof(arg);
    }
    std::memcpy(p, keys, k * sizeof(const char*));
    p += k * sizeof(const char*);
    for (uint32_t i = 0; i < k; ++i) {
        std::memcpy(p, texts[i], lengths[i]);
        p[lengths[i]] = '\0';
        p += lengths[i] + 1;
    }
    buffer->used.store(used + size, std::memory_order_release);
}

// The calling thread's state, attached to a buffer of this recording: null
// when every buffer is taken (the event is then counted as dropped).
ThreadState* Attach() {
    ThreadState& state = tState;
    const uint32_t generation = gGeneration.load(std::memory_order_acquire);
    if (state.generation == generation) return state.buffer ? &state : nullptr;
    state.generation = generation;
    state.buffer = ClaimBuffer();
    state.tid = gNextThread.fetch_add(1, std::memory_order_relaxed);
    state.nextId = 0;
    if (!state.buffer) {
        gDroppedWithoutBuffer.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    // A run of this thread's events starts with its identity.
    Event marker;
    marker.phase = static_cast<Phase>(kThreadStart);
    marker.name = "thread";
    marker.id = state.tid;
    marker.start = marker.end = Now();
    Append(state.buffer, marker);
    return &state;
}

void RecordCounters(int64_t at) {
    uint32_t used = 0, free = 0, largest = 0;
    if (MemoryPool* pool = SystemPool()) {
        MemoryInfo info{};
        pool->Snapshot(&info);
        used = info.used;
        free = info.free;
        largest = pool->LargestGapLocked();
    }
    const Arg pool[] = {{"used", used}, {"free", free}};
    const Arg gap[] = {{"bytes", largest}};
    const Arg files[] = {{"count", Files().OpenCount()}};
    const Arg requests[] = {{"count", Requests().LiveCount()}};
    const Arg bytes[] = {{"bytes", Files().TotalBytesRead()}};
    struct Counter {
        const char* name;
        const Arg* args;
        uint32_t count;
    };
    const Counter counters[] = {{"system pool bytes", pool, 2},
                                {"system pool largest gap", gap, 1},
                                {"open files", files, 1},
                                {"live requests", requests, 1},
                                {"bytes read", bytes, 1}};
    for (const Counter& c : counters) {
        Event e;
        e.phase = kCounter;
        e.category = "counter";
        e.name = c.name;
        e.start = e.end = at;
        e.args = c.args;
        e.argCount = c.count;
        Record(e);
    }
}

// A slice of the frame loop's own, with at most one argument.
void FrameSlice(const char* name, int64_t start, int64_t end, const Arg* arg) {
    Event e;
    e.category = "frame";
    e.name = name;
    e.start = start;
    e.end = end;
    e.args = arg;
    e.argCount = arg ? 1 : 0;
    Record(e);
}

void CloseFrame(int64_t end, uint32_t loopCount) {
    const Arg args[] = {
        {"frame", gFrame.number}, {"loop", loopCount}, {"messages", gFrame.messages}};
    Event e;
    e.category = "frame";
    e.name = "frame";
    e.start = gFrame.start;
    e.end = end;
    e.args = args;
    e.argCount = 3;
    Record(e);
    gFrame.open = false;
}

} // namespace

int64_t Now() {
    return os::PerformanceCounter();
}

uint64_t TicksToNanoseconds(int64_t ticks) {
    if (ticks <= 0) return 0;
    static const uint64_t frequency = static_cast<uint64_t>(os::PerformanceFrequency());
    const uint64_t t = static_cast<uint64_t>(ticks);
    return t / frequency * 1000000000ull + t % frequency * 1000000000ull / frequency;
}

void Record(const Event& event) {
    if (!On()) return;
    if (ThreadState* state = Attach()) Append(state->buffer, event);
}

uint64_t NewId() {
    ThreadState* state = Attach();
    if (!state) return 0;
    return (uint64_t(state->tid) << 32) | ++state->nextId;
}

void FlowPoint(const char* name, Phase phase, uint64_t id) {
    if (!On() || id == 0) return;
    const int64_t now = Now();
    const Arg arg{"flow", static_cast<int64_t>(id & 0x7FFFFFFFFFFFFFFFull)};
    Event slice;
    slice.category = "request";
    slice.name = name;
    slice.start = slice.end = now;
    slice.args = &arg;
    slice.argCount = 1;
    Record(slice);
    Event flow;
    flow.phase = phase;
    flow.category = "request";
    flow.name = "request";
    flow.id = id;
    flow.start = flow.end = now;
    Record(flow);
}

void NameThread(const char* name, int32_t number) {
    if (!On()) return;
    char text[48];
    uint32_t n = 0;
    for (; name[n] != '\0' && n < 32; ++n)
        text[n] = name[n];
    if (number >= 0) {
        char digits[12];
        uint32_t d = 0;
        uint32_t v = static_cast<uint32_t>(number);
        do {
            digits[d++] = static_cast<char>('0' + v % 10);
            v /= 10;
        } while (v != 0);
        text[n++] = ' ';
        while (d > 0)
            text[n++] = digits[--d];
    }
    text[n] = '\0';
    Event e;
    e.phase = static_cast<Phase>(kThreadName);
    e.name = "thread_name";
    e.start = e.end = Now();
    const TextArg arg{"name", text};
    e.texts = &arg;
    e.textCount = 1;
    Record(e);
}

void ThreadEnding() {
    ThreadState& state = tState;
    if (state.buffer && state.generation == gGeneration.load(std::memory_order_acquire))
        ReleaseBuffer(state.buffer);
    state.buffer = nullptr;
    state.generation = 0;
}

void PeriodStarted(int64_t waitStart, uint32_t loopCount) {
    if (!On()) return;
    const int64_t now = Now();
    FrameSlice("wait for period", waitStart, now, nullptr);
    if (gFrame.open) CloseFrame(now, loopCount);
    gFrame.open = true;
    gFrame.owner = &tState;
    gFrame.start = now;
    gFrame.messages = 0;
    ++gFrame.number;
    RecordCounters(now);
}

void PeriodWaitCut(int64_t waitStart) {
    if (!On()) return;
    const Arg arg{"cut_by_message", 1};
    FrameSlice("wait for period", waitStart, Now(), &arg);
}

void MessageDispatched(uint32_t message, int64_t start) {
    if (!On()) return;
    if (gFrame.open && gFrame.owner == &tState) ++gFrame.messages;
    const Arg arg{"message", message};
    FrameSlice("dispatch message", start, Now(), &arg);
}

void Start() {
    if (On()) return;
    if (!os::EnvironmentVariable("QAX_TIMELINE", gOutputPath, sizeof(gOutputPath))) return;
    ResetBuffers();
    gFrame = FrameState{};
    gOrigin = Now();
    gRecording.store(true, std::memory_order_release);
    NameThread("main");
}

void Stop() {
    if (!On()) return;
    if (gFrame.open && gFrame.owner == &tState) CloseFrame(Now(), Kernel().framePeriod.LoopCount());
    gRecording.store(false, std::memory_order_release);
    WriteFile(gOutputPath);
    // The next recording starts with fresh buffers; threads attach again.
    gGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void Scope::Begin(const char* category, const char* name) {
    category_ = category;
    name_ = name;
    start_ = Now();
}

void Scope::End() {
    Event e;
    e.category = category_;
    e.name = name_;
    e.start = start_;
    e.end = Now();
    e.args = args_;
    e.argCount = argCount_;
    e.texts = texts_;
    e.textCount = textCount_;
    Record(e);
}

void Scope::Flow(Phase phase, uint64_t id) {
    if (!on_ || id == 0) return;
    Event e;
    e.phase = phase;
    e.category = "request";
    e.name = "request";
    e.start = e.end = Now();
    e.id = id;
    Record(e);
}

} // namespace zk::timeline
