// A second instance of an application: started by the instance-check test with
// the application name as its argument. Exit codes: 0 when every check held,
// otherwise the number of the first check that failed.
#include <zk.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc < 3) return 90;
    const char* name = argv[1];
    const bool expectFirst = argv[2][0] == 'f';
    if (zkBeginProcess(0) != 0) return 91;
    zkSetTitle(name, name);
    if (zkInitializeEx(8u << 20, 256) != 0) return 92;
    if (!zkGetMainWindow()) return 93;
    int code = 0;
    if (expectFirst) {
        if (zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL | ZK_INSTANCE_ACTIVATE) != 0)
            code = 1;
        else if (!zkGetMainWindow())
            code = 2;
    } else {
        if (zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL | ZK_INSTANCE_ACTIVATE) != 1)
            code = 3;
        else if (zkGetMainWindow() != nullptr)
            code = 4; // its own window was released
        else if (zkCheckMultipleInstances(ZK_INSTANCE_GLOBAL) != 1)
            code = 5;
    }
    zkTerminate();
    zkEndProcess();
    return code;
}
