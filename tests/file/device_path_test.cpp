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
template <typename F> size_t SlotOf(F f) {
    uintptr_t raw[2];
    std::memcpy(raw, &f, sizeof(raw));
    return (raw[0] - 1) / sizeof(void*);
}

TEST(DriverInterface, SlotsStandInTheirFixedOrder) {
    using D = zk::DeviceDriver;
    using F = zk::FileObject;
    using R = zk::DirObject;
    // clang-format off
    const size_t slots[] = {
        SlotOf(&D::MatchName), SlotOf(&D::InitializeDevice), SlotOf(&D::TerminateDevice),
        SlotOf(&D::Reserved3), SlotOf(&D::ConvertPath), SlotOf(&D::GetTryCount),
        SlotOf(&D::SetTryCount), SlotOf(&D::CreateFileObject), SlotOf(&D::Reserved8),
        SlotOf(&D::Mount), SlotOf(&D::Unmount), SlotOf(&D::Format), SlotOf(&D::DumpDir),
        SlotOf(&D::MakeDir), SlotOf(&D::RemoveDir), SlotOf(&D::GetFileTime),
        SlotOf(&D::SetFileTime), SlotOf(&D::DeleteFile), SlotOf(&D::OpenDir),
        SlotOf(&D::QueryDeviceInfo), SlotOf(&D::ControlDevice), SlotOf(&D::GetPartitionStatus),
        SlotOf(&D::CreatePartition), SlotOf(&D::DeletePartition), SlotOf(&D::GetUnit),
        SlotOf(&F::IsImmediate), SlotOf(&F::Open), SlotOf(&F::Close), SlotOf(&F::GetSize),
        SlotOf(&F::Read), SlotOf(&F::ReadAt), SlotOf(&F::Write), SlotOf(&F::Seek),
        SlotOf(&R::Open), SlotOf(&R::Close), SlotOf(&R::Read)};
    // clang-format on
    // 25 driver slots, then 8 file-object slots, then 3 listing slots.
    for (size_t i = 0; i < 36; ++i)
        EXPECT_EQ(slots[i], i < 25 ? i : i < 33 ? i - 25 : i - 33) << i;
}

TEST_F(Paths, FullPathsAgainstTheWorkingDirectory) {
    // Working directory (null: unchanged), path, full path, size asked for.
    // The size counts the root working directory's one character, which the
    // full path does not copy.
    const char* cases[][4] = {{nullptr, "data/a.bin", "/data/a.bin", "13"},
                              {nullptr, "./a.bin", "/a.bin", "8"},
                              {nullptr, "././a", "/./a", "6"},
                              {nullptr, "/x", "/x", "3"},
                              {nullptr, "C:\\x", "C:\\x", "5"},
                              {nullptr, "kiv0:/x", "kiv0:/x", "8"},
                              {nullptr, "\\\\srv\\x", "\\\\srv\\x", "8"},
                              {"/game", "a.bin", "/game/a.bin", "12"},
                              {"/game/", "", "/game", "6"},
                              {"/", "a.bin", "a.bin", "6"},
                              {"data/", "a.bin", "data/a.bin", "11"}};
    for (const auto& c : cases) {
        if (c[0]) zkSetWorkDir(c[0]);
        const uint32_t needed = static_cast<uint32_t>(std::stoul(c[3]));
        char out[260] = "untouched", small[64] = "untouched";
        EXPECT_EQ(zkGetFullPath(c[1], out, sizeof(out)), needed) << c[1];
        EXPECT_STREQ(out, c[2]);
        EXPECT_EQ(zkGetFullPath(c[1], small, needed - 1), needed); // too small: untouched
        EXPECT_STREQ(small, "untouched");
    }
    zkSetWorkDir(std::string(260, 'd').c_str()); // too long: ignored
    char out[260];
    zkGetFullPath("a", out, sizeof(out));
    EXPECT_STREQ(out, "data/a");
    EXPECT_EQ(zkGetFullPath(nullptr, out, 260), 0u);
}

