// kivtool: makes, lists, extracts and checks KIV0 archives.
//
//   kivtool pack [options] OUT.kiv DIR   every file under DIR, named by its path
//                                        under DIR as written, '/' separated
//   kivtool list A.kiv                   header, then name, size and offset of each item
//   kivtool extract A.kiv DIR            every named item written under DIR
//   kivtool verify A.kiv                 "ok", or each problem found (exit status 1)
//   kivtool --version
//
// Errors go to standard error as one line naming the file and what is wrong;
// the exit status is then non-zero.
#include "kiv_check.h"
#include "kiv_pack.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#if defined(_WIN32)
#include <io.h>
#define KIVTOOL_ISATTY _isatty
#else
extern "C" int isatty(int) noexcept;
#define KIVTOOL_ISATTY isatty
#endif

namespace {

namespace fs = std::filesystem;

#ifndef KIVTOOL_VERSION
#define KIVTOOL_VERSION "unknown"
#endif

const char kUsage[] =
    "usage: kivtool pack [options] OUT.kiv DIR\n"
    "       kivtool list A.kiv\n"
    "       kivtool extract A.kiv DIR\n"
    "       kivtool verify A.kiv\n"
    "       kivtool --version\n"
    "pack stores every file under DIR, named by its path under DIR as written\n"
    "(a symbolic link is followed for its contents and keeps its own name).\n"
    "verify checks the structure only: header, directory, names and that every\n"
    "item lies inside the file (the format has no checksum of the data).\n"
    "pack options:\n"
    "  --header32          32-byte header (default: 48 bytes)\n"
    "  --packed-directory  store the directory slide-packed (needs the 48-byte header)\n"
    "  --folded-names      store names in lower case; lookups ignore case\n"
    "  --stored-order      keep the walk's order instead of sorting the entries by name\n"
    "  --entry-size N      bytes per directory entry, 12 or more (default 12)\n";

int Error(const std::string& text) {
    std::fprintf(stderr, "kivtool: %s\n", text.c_str());
    return 2;
}

// The one line on standard error for an archive with problems: the file, the
// first problem, and how many more there are.
void Fault(const char* path, const std::vector<std::string>& problems) {
    std::string more;
    if (problems.size() > 1) more = " (and " + std::to_string(problems.size() - 1) + " more)";
    std::fprintf(stderr, "kivtool: %s: %s%s\n", path, problems.front().c_str(), more.c_str());
}

bool ReadWhole(const fs::path& path, std::vector<uint8_t>* out, std::string* error) {
    std::FILE* f = std::fopen(path.string().c_str(), "rb");
    if (!f) return *error = path.string() + ": cannot open: " + std::strerror(errno), false;
    out->clear();
    uint8_t buffer[65536];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
        out->insert(out->end(), buffer, buffer + n);
    const bool ok = !std::ferror(f);
    std::fclose(f);
    if (!ok) *error = path.string() + ": read error";
    return ok;
}

bool WriteWhole(const fs::path& path, const uint8_t* data, size_t size, std::string* error) {
    std::FILE* f = std::fopen(path.string().c_str(), "wb");
    if (!f) return *error = path.string() + ": cannot create: " + std::strerror(errno), false;
    const bool ok = std::fwrite(data, 1, size, f) == size;
    if (std::fclose(f) != 0 || !ok) return *error = path.string() + ": write error", false;
    return true;
}

// Collects every regular file under folder, named prefix + its path under
// folder as written. Symbolic links are followed for their contents (a linked
// file is read, a linked folder walked) but keep the link's own name, so no
// name ever climbs out of the packed folder. A linked folder that leads back
// into a folder being walked is refused (it would never end). The archive
// being written is left out when it lies inside the folder.
bool Walk(const fs::path& folder, const std::string& prefix, const fs::path& output,
          std::vector<fs::path>* walking, std::vector<std::pair<std::string, fs::path>>* files,
          std::string* error) {
    std::error_code ec;
    const fs::path real = fs::canonical(folder, ec);
    if (ec) return *error = folder.string() + ": " + ec.message(), false;
    if (std::find(walking->begin(), walking->end(), real) != walking->end())
        return *error = folder.string() + ": a link leads back into a folder being packed", false;
    walking->push_back(real);
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const fs::path path = it->path();
        const std::string name = prefix + path.filename().generic_string();
        std::error_code kind;
        if (it->is_directory(kind)) {
            if (!Walk(path, name + "/", output, walking, files, error)) return false;
        } else if (it->is_regular_file(kind)) {
            std::error_code same;
            if (fs::equivalent(path, output, same) && !same) continue;
            files->emplace_back(name, path);
        }
        // Anything else (a dangling link, a device, a FIFO) holds no file to store.
    }
    if (ec) return *error = folder.string() + ": " + ec.message(), false;
    walking->pop_back();
    return true;
}

