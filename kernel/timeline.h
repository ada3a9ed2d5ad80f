// The timeline: a recording of what every thread did, written as trace-event
// JSON (the object form with "traceEvents") that Perfetto's viewer and
// chrome://tracing open.
//
// Recording is off unless the environment variable QAX_TIMELINE names a file
// when the library initialises; then every instrumented place records until
// termination, which writes the file. Off, an instrumented place costs one
// load and one predictable branch (On()).
//
// On, each thread writes into a buffer of its own: a fixed block taken once
// from the platform (never from the system pool, so the recording does not
// change the heap it shows) the first time the thread records, and kept for
// the life of the process. Recording takes no lock and allocates nothing per
// event; a full buffer drops what does not fit and counts it. A thread the
// library started gives its buffer back when it ends, so the next thread can
// continue in it; a buffer can therefore hold the events of several threads,
// one after another, each run starting with the thread's identity.
//
// Events are slices with a start and an end ("X"), instants, counters, flows
// and thread names. A slice is written when it ends; the export sorts each
// thread's events by start time.
#ifndef ZK_KERNEL_TIMELINE_H
#define ZK_KERNEL_TIMELINE_H

#include <atomic>
#include <cstdint>

namespace zk::timeline {

extern std::atomic<bool> gRecording;

inline bool On() {
    return gRecording.load(std::memory_order_relaxed);
}

// The platform's performance counter: every timestamp of the recording.
int64_t Now();
// A span of counter ticks in nanoseconds.
uint64_t TicksToNanoseconds(int64_t ticks);

struct Arg {
    const char* key; // static text
    int64_t value;
};

struct TextArg {
    const char* key;  // static text
    const char* text; // copied into the record (at most 255 bytes are kept)
};

enum Phase : uint8_t {
    kSlice = 'X',
    kInstant = 'i',
    kCounter = 'C',
    kFlowStart = 's',
    kFlowStep = 't',
    kFlowEnd = 'f',
    kAsyncBegin = 'b',
    kAsyncEnd = 'e',
};

struct Event {
    Phase phase = kSlice;
    const char* category = "";      // static text
    const char* name = nullptr;     // static text, or null with nameText
    const char* nameText = nullptr; // copied (profiler slot names)
    int64_t start = 0;
    int64_t end = 0;
    uint64_t id = 0; // flows and async slices
    const Arg* args = nullptr;
    uint32_t argCount = 0;
    const TextArg* texts = nullptr;
    uint32_t textCount = 0;
};

// Writes one event into the calling thread's buffer (nothing when off).
void Record(const Event& event);

// A new flow or async identifier, unique within the recording.
uint64_t NewId();

// A point of a request's flow on the calling thread: a slice of no length
// named name with the flow event inside it (nothing when id is 0).
void FlowPoint(const char* name, Phase phase, uint64_t id);

// Names the calling thread in the recording; number (when not negative) is
// appended: "thread 3".
void NameThread(const char* name, int32_t number = -1);
// A thread the library started is ending: its buffer goes back for reuse.
void ThreadEnding();

// Frame loop: a period started (closes the open frame, opens the next and
// samples the counters), a message was dispatched on the frame thread.
void PeriodStarted(int64_t waitStart, uint32_t loopCount);
void MessageDispatched(uint32_t message, int64_t start);
// A wait for the period that a message cut short.
void PeriodWaitCut(int64_t waitStart);

// Start and stop with the library: Start reads QAX_TIMELINE; Stop writes the
// file and ends the recording.
void Start();
void Stop();

// A slice over a C++ scope: the start is read when it is made, the event is
// written when it goes out of scope, with the arguments set meanwhile.
class Scope {
public:
    Scope(const char* category, const char* name) : on_(On()) {
        if (on_) Begin(category, name);
    }
    ~Scope() {
        if (on_) End();
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

    bool Active() const { return on_; }
    void Set(const char* key, int64_t value) {
        if (on_ && argCount_ < kMaxArgs) args_[argCount_++] = Arg{key, value};
    }
    void SetText(const char* key, const char* text) {
        if (on_ && text && textCount_ < kMaxTexts) texts_[textCount_++] = TextArg{key, text};
    }
    // A flow event bound to this slice, at the current time.
    void Flow(Phase phase, uint64_t id);

private:
    static constexpr uint32_t kMaxArgs = 6;
    static constexpr uint32_t kMaxTexts = 2;
    void Begin(const char* category, const char* name);
    void End();

    bool on_;
    uint32_t argCount_ = 0;
    uint32_t textCount_ = 0;
    const char* category_ = nullptr;
    const char* name_ = nullptr;
    int64_t start_ = 0;
    Arg args_[kMaxArgs];
    TextArg texts_[kMaxTexts];
};

} // namespace zk::timeline

#endif // ZK_KERNEL_TIMELINE_H
