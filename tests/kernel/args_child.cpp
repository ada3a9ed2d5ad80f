// Reports the arguments the library split from this program's command line:
// writes, to a file named after the program with ".args" appended, the count
// and then every stored argument, each ended by a NUL byte, and last "null" or
// "present" for the argument just past the stored ones (index count, or 32,
// which is never stored).
#include <zk.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    if (argc < 1 || zkBeginProcess(0) != 0) return 91;
    std::FILE* out = std::fopen((std::string(argv[0]) + ".args").c_str(), "wb");
    if (!out) return 92;
    uint32_t count = zkGetAppArgCount();
    std::fprintf(out, "%u", count);
    for (uint32_t i = 0; i < count && i < 32; ++i) {
        std::fputc('\0', out);
        std::fputs(zkGetAppArg(i) ? zkGetAppArg(i) : "(missing)", out);
    }
    std::fputc('\0', out);
    std::fputs(zkGetAppArg(count < 32 ? count : 32) ? "present" : "null", out);
    std::fclose(out);
    zkEndProcess();
    return 0;
}
