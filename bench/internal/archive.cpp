// Archives against their baselines, in the same run:
//
//   expand text / binary: the bounded slide expansion against independent
//       decoders on real files (archive_expansion.h); `bench_archive expand`
//       measures only this
//   items: reading every item of an archive of 10 000 items of 64 B-4 KiB,
//       by name through the archive calls (zkLoadKivItem, and an item stream
//       into one buffer) and through a mounted path (zkOpenFile / zkReadFile
//       / zkCloseFile), against open + read + close of the same files loose
//       on disk, through the library and through stdio. Warm: after a pass
//       that reads everything. Cold: every file's pages dropped first with
//       posix_fadvise(DONTNEED) where the system has it (the page cache as a
//       whole cannot be dropped without privileges).
//
// Figures are the best of several rounds; ratios are baseline time over
// archive time (how many times faster the archive is).
#include "archive_expansion.h"
#include "kiv_pack.h"
#include "kiv_check.h"

#include <zk.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#if !defined(_WIN32)
#include <fcntl.h>
#endif

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
constexpr int kRounds = 5;
constexpr int kItems = 10000;

bool WriteFile(const fs::path& path, const std::vector<uint8_t>& data) {
    std::FILE* f = std::fopen(path.string().c_str(), "wb");
    if (!f) return false;
    const bool ok = std::fwrite(data.data(), 1, data.size(), f) == data.size();
    return std::fclose(f) == 0 && ok;
}

// Drops a file's cached pages; false where the system cannot.
bool DropCache(const std::string& path) {
#if defined(_WIN32)
    (void)path;
    return false;
#else
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    const bool ok = posix_fadvise(fileno(f), 0, 0, POSIX_FADV_DONTNEED) == 0;
    std::fclose(f);
    return ok;
#endif
}

} // namespace

