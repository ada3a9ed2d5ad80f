// A memory-backed device for the file-system tests, registered with
// zkRegisterDevice like an application's driver. It claims names that begin
// with its prefix ("mem:"), keeps files and directories in memory, and can be
// told to fail the k-th call of any slot, deliver reads in small pieces,
// answer -57 for a missing file, claim more bytes than it was asked for, or
// hold a slot's calls until released. It records every call in order.
#ifndef ZK_TESTS_FILE_MEMORY_DEVICE_H
#define ZK_TESTS_FILE_MEMORY_DEVICE_H

#include "support/library_test.h"

#include <zk.h>

#include <algorithm>
#include <iterator>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace zktest {

// Every slot of the three interfaces, numbered for fault plans and call logs.
enum Slot : int {
    kMatchName, kInitializeDevice, kTerminateDevice, kReserved3, kConvertPath, kGetTryCount,
    kSetTryCount, kCreateFileObject, kReserved8, kMount, kUnmount, kFormat, kDumpDir, kMakeDir,
    kRemoveDir, kGetFileTime, kSetFileTime, kDeleteFile, kOpenDir, kQueryDeviceInfo,
    kControlDevice, kGetPartitionStatus, kCreatePartition, kDeletePartition, kGetUnit,
    kFileIsImmediate, kFileOpen, kFileClose, kFileGetSize, kFileRead, kFileReadAt, kFileWrite,
    kFileSeek, kDirOpen, kDirClose, kDirRead, kSlotCount
};

class MemoryDevice final : public zk::DeviceDriver {
public:
    struct Call {
        int slot;
        std::string text; // path or file name
        std::thread::id thread;
    };

    explicit MemoryDevice(const char* prefix = "mem:") : prefix_(prefix) {
        for (int i = 0; i < kFiles; ++i) files_[i].device = this;
        for (Dir& d : dirs_) d.device = this;
    }

    // Back to an empty device with no faults, one try and whole reads.
    void Reset() {
        std::lock_guard<std::mutex> g(mutex_);
        std::fill(std::begin(calls_), std::end(calls_), 0u);
        log_.clear();
        faults_.clear();
        data_.clear();
        dirs_set_.clear();
        times_.clear();
        held_ = -1;
        piece_ = 0xFFFFFFFFu;
        tries_ = 1;
        missingCode_ = -51;
        immediate_ = overclaim_ = noDirObject_ = false;
    }

    // ---- configuration (call before the calls it affects) ----
    // Calls number first .. first + count - 1 (from 1, per slot) answer code.
    void Fail(int slot, uint32_t first, uint32_t count, int32_t code) {
        Locked([&] { faults_.push_back({slot, first, count, code}); });
    }
    void SetPiece(uint32_t bytes) { piece_ = bytes; }
    void SetTries(uint32_t tries) { tries_ = tries; }
    void SetMissingCode(int32_t code) { missingCode_ = code; }
    void SetImmediate(bool yes) { immediate_ = yes; }
    void SetOverclaim(bool yes) { overclaim_ = yes; }
    void SetNoDirObject(bool yes) { noDirObject_ = yes; }
    // Calls of slot wait inside the driver until Release().
    void Hold(int slot) { Locked([&] { held_ = slot; }); }
    void Release() {
        Locked([&] { held_ = -1; });
        gate_.notify_all();
    }
    // Waits until n calls of slot are waiting in Hold.
    void WaitHeld(uint32_t n) {
        std::unique_lock<std::mutex> lock(mutex_);
        gate_.wait(lock, [&] { return waiting_ >= n; });
    }

    void Put(const std::string& name, const std::string& data) {
        Locked([&] { data_[name] = data; });
    }
    std::string Get(const std::string& name) {
        std::lock_guard<std::mutex> g(mutex_);
        return data_.count(name) ? data_[name] : "<missing>";
    }
    void AddDir(const std::string& name) { Locked([&] { dirs_set_.insert(name); }); }
    uint32_t Count(int slot) {
        std::lock_guard<std::mutex> g(mutex_);
        return calls_[slot];
    }
    // The calls of the given slots, in the order they were made.
    std::vector<Call> Log(std::initializer_list<int> slots) {
        std::lock_guard<std::mutex> g(mutex_);
        std::vector<Call> out;
        for (const Call& c : log_)
            if (std::find(slots.begin(), slots.end(), c.slot) != slots.end()) out.push_back(c);
        return out;
    }
    uint32_t lastMode = 0;

