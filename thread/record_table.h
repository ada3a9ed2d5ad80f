// A fixed table of records with a free list threaded through the records.
//
// Every table of the library (threads, semaphores, pools, windows, archive
// handles ...) is one of these: records live in static storage, are never
// allocated or destroyed, and are taken and given back under the library lock.
// A record type provides a `Record* link` member; the link is null while the
// record is in use.
#ifndef ZK_THREAD_RECORD_TABLE_H
#define ZK_THREAD_RECORD_TABLE_H

#include "thread/sync.h"

#include <cstddef>
#include <cstdint>

namespace zk {

template <typename Record, std::size_t Count> class RecordTable {
public:
    static constexpr std::size_t kCount = Count;

    // Links every record into the free list in index order. Called once,
    // before the first Take.
    void Build() {
        for (std::size_t i = 0; i < Count; ++i) {
            records_[i].link = (i + 1 < Count) ? &records_[i + 1] : nullptr;
            inUse_[i] = false;
        }
        free_ = &records_[0];
        used_ = 0;
        built_ = true;
    }

    // Takes the first free record under the library lock; null when all are in use.
    Record* Take() {
        ScopedLock guard(LibraryLock());
        if (!built_) Build();
        Record* r = free_;
        if (!r) return nullptr;
        free_ = r->link;
        r->link = nullptr;
        inUse_[IndexOf(r)] = true;
        ++used_;
        return r;
    }

    // Gives a record back to the front of the free list. A record that is not
    // one of this table's, or that is not in use, is left alone.
    bool Give(Record* r) {
        ScopedLock guard(LibraryLock());
        if (!Owns(r) || r->link != nullptr || !inUse_[IndexOf(r)]) return false;
        inUse_[IndexOf(r)] = false;
        r->link = free_;
        free_ = r;
        --used_;
        return true;
    }

    bool Owns(const Record* r) const { return r >= &records_[0] && r < &records_[0] + Count; }
    bool InUse(const Record* r) const { return Owns(r) && inUse_[IndexOf(r)]; }
    std::size_t IndexOf(const Record* r) const {
        return static_cast<std::size_t>(r - &records_[0]);
    }
    Record& operator[](std::size_t i) { return records_[i]; }
    uint32_t UsedCount() const { return used_; }

private:
    Record records_[Count]{};
    bool inUse_[Count]{};
    Record* free_ = nullptr;
    uint32_t used_ = 0;
    bool built_ = false;
};

} // namespace zk

#endif // ZK_THREAD_RECORD_TABLE_H
