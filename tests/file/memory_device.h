// A "mem:" driver that fails, pieces, overclaims or holds a slot's calls, and logs them.
#ifndef ZK_TESTS_FILE_MEMORY_DEVICE_H
#define ZK_TESTS_FILE_MEMORY_DEVICE_H

#include "support/library_test.h"

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstring>
#include <map>
#include <set>
#include <thread>

namespace zktest {

// Driver slots keep their numbers; file-object slots follow from 26, listing slots from 33.
constexpr int kDumpDir = 12, kMakeDir = 13, kSetFileTime = 16, kFileOpen = 26, kFileClose = 27,
              kFileGetSize = 28, kFileRead = 29, kFileReadAt = 30, kFileWrite = 31, kFileSeek = 32,
              kDirOpen = 33, kDirClose = 34, kSlots = 35;

class MemoryDevice final : public zk::DeviceDriver {
public:
    struct Call {
        int slot;
        std::string text; // path or file name
        std::thread::id thread;
    };
    // What the device does; set before the calls it affects.
    struct Plan {
        uint32_t piece = 0xFFFFFFFFu; // most bytes one read delivers
        uint32_t tries = 1;
        int32_t missing = -51; // Open's answer for a missing file without create
        bool immediate = false, overclaim = false;
        // Per slot {from, to, code}: its calls from .. to - 1 (counted from 1) answer code.
        std::array<int64_t, 3> faults[kSlots] = {};
    } plan;

    void Reset() { // while the worker is idle
        plan = Plan{};
        state_ = State{};
    }
    // Calls of slot wait inside the driver until Release; WaitHeld(n) waits
    // until n of them are waiting.
    void Hold(int slot) {
        std::lock_guard<std::mutex> g(mutex_);
        state_.held = slot;
        gate_.notify_all();
    }
    void Release() { Hold(-1); }
    void WaitHeld(uint32_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        gate_.wait(lock, [&] { return state_.waiting >= n; });
    }
    // Files, made directories and the last mode are touched by one thread at
    // a time: the worker, or the caller while the worker is idle.
    void Put(const std::string& name, const std::string& data) { state_.data[name] = data; }
    uint32_t LastMode() const { return state_.lastMode; }
    uint32_t Count(int slot) { return static_cast<uint32_t>(Log({slot}).size()); }
    // File and listing objects handed out and not given back yet.
    uint32_t ObjectsOut() {
        std::lock_guard<std::mutex> g(mutex_);
        auto out = [](const auto& o) { return o.device != nullptr; };
        return uint32_t(std::count_if(std::begin(files_), std::end(files_), out) +
                        std::count_if(std::begin(dirs_), std::end(dirs_), out));
    }
    // The calls of the given slots, in the order they were made.
    std::vector<Call> Log(std::initializer_list<int> slots) {
        std::lock_guard<std::mutex> g(mutex_);
        std::vector<Call> out;
        for (const Call& c : state_.log)
            if (std::find(slots.begin(), slots.end(), c.slot) != slots.end()) out.push_back(c);
        return out;
    }

