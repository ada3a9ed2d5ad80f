// zkMalloc / zkFree against the C runtime's malloc / free (and mimalloc when
// the build found it), in the same run, on the same pre-generated sequence.
//
// Each workload fills a table of live blocks, then replaces a random live
// block at every step: free it, allocate a new one of a random size. Every
// allocator runs the same loop over the same victims and sizes; the clock is
// read once per batch of 10 000 pairs and the median batch is reported as ns
// per free + allocate pair. The clock is the process's processor time
// (std::clock; on Linux it does not run while the process waits for a core),
// so that other programs on a shared machine disturb the figures less.
//
//   small-1k    8 B .. 512 B, 1 000 blocks alive
//   small-100k  8 B .. 512 B, 100 000 blocks alive
//   mixed-10k   16 B .. 8 KiB, 10 000 blocks alive
//   small-1k in the library's lowest-address and highest-address modes
//
// Ratios: library / glibc (and / mimalloc) per workload; lowest and highest
// address mode / best fit.
//
// `bench_memory only WORKLOAD PAIRS [MODE]` runs the library alone on one
// workload with PAIRS pairs (MODE 1: lowest address, 2: highest), for
// instruction and cache-miss counts under valgrind: the difference between
// two runs with different PAIRS, divided by the difference in PAIRS, is the
// cost of one pair without the filling and the start.
//
// With ZK_BENCH_SMALL_PAGES=1 in the environment (Linux) the process runs
// with transparent large pages turned off, to measure what the library's
// request for them brings.
#include <zk.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#if defined(__linux__)
#include <sys/prctl.h>
#endif

#ifdef ZK_BENCH_MIMALLOC
#include <mimalloc.h>
#if defined(__GLIBC__)
#include <dlfcn.h>
#endif
#endif

namespace {

constexpr uint32_t kBatch = 10000;

struct Workload {
    const char* name;
    uint32_t smallest, largest, live, pairs;
    std::vector<uint32_t> initial, victims, sizes; // the sequence every allocator runs
};

Workload Make(const char* name, uint32_t smallest, uint32_t largest, uint32_t live,
              uint32_t pairs) {
    Workload w{name, smallest, largest, live, pairs, {}, {}, {}};
    std::mt19937 rng(live * 31 + largest);
    std::uniform_int_distribution<uint32_t> size(smallest, largest), victim(0, live - 1);
    for (uint32_t i = 0; i < live; ++i)
        w.initial.push_back(size(rng));
    for (uint32_t i = 0; i < pairs; ++i)
        w.victims.push_back(victim(rng)), w.sizes.push_back(size(rng));
    return w;
}

// With mimalloc linked in, its malloc and free take the place of the C
// runtime's for the whole process, and it defines glibc's internal entry
// points (__libc_malloc, __libc_free) as well. The C runtime column therefore
// looks malloc and free up in the C library's own symbol table, so that it
// measures what its name says; the start of the run prints where they came
// from.
#if defined(ZK_BENCH_MIMALLOC) && defined(__GLIBC__)
using MallocFunction = void* (*)(size_t);
using FreeFunction = void (*)(void*);
MallocFunction gRuntimeMalloc = nullptr;
FreeFunction gRuntimeFree = nullptr;

bool FindRuntimeAllocator() {
    void* runtime = dlopen("libc.so.6", RTLD_NOW | RTLD_NOLOAD);
    if (!runtime) return false;
    gRuntimeMalloc = reinterpret_cast<MallocFunction>(dlsym(runtime, "malloc"));
    gRuntimeFree = reinterpret_cast<FreeFunction>(dlsym(runtime, "free"));
    Dl_info where{};
    if (!gRuntimeMalloc || !gRuntimeFree ||
        !dladdr(reinterpret_cast<void*>(gRuntimeMalloc), &where))
        return false;
    std::printf("C runtime column: malloc and free from %s\n", where.dli_fname);
    return true;
}
void* CAllocate(size_t size) {
    return gRuntimeMalloc(size);
}
void CRelease(void* p) {
    gRuntimeFree(p);
}
#else
bool FindRuntimeAllocator() {
    return true;
}
void* CAllocate(size_t size) {
    return std::malloc(size);
}
void CRelease(void* p) {
    std::free(p);
}
#endif
void* ZkAllocate(size_t size) {
    return zkMalloc(static_cast<uint32_t>(size));
}
void ZkRelease(void* p) {
    zkFree(p);
}
#ifdef ZK_BENCH_MIMALLOC
void* MiAllocate(size_t size) {
    return mi_malloc(size);
}
void MiRelease(void* p) {
    mi_free(p);
}
#endif

// Median ns per pair over the batches; negative when an allocation failed.
template <void* (*Allocate)(size_t), void (*Release)(void*)> double Run(const Workload& w) {
    std::vector<void*> slots(w.live);
    for (uint32_t i = 0; i < w.live; ++i)
        slots[i] = Allocate(w.initial[i]);
    std::vector<double> batches;
    bool failed = false;
    for (uint32_t start = 0; start + kBatch <= w.pairs; start += kBatch) {
        const std::clock_t begin = std::clock();
        for (uint32_t i = start; i < start + kBatch; ++i) {
            void*& slot = slots[w.victims[i]];
            Release(slot);
            slot = Allocate(w.sizes[i]);
            failed |= slot == nullptr;
        }
        const double spent = static_cast<double>(std::clock() - begin) * 1e9 / CLOCKS_PER_SEC;
        batches.push_back(spent / kBatch);
    }
    for (void* p : slots)
        Release(p);
    std::nth_element(batches.begin(), batches.begin() + batches.size() / 2, batches.end());
    return failed ? -1 : batches[batches.size() / 2];
}

// Turns transparent large pages off for the process when asked; says which
// pages the run uses.
void ChoosePages() {
    const char* small = std::getenv("ZK_BENCH_SMALL_PAGES");
#if defined(__linux__) && defined(PR_SET_THP_DISABLE)
    if (small && *small == '1' && prctl(PR_SET_THP_DISABLE, 1, 0, 0, 0) == 0) {
        std::printf("pages: small (large pages turned off for this run)\n");
        return;
    }
#endif
    (void)small;
    std::printf("pages: large where the system offers them\n");
}

} // namespace

