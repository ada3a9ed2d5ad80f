// A game-style data folder packed with kivtool, mounted, and read back by the
// ordinary file calls: the program writes a small data tree beside itself,
// runs the kivtool found beside it to pack it, mounts the archive at /data
// and reads every file through /data/... and through the archive calls.
//
//   archive_data
#include <zk.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::vector<std::pair<std::string, std::string>> kFiles = {
    {"maps/level1.map", std::string(3000, '#') + "exit"},
    {"maps/level2.map", std::string(5000, '.') + "boss"},
    {"text/intro.txt", "Long ago, in a frame loop far away...\n"},
    {"Sound/Jump.WAV", std::string(800, '\x7f')},
};

std::string ReadThroughMount(const std::string& path) {
    FileHandle* f = zkOpenFile(path.c_str(), ZK_OPEN_READ, 0);
    if (!f) return "<cannot open>";
    uint32_t size = 0, got = 0;
    zkGetFileSize(f, &size);
    std::string data(size, '\0');
    zkReadFile(f, data.data(), size, &got);
    zkCloseFile(f);
    return data.substr(0, got);
}

// The text in double quotes. Built by appending: GCC 12 warns (-Wrestrict, a
// false report) about a literal put in front of a temporary string.
std::string Quoted(const std::string& text) {
    std::string quoted;
    quoted.reserve(text.size() + 2);
    quoted += '"';
    quoted += text;
    quoted += '"';
    return quoted;
}

} // namespace

int main(int, char** argv) {
    const fs::path here = fs::absolute(argv[0]).parent_path();
    const fs::path tree = here / "archive_example_data";
    const fs::path archive = here / "archive_example.kiv";
    fs::remove_all(tree);
    for (const auto& [name, data] : kFiles) {
        fs::create_directories((tree / name).parent_path());
        std::ofstream(tree / name, std::ios::binary) << data;
    }
    // kivtool sits beside this program; names are stored folded, so either
    // case finds them.
    const std::string command = Quoted((here / "kivtool").string()) +
                                " pack --packed-directory --folded-names " +
                                Quoted(archive.string()) + " " + Quoted(tree.string());
#if defined(_WIN32)
    // cmd.exe takes the outer pair of quotes off a command that begins with one.
    const std::string shell = Quoted(command);
#else
    const std::string& shell = command;
#endif
    if (std::system(shell.c_str()) != 0) {
        std::fprintf(stderr, "kivtool failed: %s\n", command.c_str());
        return 1;
    }

    if (zkInitialize() < 0) return 1;
    int wrong = 0;
    if (zkMountKiv("/data", "/archive_example.kiv", 0) != 0) {
        std::fprintf(stderr, "mount failed\n");
        wrong = 1;
    }
    for (const auto& [name, data] : kFiles) {
        const std::string viaMount = ReadThroughMount("/data/" + name);
        std::printf("/data/%-18s %5zu bytes %s\n", name.c_str(), viaMount.size(),
                    viaMount == data ? "ok" : "DIFFERS");
        wrong += viaMount != data;
    }
    zkUnmountKiv("/data");

    // The same items through the archive calls, the whole archive in memory.
    KivArchive* a = zkOpenKiv("/archive_example.kiv", ZK_KIV_MEMORY_IMAGE);
    void* item = nullptr;
    uint32_t size = 0;
    if (zkGetKivItem(a, "TEXT/INTRO.TXT", &item, &size) == 0)
        std::printf("intro, in place in the image: %.*s", static_cast<int>(size),
                    static_cast<char*>(item));
    else
        wrong += 1;
    std::printf("%u items in the archive\n", zkGetKivItemCount(a));
    zkCloseKiv(a);
    zkTerminate();
    fs::remove_all(tree);
    fs::remove(archive);
    return wrong == 0 ? 0 : 1;
}