int Pack(int argc, char** argv) {
    kivtool::PackOptions options;
    std::vector<std::string> operands;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--header32") {
            options.header48 = false;
        } else if (a == "--packed-directory") {
            options.packedDirectory = true;
        } else if (a == "--folded-names") {
            options.foldedNames = true;
        } else if (a == "--stored-order") {
            options.nameOrder = false;
        } else if (a == "--entry-size" && i + 1 < argc) {
            char* end = nullptr;
            const long n = std::strtol(argv[++i], &end, 10);
            if (*end != '\0' || n < 12 || n > 65535)
                return Error(std::string("bad entry size: ") + argv[i]);
            options.entrySize = uint16_t(n);
        } else if (a.size() > 1 && a[0] == '-') {
            return Error("unknown option " + a + "\n" + kUsage);
        } else {
            operands.push_back(a);
        }
    }
    if (operands.size() != 2) return Error(std::string("pack needs OUT.kiv and DIR\n") + kUsage);
    if (options.packedDirectory && !options.header48)
        return Error("--packed-directory needs the 48-byte header (drop --header32)");
    const fs::path out = operands[0], root = operands[1];
    std::error_code ec;
    if (!fs::is_directory(root, ec)) return Error(root.string() + ": not a directory");

    // The walk, sorted by name so that the same tree always gives the same archive.
    std::vector<std::pair<std::string, fs::path>> files;
    std::vector<fs::path> walking;
    std::string error;
    if (!Walk(root, "", out, &walking, &files, &error)) return Error(error);
    std::sort(files.begin(), files.end());
    const bool progress = files.size() >= 1000 && KIVTOOL_ISATTY(2);
    std::vector<kivtool::PackItem> items;
    items.reserve(files.size());
    for (size_t i = 0; i < files.size(); ++i) {
        kivtool::PackItem item;
        item.name = files[i].first;
        if (!ReadWhole(files[i].second, &item.data, &error)) return Error(error);
        items.push_back(std::move(item));
        if (progress && (i % 256 == 0 || i + 1 == files.size()))
            std::fprintf(stderr, "\rkivtool: reading %zu/%zu files", i + 1, files.size());
    }
    if (progress) std::fprintf(stderr, "\n");
    std::vector<uint8_t> archive;
    if (!kivtool::BuildArchive(items, options, &archive, &error))
        return Error(out.string() + ": " + error);
    if (!WriteWhole(out, archive.data(), archive.size(), &error)) return Error(error);
    return 0;
}

// Reads and parses; problems are printed only by verify.
bool Open(const char* path, std::vector<uint8_t>* bytes, kivtool::ArchiveView* view,
          std::vector<std::string>* problems, std::string* error) {
    if (!ReadWhole(path, bytes, error)) return false;
    if (!kivtool::ReadArchive(*bytes, view, problems)) {
        *error = std::string(path) + ": " + problems->front();
        return false;
    }
    return true;
}

int List(const char* path) {
    std::vector<uint8_t> bytes;
    kivtool::ArchiveView view;
    std::vector<std::string> problems;
    std::string error;
    if (!Open(path, &bytes, &view, &problems, &error)) return Error(error);
    std::printf(
        "%s: %zu items, %u-byte header, entry size %u, names %u bytes, data at %llu, size %u\n",
        path, view.entries.size(), view.headerLength, view.entrySize, view.nameAreaSize,
        static_cast<unsigned long long>(view.dataOrigin), view.archiveSize);
    std::printf(
        "flags 0x%04x:%s%s%s\n", view.flags, view.flags & 1 ? " folded-names" : "",
        view.flags & 4 ? " name-order" : "",
        view.flags & 8
            ? (" packed-directory(" + std::to_string(view.packedDirectorySize) + " bytes)").c_str()
            : "");
    for (const kivtool::ArchiveEntry& e : view.entries)
        std::printf("%10u %10llu  %s\n", e.size, static_cast<unsigned long long>(e.start),
                    e.named ? e.name.c_str() : "<no name>");
    if (problems.empty()) return 0;
    Fault(path, problems);
    return 1;
}

int Extract(const char* path, const fs::path& folder) {
    std::vector<uint8_t> bytes;
    kivtool::ArchiveView view;
    std::vector<std::string> problems;
    std::string error;
    if (!Open(path, &bytes, &view, &problems, &error)) return Error(error);
    // Every name is checked before anything is written.
    for (const kivtool::ArchiveEntry& e : view.entries) {
        if (!e.named) continue;
        if (!kivtool::IsSafeName(e.name))
            return Error(std::string(path) + ": refusing the item name \"" + e.name +
                         "\" (it would leave the folder)");
        if (!e.inside)
            return Error(std::string(path) + ": item " + e.name + " runs past the end of the file");
    }
    std::error_code ec;
    // The folder exists afterwards, also for an archive without items.
    fs::create_directories(folder, ec);
    if (ec) return Error(folder.string() + ": " + ec.message());
    for (const kivtool::ArchiveEntry& e : view.entries) {
        if (!e.named) continue;
        const fs::path target = folder / fs::path(e.name);
        fs::create_directories(target.parent_path(), ec);
        if (ec) return Error(target.parent_path().string() + ": " + ec.message());
        if (!WriteWhole(target, bytes.data() + e.start, e.size, &error)) return Error(error);
    }
    return 0;
}

int Verify(const char* path) {
    std::vector<uint8_t> bytes;
    std::string error;
    if (!ReadWhole(path, &bytes, &error)) return Error(error);
    kivtool::ArchiveView view;
    std::vector<std::string> problems;
    kivtool::ReadArchive(bytes, &view, &problems);
    if (problems.empty()) {
        std::printf("%s: ok (%zu items)\n", path, view.entries.size());
        return 0;
    }
    for (const std::string& p : problems)
        std::printf("%s: %s\n", path, p.c_str());
    Fault(path, problems);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
        std::fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    if (!std::strcmp(argv[1], "--version")) {
        std::printf("kivtool %s\n", KIVTOOL_VERSION);
        return 0;
    }
    const std::string command = argv[1];
    if (command == "pack") return Pack(argc - 2, argv + 2);
    if (command == "list" && argc == 3) return List(argv[2]);
    if (command == "extract" && argc == 4) return Extract(argv[2], argv[3]);
    if (command == "verify" && argc == 3) return Verify(argv[2]);
    return Error("unknown command or wrong number of arguments\n" + std::string(kUsage));
}