    int32_t MatchName(const char* name) override { return std::strncmp(name, "mem:", 4) ? -6 : 0; }
    int32_t InitializeDevice() override { return 0; }
    void TerminateDevice() override {}
    int32_t Reserved3() override { return 0; }
    int32_t ConvertPath(char*, uint32_t) override { return 0; }
    uint32_t GetTryCount(int32_t) override { return plan.tries; }
    int32_t SetTryCount(int32_t, uint32_t count) override { return plan.tries = count, 7; }
    zk::FileObject* CreateFileObject() override {
        std::lock_guard<std::mutex> g(mutex_); // callers' threads
        for (File& f : files_)
            if (!f.device) return f.device = this, f.position = 0, &f;
        return nullptr;
    }
    int32_t Reserved8(uint32_t* out) override { return *out = 0, 0; }
    int32_t Mount(char*, uint32_t, uint32_t) override { return 0; }
    int32_t Unmount(char*) override { return 0; }
    int32_t Format(char*) override { return 0; }
    int32_t DumpDir(char* path, uint32_t) override { return Enter(kDumpDir, path); }
    int32_t MakeDir(char* path, uint32_t, uint32_t mode) override {
        Enter(kMakeDir, path), state_.lastMode = mode;
        return ParentExists(path) ? (state_.dirs.insert(path), 0) : -51;
    }
    int32_t RemoveDir(char*, uint32_t) override { return 0; }
    int32_t GetFileTime(char*, FileTimeRecord* a, FileTimeRecord* b, FileTimeRecord* c) override {
        return *a = *b = *c = state_.time, 0;
    }
    int32_t SetFileTime(char* path, const FileTimeRecord* a, const FileTimeRecord*,
                        const FileTimeRecord*) override {
        return state_.time = *a, Enter(kSetFileTime, path);
    }
    int32_t DeleteFile(char* path, uint32_t) override { return state_.data.erase(path) ? 0 : -51; }
    zk::DirObject* OpenDir() override {
        for (Dir& d : dirs_)
            if (!d.device) return d.device = this, &d;
        return nullptr;
    }
    int32_t QueryDeviceInfo(char*, uint32_t what, uint32_t, uint32_t) override {
        return what == 1 ? -6 : 5;
    }
    int32_t ControlDevice(const char*, uint32_t, uint32_t, uint32_t) override { return 0; }
    int32_t GetPartitionStatus(const char*) override { return 0; }
    int32_t CreatePartition(const char*, uint32_t, uint32_t) override { return 0; }
    int32_t DeletePartition(const char*) override { return 0; }
    int32_t GetUnit(const char*) override { return 0; }

private:
    // A file object is free while its device is null.
    struct File final : zk::FileObject {
        MemoryDevice* device = nullptr;
        std::string name;
        uint32_t position = 0;
        int32_t IsImmediate(int32_t) override { return device->plan.immediate ? 1 : 0; }
        int32_t Open(const char* path, uint32_t flags, uint32_t) override {
            const int32_t r = device->Enter(kFileOpen, path);
            if (r < 0 || device->state_.data.count(path)) return r < 0 ? r : (name = path, 0);
            if (!(flags & ZK_OPEN_CREATE)) return device->plan.missing;
            if (!device->ParentExists(path)) return -51;
            device->state_.data[name = path] = "";
            return 0;
        }
        int32_t Close() override {
            device->Enter(kFileClose, name);
            std::lock_guard<std::mutex> g(device->mutex_);
            return device = nullptr, 0;
        }
        int32_t GetSize(uint32_t* size) override {
            *size = static_cast<uint32_t>(Data().size());
            return device->Enter(kFileGetSize, name);
        }
        int32_t Read(void* buffer, uint32_t size, uint32_t* got, uint32_t) override {
            const int32_t r = device->Enter(kFileRead, name);
            return r < 0 ? r : Transfer(position, buffer, size, got);
        }
        int32_t ReadAt(uint32_t at, void* buffer, uint32_t size, uint32_t* got, uint32_t) override {
            const int32_t r = device->Enter(kFileReadAt, name);
            return r < 0 ? r : Transfer(at, buffer, size, got);
        }
        int32_t Write(const void* buffer, uint32_t size, uint32_t* written) override {
            if (const int32_t r = device->Enter(kFileWrite, name); r < 0) return *written = 0, r;
            std::string& d = Data();
            d.resize(std::max<size_t>(d.size(), position + size));
            d.replace(position, size, static_cast<const char*>(buffer), size);
            return position += *written = size, 0;
        }
        int32_t Seek(int32_t offset, uint32_t origin, uint32_t* newPosition) override {
            const size_t base = origin == 0 ? 0 : origin == 1 ? position : Data().size();
            *newPosition = position = static_cast<uint32_t>(base + offset);
            return device->Enter(kFileSeek, name);
        }
        std::string& Data() { return device->state_.data[name]; }
        int32_t Transfer(uint32_t from, void* buffer, uint32_t size, uint32_t* got) {
            const std::string& d = Data();
            const uint32_t n = std::min(
                {from < d.size() ? uint32_t(d.size()) - from : 0u, size, device->plan.piece});
            std::memcpy(buffer, d.data() + from, n);
            position = from + n;
            *got = device->plan.overclaim ? size + 100 : n;
            return 0;
        }
    };