    // ---- DeviceDriver ----
    int32_t MatchName(const char* name) override {
        return std::strncmp(name, prefix_, std::strlen(prefix_)) == 0 ? 0 : -6;
    }
    int32_t InitializeDevice() override { return Enter(kInitializeDevice, ""); }
    void TerminateDevice() override {}
    int32_t Reserved3() override { return 0; }
    int32_t ConvertPath(char*, uint32_t) override { return Enter(kConvertPath, ""); }
    uint32_t GetTryCount(int32_t) override { return tries_; }
    int32_t SetTryCount(int32_t, uint32_t count) override {
        tries_ = count;
        return 7;
    }
    zk::FileObject* CreateFileObject() override {
        std::lock_guard<std::mutex> g(mutex_);
        for (File& f : files_)
            if (!f.inUse) return f.inUse = true, f.position = 0, &f;
        return nullptr;
    }
    int32_t Reserved8(uint32_t* out) override { return *out = 0, 0; }
    int32_t Mount(char* path, uint32_t, uint32_t) override { return Enter(kMount, path); }
    int32_t Unmount(char* path) override { return Enter(kUnmount, path); }
    int32_t Format(char* path) override { return Enter(kFormat, path); }
    int32_t DumpDir(char* path, uint32_t) override { return Enter(kDumpDir, path); }
    int32_t MakeDir(char* path, uint32_t, uint32_t mode) override {
        int32_t r = Enter(kMakeDir, path);
        if (r < 0) return r;
        std::lock_guard<std::mutex> g(mutex_);
        lastMode = mode;
        if (!ParentExists(path)) return -51;
        dirs_set_.insert(path);
        return 0;
    }
    int32_t RemoveDir(char* path, uint32_t) override { return Enter(kRemoveDir, path); }
    int32_t GetFileTime(char* path, FileTimeRecord* a, FileTimeRecord* b,
                        FileTimeRecord* c) override {
        int32_t r = Enter(kGetFileTime, path);
        std::lock_guard<std::mutex> g(mutex_);
        *a = *b = *c = times_[path];
        return r;
    }
    int32_t SetFileTime(char* path, const FileTimeRecord* a, const FileTimeRecord*,
                        const FileTimeRecord*) override {
        int32_t r = Enter(kSetFileTime, path);
        std::lock_guard<std::mutex> g(mutex_);
        if (a) times_[path] = *a;
        return r;
    }
    int32_t DeleteFile(char* path, uint32_t) override {
        int32_t r = Enter(kDeleteFile, path);
        std::lock_guard<std::mutex> g(mutex_);
        return r < 0 ? r : data_.erase(path) ? 0 : -51;
    }
    zk::DirObject* OpenDir() override {
        Enter(kOpenDir, "");
        if (noDirObject_) return nullptr;
        std::lock_guard<std::mutex> g(mutex_);
        for (Dir& d : dirs_)
            if (!d.inUse) return d.inUse = true, &d;
        return nullptr;
    }
    int32_t QueryDeviceInfo(char* path, uint32_t what, uint32_t, uint32_t) override {
        return Enter(kQueryDeviceInfo, path) < 0 ? -1 : what == 1 ? -6 : 5;
    }
    int32_t ControlDevice(const char* n, uint32_t, uint32_t, uint32_t) override {
        return Enter(kControlDevice, n);
    }
    int32_t GetPartitionStatus(const char* n) override { return Enter(kGetPartitionStatus, n); }
    int32_t CreatePartition(const char* n, uint32_t, uint32_t) override {
        return Enter(kCreatePartition, n);
    }
    int32_t DeletePartition(const char* n) override { return Enter(kDeletePartition, n); }
    int32_t GetUnit(const char*) override { return 0; }

private:
    static constexpr int kFiles = 40;

