// Process, module, time and memory services of the POSIX backend: the
// command line, the version resource, the named mutex and the small calls.
#include "platform/platform.h"
#include "platform/posix/posix_internal.h"

#include "zk_version.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using zk::os::posix::BuildCommandLine;

// The splitting rule the command line is built for: a quoted argument runs
// to the next quote, any other to the next space.
std::vector<std::string> Split(const char* line) {
    std::vector<std::string> out;
    const char* p = line;
    while (*p) {
        while (*p == ' ')
            ++p;
        if (!*p) break;
        if (*p == '"') {
            const char* end = std::strchr(p + 1, '"');
            if (!end) end = p + std::strlen(p);
            out.emplace_back(p + 1, end);
            p = *end ? end + 1 : end;
        } else {
            const char* end = std::strchr(p, ' ');
            if (!end) end = p + std::strlen(p);
            out.emplace_back(p, end);
            p = end;
        }
    }
    return out;
}

TEST(CommandLine, RoundTripsArgumentsWithSpaces) {
    const char* argv[] = {"/opt/my app/game", "-w", "two words", "", "x"};
    char line[4096];
    uint32_t n = BuildCommandLine(5, argv, line, sizeof(line));
    EXPECT_STREQ(line, "\"/opt/my app/game\" -w \"two words\" \"\" x");
    EXPECT_EQ(n, std::strlen(line));
    std::vector<std::string> back = Split(line);
    ASSERT_EQ(back.size(), 5u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(back[i], argv[i]);
}

TEST(CommandLine, IsCutAtAnArgumentBoundaryOrInsideAnOverlongProgramName) {
    std::string longArg(3000, 'a');
    const char* argv[] = {"prog", longArg.c_str(), longArg.c_str(), "tail"};
    char line[4096];
    EXPECT_EQ(BuildCommandLine(4, argv, line, sizeof(line)), 4 + 1 + 3000u); // no whole third
    EXPECT_EQ(Split(line).size(), 2u);
    std::string fill(4095 - 5, 'b'); // exactly 4095 characters fit
    const char* exact[] = {"prog", fill.c_str()};
    EXPECT_EQ(BuildCommandLine(2, exact, line, sizeof(line)), 4095u);
    std::string name(5000, 'p');
    const char* longName[] = {name.c_str(), "x"};
    EXPECT_EQ(BuildCommandLine(2, longName, line, sizeof(line)), 4095u);
    EXPECT_EQ(std::strlen(line), 4095u);
    char tiny[1];
    EXPECT_EQ(BuildCommandLine(2, longName, tiny, 1), 0u);
    EXPECT_EQ(tiny[0], '\0');
}

TEST(CommandLine, ProcessLineStartsWithTheProgram) {
    const char* line = zk::os::CommandLine();
    ASSERT_NE(line, nullptr);
    std::vector<std::string> args = Split(line);
    ASSERT_FALSE(args.empty());
    EXPECT_NE(args[0].find("test_platform"), std::string::npos);
    EXPECT_EQ(zk::os::CommandLine(), line); // built once
}

// ---- version resource --------------------------------------------------------

uint16_t Read16(const unsigned char* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
uint32_t Read32(const unsigned char* p) {
    return Read16(p) | static_cast<uint32_t>(Read16(p + 2)) << 16;
}

TEST(VersionResource, LibraryModuleHasTheCompiledVersion) {
    uint32_t size = 0;
    auto* blob = static_cast<const unsigned char*>(
        zk::os::ModuleVersionResource(zk::os::LibraryModule(), &size));
    ASSERT_NE(blob, nullptr);
    ASSERT_EQ(size, 92u);
    EXPECT_EQ(Read16(blob), size);    // wLength
    EXPECT_EQ(Read16(blob + 2), 52u); // wValueLength
    EXPECT_EQ(Read16(blob + 4), 0u);  // binary
    const char key[] = "VS_VERSION_INFO";
    for (size_t i = 0; i < sizeof(key); ++i)
        EXPECT_EQ(Read16(blob + 6 + 2 * i), static_cast<unsigned char>(key[i]));
    const unsigned char* info = blob + 40; // the key's end rounded up to 4
    EXPECT_EQ(Read32(info), 0xFEEF04BDu);
    EXPECT_EQ(Read32(info + 4), 0x00010000u);
    EXPECT_EQ(Read32(info + 8), static_cast<uint32_t>(ZK_VERSION_MAJOR << 16 | ZK_VERSION_MINOR));
    EXPECT_EQ(Read32(info + 12),
              static_cast<uint32_t>(ZK_VERSION_BUILD << 16 | ZK_VERSION_REVISION));
    EXPECT_EQ(Read32(info + 16), Read32(info + 8));
    EXPECT_EQ(Read32(info + 20), Read32(info + 12));
    for (int word = 6; word < 13; ++word)
        EXPECT_EQ(Read32(info + 4 * word), 0u);
}

TEST(VersionResource, FieldsComeFromTheFourParts) {
    unsigned char blob[92];
    ASSERT_EQ(zk::os::posix::BuildVersionResource(2, 3, 4, 5, blob, sizeof(blob)), 92u);
    EXPECT_EQ(Read32(blob + 48), 0x00020003u);
    EXPECT_EQ(Read32(blob + 52), 0x00040005u);
    EXPECT_EQ(zk::os::posix::BuildVersionResource(2, 3, 4, 5, blob, 91), 0u);
}

TEST(VersionResource, OtherModulesHaveNoneAndModuleHandlesAreStable) {
    uint32_t size = 77;
    int local = 0;
    EXPECT_EQ(zk::os::ModuleVersionResource(nullptr, &size), nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(zk::os::ModuleVersionResource(&local, &size), nullptr);
    EXPECT_NE(zk::os::LibraryModule(), nullptr);
    EXPECT_NE(zk::os::ExecutableModule(), nullptr);
    EXPECT_EQ(zk::os::ExecutableModule(), zk::os::ExecutableModule());
}

// ---- named mutex --------------------------------------------------------------

// Lock files stay in place by design; the tests remove theirs.
void RemoveLockFile(const std::string& name) {
    char path[512];
    if (zk::os::posix::NamedMutexPath(name.c_str(), path, sizeof(path))) unlink(path);
}

std::string UniqueName(const char* prefix) {
    return std::string(prefix) + "ZkTest.Instance." + std::to_string(getpid());
}

TEST(NamedMutex, SecondOpenReportsTheNameTakenPerNamespace) {
    std::string local = UniqueName("");
    std::string global = UniqueName("Global\\");
    bool existed = true;
    zk::os::Handle first = zk::os::NamedMutexCreate(local.c_str(), &existed);
    ASSERT_NE(first, nullptr);
    EXPECT_FALSE(existed);
    zk::os::Handle second = zk::os::NamedMutexCreate(local.c_str(), &existed);
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(existed);
    zk::os::Handle other = zk::os::NamedMutexCreate(global.c_str(), &existed);
    EXPECT_FALSE(existed); // global and local names are distinct
    zk::os::Handle prefixed = zk::os::NamedMutexCreate(UniqueName("Local\\").c_str(), &existed);
    EXPECT_TRUE(existed); // "Local\" is the default namespace
    for (zk::os::Handle h : {prefixed, other, second, first})
        zk::os::CloseHandle(h); // the last close releases the lock
    zk::os::Handle third = zk::os::NamedMutexCreate(local.c_str(), &existed);
    EXPECT_FALSE(existed);
    zk::os::CloseHandle(third);
    RemoveLockFile(local);
    RemoveLockFile(global);
    EXPECT_TRUE(zk::os::SystemSupportsGlobalNames());
}

TEST(NamedMutex, PathsAreSanitisedAndKeepNamesApart) {
    char a[512], b[512];
    ASSERT_TRUE(zk::os::posix::NamedMutexPath("Global\\x/y z", a, sizeof(a)));
    ASSERT_TRUE(zk::os::posix::NamedMutexPath("Global\\x_y_z", b, sizeof(b)));
    EXPECT_EQ(std::strncmp(a, "/tmp/", 5), 0);
    EXPECT_EQ(std::strchr(a + 5, '/'), nullptr);
    EXPECT_EQ(std::strchr(a, ' '), nullptr);
    EXPECT_STRNE(a, b);
    EXPECT_FALSE(zk::os::posix::NamedMutexPath("name", a, 8));
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

// ---- small services -------------------------------------------------------------

TEST(Process, ExecutablePathIsTerminatedAndCut) {
    char path[4096];
    uint32_t n = zk::os::ExecutablePath(path, sizeof(path));
    ASSERT_GT(n, 0u);
    EXPECT_EQ(std::strlen(path), n);
    EXPECT_EQ(path[0], '/');
    EXPECT_NE(std::strstr(path, "test_platform"), nullptr);
    char small[5];
    EXPECT_EQ(zk::os::ExecutablePath(small, sizeof(small)), 4u);
    EXPECT_EQ(std::strncmp(small, path, 4), 0);
    EXPECT_EQ(small[4], '\0');
    EXPECT_EQ(zk::os::ExecutablePath(nullptr, 10), 0u);
}

TEST(Process, CurrentDirectoryChanges) {
    char before[4096];
    ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
    EXPECT_TRUE(zk::os::SetCurrentDirectory("/"));
    char now[4096];
    ASSERT_NE(getcwd(now, sizeof(now)), nullptr);
    EXPECT_STREQ(now, "/");
    EXPECT_FALSE(zk::os::SetCurrentDirectory("/no/such/folder/anywhere"));
    EXPECT_FALSE(zk::os::SetCurrentDirectory(nullptr));
    EXPECT_TRUE(zk::os::SetCurrentDirectory(before));
}

TEST(Memory, CommitIsZeroedAndWritable) {
    size_t size = 1u << 20;
    auto* p = static_cast<unsigned char*>(zk::os::VirtualCommit(size));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 0);
    EXPECT_EQ(p[size - 1], 0);
    p[12345] = 7;
    EXPECT_EQ(p[12345], 7);
    zk::os::VirtualRelease(p, size);
    EXPECT_EQ(zk::os::VirtualCommit(0), nullptr);
    EXPECT_GT(zk::os::AvailablePhysicalMemory(), 0u);
}

TEST(Time, ClocksAdvance) {
    EXPECT_EQ(zk::os::PerformanceFrequency(), 1000000000);
    int64_t c0 = zk::os::PerformanceCounter();
    uint32_t t0 = zk::os::TickCount();
    zk::os::Sleep(15);
    EXPECT_GE(zk::os::PerformanceCounter() - c0, 15000000);
    EXPECT_GE(zk::os::TickCount() - t0, 14u);
    zk::os::Sleep(0);
    zk::os::LocalDateTime now{};
    zk::os::LocalTime(&now);
    EXPECT_GE(now.year, 2020);
    EXPECT_GE(now.month, 1);
    EXPECT_LE(now.month, 12);
    EXPECT_GE(now.day, 1);
    EXPECT_LE(now.hour, 23);
    zk::os::LocalTime(nullptr);
    zk::os::DebugOutput("platform test: debug output line\n");
    zk::os::DebugOutput(nullptr);
}

} // namespace
