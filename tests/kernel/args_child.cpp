// Reports the arguments the library split from this program's command line:
// writes, to a file named after the program with ".args" appended, the count
// and then every stored argument as "<length>:<text>" on a line of its own,
// and "null" for argument 32 (which is never stored).
#include <zk.h>

#include <cstdio>
#include <cstring>
#include <string>

int main(int argc, char** argv) {
    if (argc < 1) return 90;
    std::string path = std::string(argv[0]) + ".args";
    if (zkBeginProcess(0) != 0) return 91;
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (!out) return 92;
    uint32_t count = zkGetAppArgCount();
    std::fprintf(out, "%u\n", count);
    for (uint32_t i = 0; i < count && i < 32; ++i) {
        const char* arg = zkGetAppArg(i);
        if (!arg) {
            std::fprintf(out, "missing\n");
            continue;
        }
        std::fprintf(out, "%u:%s\n", static_cast<unsigned>(std::strlen(arg)), arg);
    }
    std::fprintf(out, "%s\n", zkGetAppArg(32) ? "present" : "null");
    std::fclose(out);
    zkEndProcess();
    return 0;
}