    struct File final : zk::FileObject {
        MemoryDevice* device = nullptr;
        bool inUse = false;
        std::string name;
        uint32_t position = 0;
        int32_t IsImmediate(int32_t) override {
            device->Enter(kFileIsImmediate, name);
            return device->immediate_ ? 1 : 0;
        }
        int32_t Open(const char* path, uint32_t flags, uint32_t) override {
            int32_t r = device->Enter(kFileOpen, path);
            if (r < 0) return r;
            std::lock_guard<std::mutex> g(device->mutex_);
            std::string p = path;
            if (!device->data_.count(p)) {
                if (!(flags & ZK_OPEN_CREATE)) return device->missingCode_;
                if (!device->ParentExists(p)) return -51;
                device->data_[p] = "";
            }
            name = p;
            return 0;
        }
        int32_t Close() override {
            int32_t r = device->Enter(kFileClose, name);
            if (r >= 0) {
                std::lock_guard<std::mutex> g(device->mutex_);
                inUse = false;
            }
            return r;
        }
        int32_t GetSize(uint32_t* size) override {
            int32_t r = device->Enter(kFileGetSize, name);
            std::lock_guard<std::mutex> g(device->mutex_);
            *size = static_cast<uint32_t>(device->data_[name].size());
            return r;
        }
        int32_t Read(void* buffer, uint32_t size, uint32_t* got, uint32_t) override {
            int32_t r = device->Enter(kFileRead, name);
            return r < 0 ? r : Transfer(position, buffer, size, got);
        }
        int32_t ReadAt(uint32_t offset, void* buffer, uint32_t size, uint32_t* got,
                       uint32_t) override {
            int32_t r = device->Enter(kFileReadAt, name);
            return r < 0 ? r : Transfer(offset, buffer, size, got);
        }
        int32_t Write(const void* buffer, uint32_t size, uint32_t* written) override {
            int32_t r = device->Enter(kFileWrite, name);
            if (r < 0) return r;
            std::lock_guard<std::mutex> g(device->mutex_);
            std::string& d = device->data_[name];
            d.resize(std::max<size_t>(d.size(), position + size));
            d.replace(position, size, static_cast<const char*>(buffer), size);
            position += size;
            *written = size;
            return 0;
        }
        int32_t Seek(int32_t offset, uint32_t origin, uint32_t* newPosition) override {
            int32_t r = device->Enter(kFileSeek, name);
            if (r < 0) return r;
            std::lock_guard<std::mutex> g(device->mutex_);
            int64_t base = origin == 0 ? 0 : origin == 1 ? position : device->data_[name].size();
            *newPosition = position = static_cast<uint32_t>(base + offset);
            return 0;
        }
        int32_t Transfer(uint32_t from, void* buffer, uint32_t size, uint32_t* got) {
            std::lock_guard<std::mutex> g(device->mutex_);
            const std::string& d = device->data_[name];
            uint32_t n = from < d.size() ? static_cast<uint32_t>(d.size()) - from : 0;
            n = std::min({n, size, device->piece_});
            std::memcpy(buffer, d.data() + from, n);
            position = from + n;
            *got = device->overclaim_ ? size + 100 : n;
            return 0;
        }
    };

    struct Dir final : zk::DirObject {
        MemoryDevice* device = nullptr;
        bool inUse = false;
        std::vector<std::string> names;
        int32_t Open(const char* path) override {
            int32_t r = device->Enter(kDirOpen, path);
            std::lock_guard<std::mutex> g(device->mutex_);
            names.clear();
            for (auto& f : device->data_)
                if (f.first.rfind(path, 0) == 0) names.push_back(f.first.substr(strlen(path)));
            return r;
        }
        void Close() override {
            device->Enter(kDirClose, "");
            std::lock_guard<std::mutex> g(device->mutex_);
            inUse = false;
        }
        // Copies the next name into a 64-byte entry; 1 while entries remain, 0 at the end.
        int32_t Read(void* entry) override {
            device->Enter(kDirRead, "");
            if (names.empty()) return 0;
            std::strncpy(static_cast<char*>(entry), names.front().c_str(), 63);
            names.erase(names.begin());
            return 1;
        }
    };

    template <typename F>
    void Locked(F f) {
        std::lock_guard<std::mutex> g(mutex_);
        f();
    }
    // Called with the mutex held: the device root and made directories exist.
    bool ParentExists(const std::string& path) const {
        const size_t slash = path.find_last_of('/');
        if (slash == std::string::npos) return true;
        const std::string parent = path.substr(0, slash);
        return parent == prefix_ || dirs_set_.count(parent) != 0;
    }

    // Counts and logs the call, waits while the slot is held, applies faults.
    int32_t Enter(int slot, const std::string& text) {
        std::unique_lock<std::mutex> lock(mutex_);
        const uint32_t n = ++calls_[slot];
        log_.push_back({slot, text, std::this_thread::get_id()});
        if (held_ == slot) {
            ++waiting_;
            gate_.notify_all();
            gate_.wait(lock, [&] { return held_ != slot; });
            --waiting_;
        }
        for (const Fault& f : faults_)
            if (f.slot == slot && n >= f.first && n - f.first < f.count) return f.code;
        return 0;
    }

    struct Fault {
        int slot;
        uint32_t first, count;
        int32_t code;
    };

    const char* prefix_;
    std::mutex mutex_;
    std::condition_variable gate_;
    int held_ = -1;
    uint32_t waiting_ = 0;
    uint32_t calls_[kSlotCount]{};
    std::vector<Call> log_;
    std::vector<Fault> faults_;
    std::map<std::string, std::string> data_;
    std::set<std::string> dirs_set_;
    std::map<std::string, FileTimeRecord> times_;
    uint32_t piece_ = 0xFFFFFFFFu;
    uint32_t tries_ = 1;
    int32_t missingCode_ = -51;
    bool immediate_ = false;
    bool overclaim_ = false;
    bool noDirObject_ = false;
    File files_[kFiles];
    Dir dirs_[65];
};

// The library started, the memory device (registered once per process, as
// drivers stay registered) emptied and mounted at /m.
class MemoryDeviceTest : public LibraryTest {
protected:
    static MemoryDevice& Device() {
        static MemoryDevice* device = [] {
            static MemoryDevice d;
            zkRegisterDevice(&d);
            return &d;
        }();
        return *device;
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
};

} // namespace zktest

#endif // ZK_TESTS_FILE_MEMORY_DEVICE_H