    // Lists the names below the path; Read copies the next into a 64-byte
    // entry and answers 1, then 0 at the end.
    struct Dir final : zk::DirObject {
        MemoryDevice* device = nullptr;
        std::vector<std::string> names;
        int32_t Open(const char* path) override {
            names.clear();
            for (auto& f : device->state_.data)
                if (f.first.rfind(path, 0) == 0) names.push_back(f.first.substr(std::strlen(path)));
            return device->Enter(kDirOpen, path);
        }
        void Close() override { device->Enter(kDirClose, ""), device = nullptr; }
        int32_t Read(void* entry) override {
            if (names.empty()) return 0;
            std::strncpy(static_cast<char*>(entry), names.front().c_str(), 63);
            names.erase(names.begin());
            return 1;
        }
    };

    // The device root and made directories exist.
    bool ParentExists(const std::string& path) const {
        const size_t slash = path.find_last_of('/');
        return slash == std::string::npos || path.substr(0, slash) == "mem:" ||
               state_.dirs.count(path.substr(0, slash)) != 0;
    }
    // Logs and counts the call, waits while the slot is held, applies its fault.
    int32_t Enter(int slot, const std::string& text) {
        std::unique_lock<std::mutex> lock(mutex_);
        state_.log.push_back({slot, text, std::this_thread::get_id()});
        const uint32_t n = ++state_.calls[slot];
        if (state_.held == slot) {
            ++state_.waiting;
            gate_.notify_all();
            gate_.wait(lock, [&] { return state_.held != slot; });
            --state_.waiting;
        }
        const auto& f = plan.faults[slot];
        return n >= f[0] && n < f[1] ? int32_t(f[2]) : 0;
    }

    struct State {
        int held = -1;
        uint32_t waiting = 0, lastMode = 0, calls[kSlots] = {};
        std::vector<Call> log;
        std::map<std::string, std::string> data;
        std::set<std::string> dirs;
        FileTimeRecord time{};
    } state_;
    std::mutex mutex_;
    std::condition_variable gate_;
    File files_[40];
    Dir dirs_[65];
};

// The library started, the device (registered once: drivers stay) emptied and mounted at /m.
class MemoryDeviceTest : public LibraryTest {
protected:
    static MemoryDevice& Device() {
        static MemoryDevice device;
        static const int32_t registered = zkRegisterDevice(&device);
        return (void)registered, device;
    }
    void SetUp() override {
        LibraryTest::SetUp();
        Device().Reset();
        ASSERT_EQ(zkMount("/m", "mem:", 0), 0);
    }
    // Creates mem:/name with data and opens it for reading and writing.
    FileHandle* Make(const std::string& name, const std::string& data) {
        Device().Put("mem:/" + name, data);
        return zkOpenFile(("/m/" + name).c_str(), ZK_OPEN_READ | ZK_OPEN_WRITE, 0);
    }
    // The file's bytes as reads at the position deliver them.
    static std::string ReadAll(const char* path) {
        FileHandle* f = zkOpenFile(path, ZK_OPEN_READ, 0);
        if (!f) return "<not opened>";
        std::string out;
        char buffer[4096];
        uint32_t got = 0;
        while (zkReadFile(f, buffer, sizeof buffer, &got) == 0 && got)
            out.append(buffer, got);
        zkCloseFile(f);
        return out;
    }
};

} // namespace zktest

#endif // ZK_TESTS_FILE_MEMORY_DEVICE_H