TEST(SplitPath, DirectoryNameAndExtension) {
    // Path, directory, name, extension; a.b/c has its dot in the directory.
    const char* cases[][4] = {{"/data/stage1.map", "/data/", "stage1", ".map"},
                              {"readme", "", "readme", ""},
                              {"/x", "/", "x", ""},
                              {"a\\b.c", "a\\", "b", ".c"},
                              {"a.b/c", "a.b/", "", ".b/c"}};
    for (const auto& c : cases) {
        char dir[32] = "", name[32] = "", ext[32] = "";
        const int32_t expected = std::strcmp(c[0], "a.b/c") == 0 ? -33 : 0;
        EXPECT_EQ(zkSplitPath(c[0], dir, 32, name, 32, ext, 32), expected) << c[0];
        EXPECT_EQ(std::string(dir) + "|" + name + "|" + ext,
                  std::string(c[1]) + "|" + c[2] + "|" + c[3]);
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
    const char* cases[][2] = {{"/data/x", "mem:/D/x"},
                              {"/data\\x", "mem:/D\\x"},
                              {"/data", "mem:/D"},
                              {"/", "mem:/R"},
                              {"/database/x", "mem:/R/database/x"},
                              {"/a", "mem:/R/a"},
                              {"/dup/a", "mem:/second/a"},
                              {"/u/abc.Bin", "mem:/U/ABC.BIN"},
                              {"mem:own", "mem:own"}};
    char out[260];
    for (const auto& c : cases) {
        EXPECT_EQ(zkGetPhysicalPath(c[0], out, sizeof(out)), 0) << c[0];
        EXPECT_STREQ(out, c[1]);
    }
    // "mem:/D/x" is 8 characters: a buffer of 9 holds it, one of 8 does not.
    EXPECT_EQ(zkGetPhysicalPath("/data/x", out, 9), 0);
    EXPECT_EQ(zkGetPhysicalPath("/data/x", out, 8), -33);
    EXPECT_EQ(zkGetPhysicalPath("mem:ab", out, 6), -33);
    EXPECT_EQ(zkGetPhysicalPath("hdd9:/a", out, 260), -23);
    std::strcpy(out, "/data/self");
    EXPECT_EQ(zkGetPhysicalPath(out, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "mem:/D/self");
    EXPECT_EQ(zkGetPhysicalPath("/a", out, 0), -3);
    ASSERT_EQ(zkUnmountAll(), 0);
    EXPECT_EQ(zkGetPhysicalPath("/a", out, 260), -42);
}

TEST_F(Paths, MountingAndUnmounting) {
    EXPECT_EQ(zkMount(nullptr, "mem:", 0), -3);
    EXPECT_EQ(zkMount("data", "mem:", 0), -43);
    EXPECT_EQ(zkMount("/x", "zz9:", 0), -23);
    EXPECT_EQ(zkMount(("/" + std::string(260, 'a')).c_str(), "mem:", 0), -26);
    EXPECT_EQ(zkUnmount("/"), -42);
    EXPECT_EQ(zkUnmount("/m/"), 0);
    EXPECT_EQ(zkUnmount("/m"), -42);
    ASSERT_EQ(zkUnmountAll(), 0); // the root mount too: all 16 records free

    // The driver's Mount: -6 still mounts, -5 refuses (call 1 was the fixture's).
    Device().Fail(kMount, 2, 1, -6);
    Device().Fail(kMount, 3, 1, -5);
    EXPECT_EQ(zkMount("/six", "mem:", 0), 0);
    EXPECT_EQ(zkMount("/five", "mem:", 0), -5);
    for (int i = 1; i < 16; ++i)
        EXPECT_EQ(zkMount(("/n" + std::to_string(i)).c_str(), "mem:", 0), 0);
    EXPECT_EQ(zkMount("/n16", "mem:", 0), -39);

    // A refusal (the third Unmount: /n1's) stops zkUnmountAll after /six.
    Device().Fail(kUnmount, 3, 1, -8);
    EXPECT_EQ(zkUnmountAll(), -8);
    char out[260];
    EXPECT_EQ(zkGetPhysicalPath("/six", out, 260), -42);
    EXPECT_EQ(zkGetPhysicalPath("/n1", out, 260) + zkGetPhysicalPath("/n2", out, 260), 0);
    EXPECT_EQ(zkUnmountAll(), 0);
}

TEST_F(Paths, DriverLookupAndDeviceCalls) {
    char out[260];
    EXPECT_EQ(zkGetPhysicalPath("cdrom0:/a.bin", out, 260), -23);
    EXPECT_EQ(zkRegisterDevice(nullptr), -3);
    static MemoryDevice cdrom("cdrom0:");
    cdrom.Fail(kInitializeDevice, 1, 1, -5);
    ASSERT_EQ(zkRegisterDevice(&cdrom), 0);
    EXPECT_EQ(zkGetPhysicalPath("cdrom0:/a.bin", out, 260), -23); // its start failed
    EXPECT_EQ(zkGetPhysicalPath("cdrom0:/a.bin", out, 260), 0);   // asked again
    EXPECT_EQ(zkGetPhysicalPath("cdrom0:/b.bin", out, 260), 0);
    EXPECT_EQ(cdrom.Count(kInitializeDevice), 2u);

    // File try counts: kinds 1 to 3 also reach their devices.
    const uint32_t defaults[] = {1, 1, 0xFFFFFFFFu, 1, 1, 1, 0};
    for (uint32_t kind = 0; kind < 7; ++kind)
        EXPECT_EQ(zkGetFileTryCount(kind), defaults[kind]);
    EXPECT_EQ(zkSetFileTryCount(0, 4), 1);
    EXPECT_EQ(zkSetFileTryCount(2, 5), 7); // cdrom0:'s answer
    EXPECT_EQ(zkGetDeviceTryCount("cdrom0:"), 5u);
    EXPECT_EQ(zkSetFileTryCount(3, 2), 0); // no driver claims host0:
    EXPECT_EQ(zkSetFileTryCount(6, 2), -3);
    EXPECT_EQ(zkGetDeviceTryCount(nullptr), 0u);

    // Name calls find the driver by name, path calls resolve first.
    EXPECT_EQ(zkGetPartitionStatus("zz9:"), -23);
    Device().Fail(kCreatePartition, 1, 1, -9);
    EXPECT_EQ(zkCreatePartition("mem:", 0, 0), -9);
    EXPECT_EQ(zkGetDeviceStatus("/m"), -6);
    EXPECT_EQ(zkQueryDeviceInfo("/m/x", 2, 0, 0), 5);
    EXPECT_EQ(zkFormat("/m/disk"), 0);
    EXPECT_EQ(Device().Log({kFormat}).at(0).text, "mem:/disk");
}

} // namespace
} // namespace zktest