int main(int argc, char** argv) {
    const bool expanded = expansion::Run();
    if (argc > 1 && std::strcmp(argv[1], "expand") == 0) return expanded ? 0 : 1;

    if (zkBeginProcess(0) != 0 || zkInitializeEx(64u << 20, 4096) < 0) {
        std::fprintf(stderr, "the library did not start\n");
        return 1;
    }
    char root[261];
    if (zkGetPhysicalPath("/", root, sizeof root) < 0) return 1;
    const fs::path folder = fs::path(root) / "bench_archive_data";
    fs::remove_all(folder);
    fs::create_directories(folder / "loose");

    std::mt19937 random(3);
    std::vector<kivtool::PackItem> items(kItems);
    std::vector<std::string> names(kItems), hostPaths(kItems), zkPaths(kItems), mountPaths(kItems);
    bool ok = true;
    for (int i = 0; i < kItems; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "item%05d.bin", i);
        names[i] = name;
        items[i].name = name;
        items[i].data.resize(64 + random() % (4096 - 64 + 1));
        for (uint8_t& b : items[i].data)
            b = uint8_t(random());
        hostPaths[i] = (folder / "loose" / name).string();
        zkPaths[i] = std::string("/bench_archive/loose/") + name;
        mountPaths[i] = std::string("/arc/") + name;
        ok = ok && WriteFile(hostPaths[i], items[i].data);
    }
    std::vector<uint8_t> archive;
    std::string error;
    ok = ok && kivtool::BuildArchive(items, kivtool::PackOptions{}, &archive, &error);
    const std::string archiveHost = (folder / "items.kiv").string();
    ok = ok && WriteFile(archiveHost, archive) &&
         zkMountKiv("/arc", "/bench_archive/items.kiv", 0) == 0;
    KivArchive* a = zkOpenKiv("/bench_archive/items.kiv", 0);
    // The same archive read on the calling thread, past the I/O worker.
    KivArchive* direct = zkOpenKiv("/bench_archive/items.kiv", ZK_KIV_DIRECT_READ);
    if (!ok || !a || !direct) {
        std::fprintf(stderr, "could not make the files in %s %s\n", folder.string().c_str(),
                     error.c_str());
        return 1;
    }
    std::vector<char> buffer(4096);

    auto load = [&](KivArchive* a) {
        bool all = true;
        for (int i = 0; i < kItems; ++i) {
            void* p = nullptr;
            uint32_t size = 0;
            all = all && zkLoadKivItem(a, names[i].c_str(), &p, &size) == 0 &&
                  size == items[i].data.size();
            zkReleaseKivItem(p);
        }
        return all;
    };
    auto stream = [&] {
        bool all = true;
        for (int i = 0; i < kItems; ++i) {
            KivItemStream* s = zkOpenKivItem(a, names[i].c_str());
            uint32_t got = 0;
            all = all && s && zkReadKivItem(s, buffer.data(), 4096, &got) == 0 &&
                  got == items[i].data.size();
            zkCloseKivItem(s);
        }
        return all;
    };
    auto files = [&](const std::vector<std::string>& paths) {
        bool all = true;
        for (int i = 0; i < kItems; ++i) {
            FileHandle* f = zkOpenFile(paths[i].c_str(), ZK_OPEN_READ, 0);
            uint32_t got = 0;
            all = all && f && zkReadFile(f, buffer.data(), 4096, &got) == 0 &&
                  got == items[i].data.size();
            zkCloseFile(f);
        }
        return all;
    };
    auto stdio = [&] {
        bool all = true;
        for (int i = 0; i < kItems; ++i) {
            std::FILE* f = std::fopen(hostPaths[i].c_str(), "rb");
            all = all && f && std::fread(buffer.data(), 1, 4096, f) == items[i].data.size();
            if (f) std::fclose(f);
        }
        return all;
    };
    auto dropAll = [&] {
        bool dropped = DropCache(archiveHost);
        for (const std::string& p : hostPaths)
            dropped = DropCache(p) && dropped;
        return dropped;
    };

    std::printf("items: %d of 64 B-4 KiB (%.1f MB), best of %d rounds, us per item\n", kItems,
                archive.size() / 1e6, kRounds);
    for (int cold = 0; cold < 2; ++cold) {
        if (cold && !dropAll()) {
            std::printf("cold: skipped (this system cannot drop a file's cached pages)\n");
            break;
        }
        // Warm: the best of the rounds. Cold: every file's pages dropped
        // before each round.
        auto measure = [&](auto body) {
            double best = 1e30;
            for (int round = 0; round < kRounds; ++round) {
                if (cold) dropAll();
                const Clock::time_point start = Clock::now();
                ok = body() && ok;
                best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
            }
            return best;
        };
        files(zkPaths), stdio(), load(a); // one untimed pass: every path warm
        const double tLoad = measure([&] { return load(a); }),
                     tDirect = measure([&] { return load(direct); });
        const double tStream = measure(stream), tMount = measure([&] { return files(mountPaths); });
        const double tLoose = measure([&] { return files(zkPaths); }), tStdio = measure(stdio);
        const double per = 1e6 / kItems;
        std::printf(
            "%s: zkLoadKivItem %6.2f   direct read %6.2f   item stream %6.2f   mounted path "
            "%6.2f | loose zkOpenFile %6.2f   loose stdio %6.2f\n",
            cold ? "cold" : "warm", tLoad * per, tDirect * per, tStream * per, tMount * per,
            tLoose * per, tStdio * per);
        std::printf(
            "%s: loose zk / archive: load %5.2f  direct %5.2f  stream %5.2f  mounted %5.2f%s\n",
            cold ? "cold" : "warm", tLoose / tLoad, tLoose / tDirect, tLoose / tStream,
            tLoose / tMount, cold ? "" : "  (goal >= 3)");
        std::printf(
            "%s: loose stdio / archive: load %5.2f  direct %5.2f  stream %5.2f  mounted %5.2f\n",
            cold ? "cold" : "warm", tStdio / tLoad, tStdio / tDirect, tStdio / tStream,
            tStdio / tMount);
    }
    if (!ok) std::printf("FAILED: an item read did not deliver its bytes\n");
    zkCloseKiv(a);
    zkCloseKiv(direct);
    zkUnmountKiv("/arc");
    fs::remove_all(folder);
    zkTerminate();
    zkEndProcess();
    return ok && expanded ? 0 : 1;
}
