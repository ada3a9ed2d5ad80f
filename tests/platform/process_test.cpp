// The named mutex of the POSIX backend (the single-instance lock) across processes.
#include "platform/platform.h"
#include "platform/posix/posix_internal.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

// Lock files stay in place by design; the tests remove theirs.
void RemoveLockFile(const std::string& name) {
    char path[512];
    if (zk::os::posix::NamedMutexPath(name.c_str(), path, sizeof(path))) unlink(path);
}

std::string UniqueName(const char* prefix) {
    return std::string(prefix) + "ZkTest.Instance." + std::to_string(getpid());
}

TEST(NamedMutex, SecondOpenReportsTheNameTakenPerNamespace) {
    std::string local = UniqueName(""), global = UniqueName("Global\\");
    const struct {
        std::string name;
        bool existed;
    } opens[] = {{local, false},
                 {local, true},
                 {global, false},                // global and local names are distinct
                 {UniqueName("Local\\"), true}}; // "Local\" is the default namespace
    std::vector<zk::os::Handle> handles;
    for (const auto& open : opens) {
        bool existed = !open.existed;
        handles.push_back(zk::os::NamedMutexCreate(open.name.c_str(), &existed));
        EXPECT_EQ(existed, open.existed) << open.name;
    }
    for (zk::os::Handle h : handles)
        zk::os::CloseHandle(h); // the last close releases the lock
    bool existed = true;
    zk::os::CloseHandle(zk::os::NamedMutexCreate(local.c_str(), &existed));
    EXPECT_FALSE(existed);
    RemoveLockFile(local);
    RemoveLockFile(global);
}

TEST(NamedMutex, LockIsReleasedWhenTheHoldingProcessDies) {
    std::string name = UniqueName("Global\\Fork.");
    int toParent[2], toChild[2];
    ASSERT_EQ(pipe(toParent), 0);
    ASSERT_EQ(pipe(toChild), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        bool existed = true;
        zk::os::Handle h = zk::os::NamedMutexCreate(name.c_str(), &existed);
        char state = (h && !existed) ? 'y' : 'n';
        (void)!write(toParent[1], &state, 1);
        char c;
        (void)!read(toChild[0], &c, 1); // hold the lock until told to die
        _exit(0);                       // dies holding it: no close
    }
    char state = 0;
    ASSERT_EQ(read(toParent[0], &state, 1), 1);
    EXPECT_EQ(state, 'y');
    bool existed = false;
    zk::os::Handle h = zk::os::NamedMutexCreate(name.c_str(), &existed);
    EXPECT_TRUE(existed);
    zk::os::CloseHandle(h);
    char go = 'x';
    (void)!write(toChild[1], &go, 1);
    int status = 0;
    waitpid(child, &status, 0);
    h = zk::os::NamedMutexCreate(name.c_str(), &existed);
    EXPECT_FALSE(existed);
    zk::os::CloseHandle(h);
    RemoveLockFile(name);
    for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]})
        close(fd);
}

} // namespace
