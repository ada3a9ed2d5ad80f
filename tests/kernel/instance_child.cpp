// Another instance of an application, started by the instance-check test with
// the application name and "first" or "second". Exit codes: 0 when every check
// held, otherwise the number of the first check that failed.
#include <zk.h>

#include <cstring>

int main(int argc, char** argv) {
    if (argc < 3 || zkBeginProcess(0) != 0) return 90;
    zkSetTitle(argv[1], argv[1]);
    if (zkInitializeEx(8u << 20, 256) != 0 || !zkGetMainWindow()) return 91;
    const uint32_t expected = std::strcmp(argv[2], "first") == 0 ? 0 : 1;
    int code = 0;
    if (zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL | ZK_INSTANCE_ACTIVATE) != expected)
        code = 1;
    else if ((zkGetMainWindow() != nullptr) != (expected == 0))
        code = 2; // a second instance releases its own window
    zkEndProcess();
    return code;
}
