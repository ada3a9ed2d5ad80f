// Devices, paths and mounts: full paths, splitting, resolution through the
// mount table, mounting rules, driver lookup and the device-level calls.
#include "file/memory_device.h"

#include <cstring>
#include <string>

namespace zktest {
namespace {

using Paths = MemoryDeviceTest;

// The vtable slot of a virtual member function (Itanium C++ ABI: the pointer
// holds 1 + the slot's byte offset).
template <typename F>
size_t SlotOf(F f) {
    struct {
        uintptr_t ptr;
        ptrdiff_t adjust;
    } raw;
    std::memcpy(&raw, &f, sizeof(raw));
    return (raw.ptr - 1) / sizeof(void*);
}

TEST(DriverInterface, SlotsStandInTheirFixedOrder) {
    using D = zk::DeviceDriver;
    using F = zk::FileObject;
    const size_t device[] = {
        SlotOf(&D::MatchName), SlotOf(&D::InitializeDevice), SlotOf(&D::TerminateDevice),
        SlotOf(&D::Reserved3), SlotOf(&D::ConvertPath), SlotOf(&D::GetTryCount),
        SlotOf(&D::SetTryCount), SlotOf(&D::CreateFileObject), SlotOf(&D::Reserved8),
        SlotOf(&D::Mount), SlotOf(&D::Unmount), SlotOf(&D::Format), SlotOf(&D::DumpDir),
        SlotOf(&D::MakeDir), SlotOf(&D::RemoveDir), SlotOf(&D::GetFileTime),
        SlotOf(&D::SetFileTime), SlotOf(&D::DeleteFile), SlotOf(&D::OpenDir),
        SlotOf(&D::QueryDeviceInfo), SlotOf(&D::ControlDevice), SlotOf(&D::GetPartitionStatus),
        SlotOf(&D::CreatePartition), SlotOf(&D::DeletePartition), SlotOf(&D::GetUnit)};
    const size_t file[] = {SlotOf(&F::IsImmediate), SlotOf(&F::Open),  SlotOf(&F::Close),
                           SlotOf(&F::GetSize),     SlotOf(&F::Read),  SlotOf(&F::ReadAt),
                           SlotOf(&F::Write),       SlotOf(&F::Seek)};
    const size_t dir[] = {SlotOf(&zk::DirObject::Open), SlotOf(&zk::DirObject::Close),
                          SlotOf(&zk::DirObject::Read)};
    for (size_t i = 0; i < 25; ++i) EXPECT_EQ(device[i], i);
    for (size_t i = 0; i < 8; ++i) EXPECT_EQ(file[i], i);
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(dir[i], i);
}

TEST_F(Paths, FullPathsAgainstTheWorkingDirectory) {
    // The size asked for counts the root working directory's one character,
    // which the path itself does not copy.
    struct Case {
        const char* workDir;
        const char* path;
        const char* full;
        uint32_t needed;
    } cases[] = {
        {nullptr, "data/a.bin", "/data/a.bin", 13}, {nullptr, "./a.bin", "/a.bin", 8},
        {nullptr, "././a", "/./a", 6},              {nullptr, "/x", "/x", 3},
        {nullptr, "C:\\x", "C:\\x", 5},            {nullptr, "kiv0:/x", "kiv0:/x", 8},
        {nullptr, "\\\\srv\\x", "\\\\srv\\x", 8}, {"/game", "a.bin", "/game/a.bin", 12},
        {"/game/", "", "/game", 6},                 {"/", "a.bin", "a.bin", 6},
        {"data/", "a.bin", "data/a.bin", 11},
    };
    for (const Case& c : cases) {
        if (c.workDir) zkSetWorkDir(c.workDir);
        char out[260] = "untouched";
        EXPECT_EQ(zkGetFullPath(c.path, out, sizeof(out)), c.needed) << c.path;
        EXPECT_STREQ(out, c.full);
        // A buffer exactly as long as the path is left alone.
        char small[64] = "untouched";
        EXPECT_EQ(zkGetFullPath(c.path, small, c.needed - 1), c.needed);
        EXPECT_STREQ(small, "untouched");
    }
    zkSetWorkDir(std::string(260, 'd').c_str()); // too long: ignored
    char out[260];
    zkGetFullPath("a", out, sizeof(out));
    EXPECT_STREQ(out, "data/a");
    EXPECT_EQ(zkGetFullPath(nullptr, out, 260), 0u);
}

TEST(SplitPath, DirectoryNameAndExtension) {
    struct Case {
        const char* path;
        int32_t result;
        const char *dir, *name, *ext;
    } cases[] = {
        {"/data/stage1.map", 0, "/data/", "stage1", ".map"},
        {"readme", 0, "", "readme", ""},
        {"/x", 0, "/", "x", ""},
        {"a\\b.c", 0, "a\\", "b", ".c"},
        {"a.b/c", -33, "a.b/", "", ".b/c"}, // the dot lies in the directory part
    };
    for (const Case& c : cases) {
        char dir[32] = "", name[32] = "", ext[32] = "";
        EXPECT_EQ(zkSplitPath(c.path, dir, 32, name, 32, ext, 32), c.result) << c.path;
        EXPECT_STREQ(dir, c.dir);
        EXPECT_STREQ(name, c.name);
        EXPECT_STREQ(ext, c.ext);
    }
    char small[4];
    EXPECT_EQ(zkSplitPath("a.map", nullptr, 0, nullptr, 0, small, 4), -33);
    EXPECT_EQ(zkSplitPath("a.bin", nullptr, 0, small, 2, nullptr, 0), 0);
    EXPECT_EQ(zkSplitPath("ab.bin", nullptr, 0, small, 2, nullptr, 0), -33);
    EXPECT_EQ(zkSplitPath(nullptr, small, 4, nullptr, 0, nullptr, 0), -3);
}

TEST_F(Paths, ResolutionThroughMounts) {
    ASSERT_EQ(zkMount("/", "mem:/R", 0), 0);
    ASSERT_EQ(zkMount("/data/", "mem:/D", 0), 0);
    ASSERT_EQ(zkMount("/dup", "mem:/first", 0), 0);
    ASSERT_EQ(zkMount("/dup", "mem:/second", 0), 0);
    ASSERT_EQ(zkMount("/u", "mem:/U", ZK_MOUNT_UPPERCASE), 0);
    struct Case {
        const char* path;
        const char* physical;
    } cases[] = {
        {"/data/x", "mem:/D/x"},       {"/data\\x", "mem:/D\\x"},
        {"/data", "mem:/D"},           {"/database/x", "mem:/R/database/x"},
        {"/", "mem:/R"},               {"/a", "mem:/R/a"},
        {"/dup/a", "mem:/second/a"},   {"/u/abc.Bin", "mem:/U/ABC.BIN"},
        {"mem:own/path", "mem:own/path"},
    };
    for (const Case& c : cases) {
        char out[260];
        EXPECT_EQ(zkGetPhysicalPath(c.path, out, sizeof(out)), 0) << c.path;
        EXPECT_STREQ(out, c.physical);
    }
    // "/data/" + "x" is 8 characters: a buffer of 9 holds it, one of 8 does not.
    char out[260];
    EXPECT_EQ(zkGetPhysicalPath("/data/x", out, 9), 0);
    EXPECT_EQ(zkGetPhysicalPath("/data/x", out, 8), -33);
    EXPECT_EQ(zkGetPhysicalPath("mem:ab", out, 6), -33);
    EXPECT_EQ(zkGetPhysicalPath("hdd9:/a", out, 260), -23);
    std::strcpy(out, "/data/self");
    EXPECT_EQ(zkGetPhysicalPath(out, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "mem:/D/self");
    EXPECT_EQ(zkGetPhysicalPath(nullptr, out, 260), -3);
    EXPECT_EQ(zkGetPhysicalPath("/a", out, 0), -3);
    ASSERT_EQ(zkUnmountAll(), 0);
    EXPECT_EQ(zkGetPhysicalPath("/a", out, 260), -42);
}

TEST_F(Paths, MountingAndUnmounting) {
    EXPECT_EQ(zkMount(nullptr, "mem:", 0), -3);
    EXPECT_EQ(zkMount("", "mem:", 0), -43);
    EXPECT_EQ(zkMount("data", "mem:", 0), -43);
    EXPECT_EQ(zkMount("/x", "zz9:", 0), -23);
    EXPECT_EQ(zkMount(("/" + std::string(260, 'a')).c_str(), "mem:", 0), -26);
    EXPECT_EQ(zkUnmount("/"), -42);
    EXPECT_EQ(zkUnmount("data"), -43);
    EXPECT_EQ(zkUnmount("/m/"), 0);
    EXPECT_EQ(zkUnmount("/m"), -42);
    ASSERT_EQ(zkUnmountAll(), 0); // the root mount too: all 16 records free

    // The driver's Mount: -6 still mounts, -5 refuses; the mode reaches it.
    Device().Fail(kMount, 2, 1, -6); // call 1 was the fixture's mount
    Device().Fail(kMount, 3, 1, -5);
    EXPECT_EQ(zkMount("/six", "mem:", 0), 0);
    EXPECT_EQ(zkMount("/five", "mem:", 0), -5);
    char out[260];
    EXPECT_EQ(zkGetPhysicalPath("/five", out, 260), -42);
    for (int i = 1; i < 16; ++i)
        EXPECT_EQ(zkMount(("/n" + std::to_string(i)).c_str(), "mem:", 0), 0);
    EXPECT_EQ(zkMount("/n16", "mem:", 0), -39);

    // A refusal stops zkUnmountAll: the records before it are gone.
    Device().Fail(kUnmount, 3, 1, -8); // its third call: the record of /n1
    EXPECT_EQ(zkUnmountAll(), -8);
    EXPECT_EQ(zkGetPhysicalPath("/six", out, 260), -42);
    EXPECT_EQ(zkGetPhysicalPath("/n1", out, 260), 0);
    EXPECT_EQ(zkGetPhysicalPath("/n2", out, 260), 0);
    EXPECT_EQ(zkUnmountAll(), 0);
}

TEST_F(Paths, DriverLookupAndDeviceCalls) {
    char out[260];
    EXPECT_EQ(zkGetPhysicalPath("hdd0:/a.bin", out, 260), -23);
    EXPECT_EQ(zkRegisterDevice(nullptr), -3);
    static MemoryDevice hdd("hdd0:");
    hdd.Fail(kInitializeDevice, 1, 1, -5);
    ASSERT_EQ(zkRegisterDevice(&hdd), 0);
    EXPECT_EQ(zkGetPhysicalPath("hdd0:/a.bin", out, 260), -23); // its start failed
    EXPECT_EQ(zkGetPhysicalPath("hdd0:/a.bin", out, 260), 0);   // asked again
    EXPECT_EQ(zkGetPhysicalPath("hdd0:/b.bin", out, 260), 0);
    EXPECT_EQ(hdd.Count(kInitializeDevice), 2u);

    // File try counts: kinds 1 to 3 also reach their devices.
    const uint32_t defaults[] = {1, 1, 0xFFFFFFFFu, 1, 1, 1};
    for (uint32_t kind = 0; kind < 6; ++kind) EXPECT_EQ(zkGetFileTryCount(kind), defaults[kind]);
    EXPECT_EQ(zkSetFileTryCount(0, 4), 1);
    EXPECT_EQ(zkSetFileTryCount(1, 5), 7); // hdd0:'s answer
    EXPECT_EQ(zkGetFileTryCount(1), 5u);
    EXPECT_EQ(zkGetDeviceTryCount("hdd0:"), 5u);
    EXPECT_EQ(zkSetFileTryCount(3, 2), 0); // no driver claims host0:
    EXPECT_EQ(zkSetFileTryCount(6, 2), -3);
    EXPECT_EQ(zkGetFileTryCount(6), 0u);
    EXPECT_EQ(zkGetDeviceTryCount(nullptr), 0u);
    EXPECT_EQ(zkSetDeviceTryCount("zz9:", 3), 0);

    // Name calls find the driver by name, path calls resolve first.
    EXPECT_EQ(zkControlDevice("mem:", 1, 2, 3), 0);
    EXPECT_EQ(zkGetPartitionStatus("zz9:"), -23);
    Device().Fail(kCreatePartition, 1, 1, -9);
    EXPECT_EQ(zkCreatePartition("mem:", 0, 0), -9);
    EXPECT_EQ(zkDeletePartition(nullptr), -3);
    EXPECT_EQ(zkGetDeviceStatus("/m"), -6);
    EXPECT_EQ(zkQueryDeviceInfo("/m/x", 2, 0, 0), 5);
    EXPECT_EQ(zkFormat("/m/disk"), 0);
    EXPECT_EQ(Device().Log({kFormat}).at(0).text, "mem:/disk");
    EXPECT_EQ(zkFormat("zz9:x"), -23);
}

} // namespace
} // namespace zktest