int main(int argc, char** argv) {
    ChoosePages();
    // Room for 100 000 blocks of up to 512 B and 10 000 of up to 8 KiB, each
    // rounded to 64, with descriptors to spare.
    if (!FindRuntimeAllocator()) {
        std::fprintf(stderr, "bench_memory: the C runtime's malloc was not found\n");
        return 1;
    }
    if (zkBeginProcess(0) < 0 || zkInitializeEx(256u << 20, 120000) < 0) {
        std::fprintf(stderr, "bench_memory: the library did not start\n");
        return 1;
    }
    struct Shape {
        const char* name;
        uint32_t smallest, largest, live, pairs;
    };
    const Shape shapes[] = {{"small-1k", 8, 512, 1000, 2000000},
                          {"small-100k", 8, 512, 100000, 1000000},
                          {"mixed-10k", 16, 8192, 10000, 1000000}};
    if (argc >= 4 && std::string(argv[1]) == "only") {
        for (const Shape& s : shapes) {
            if (s.name != std::string(argv[2])) continue;
            const uint32_t pairs = static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 10));
            const Workload one = Make(s.name, s.smallest, s.largest, s.live, pairs);
            zkSetAllocMode(argc >= 5 ? static_cast<uint32_t>(std::atoi(argv[4])) : 0);
            const double ns = Run<ZkAllocate, ZkRelease>(one);
            std::printf("%s %u pairs: %.1f ns/pair\n", s.name, pairs, ns);
            zkTerminate();
            zkEndProcess();
            return ns < 0 ? 1 : 0;
        }
        std::fprintf(stderr, "bench_memory: no workload %s\n", argv[2]);
        return 2;
    }
    Workload workloads[] = {
        Make(shapes[0].name, shapes[0].smallest, shapes[0].largest, shapes[0].live, shapes[0].pairs),
        Make(shapes[1].name, shapes[1].smallest, shapes[1].largest, shapes[1].live, shapes[1].pairs),
        Make(shapes[2].name, shapes[2].smallest, shapes[2].largest, shapes[2].live, shapes[2].pairs)};
    std::printf("%-12s %10s %10s", "ns/pair", "zk", "glibc");
#ifdef ZK_BENCH_MIMALLOC
    std::printf(" %10s %10s", "mimalloc", "zk/mi");
#endif
    std::printf(" %10s\n", "zk/glibc");
    bool failed = false;
    for (const Workload& w : workloads) {
        const double glibc = Run<CAllocate, CRelease>(w);
        const double zk = Run<ZkAllocate, ZkRelease>(w);
        failed |= zk < 0 || glibc < 0;
        std::printf("%-12s %10.1f %10.1f", w.name, zk, glibc);
#ifdef ZK_BENCH_MIMALLOC
        const double mi = Run<MiAllocate, MiRelease>(w);
        std::printf(" %10.1f %10.2f", mi, zk / mi);
#endif
        std::printf(" %10.2f\n", zk / glibc);
    }
    const double best = Run<ZkAllocate, ZkRelease>(workloads[0]);
    for (uint32_t mode : {1u, 2u}) {
        zkSetAllocMode(mode);
        const double moded = Run<ZkAllocate, ZkRelease>(workloads[0]);
        zkSetAllocMode(0);
        failed |= moded < 0;
        std::printf("small-1k %-7s %7.1f ns/pair, %.2f x best fit (%.1f)\n",
                    mode == 1 ? "lowest" : "highest", moded, moded / best, best);
    }
    zkTerminate();
    zkEndProcess();
    if (failed) std::fprintf(stderr, "bench_memory: an allocation failed\n");
    return failed ? 1 : 0;
}
