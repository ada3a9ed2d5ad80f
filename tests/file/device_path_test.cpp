// Devices, paths and mounts: full paths, splitting, resolution, mount rules, device calls.
#include "file/memory_device.h"

namespace zktest {
namespace {

using Paths = MemoryDeviceTest;

// Each vtable slot's distance from its place in the list (Itanium ABI: 1 + byte offset).
template <typename... F> std::vector<size_t> SlotsOf(F... f) {
    std::vector<size_t> slots;
    auto add = [&](auto pointer) {
        uintptr_t raw;
        std::memcpy(&raw, &pointer, sizeof raw);
        slots.push_back((raw - 1) / sizeof(void*) - slots.size());
    };
    (add(f), ...);
    return slots;
}

TEST(DriverInterface, SlotsStandInTheirFixedOrder) {
    using D = zk::DeviceDriver;
    using F = zk::FileObject;
    using R = zk::DirObject;
    EXPECT_EQ(SlotsOf(&D::MatchName, &D::InitializeDevice, &D::TerminateDevice, &D::Reserved3,
                      &D::ConvertPath, &D::GetTryCount, &D::SetTryCount, &D::CreateFileObject,
                      &D::Reserved8, &D::Mount, &D::Unmount, &D::Format, &D::DumpDir, &D::MakeDir,
                      &D::RemoveDir, &D::GetFileTime, &D::SetFileTime, &D::DeleteFile, &D::OpenDir,
                      &D::QueryDeviceInfo, &D::ControlDevice, &D::GetPartitionStatus,
                      &D::CreatePartition, &D::DeletePartition, &D::GetUnit),
              std::vector<size_t>(25, 0));
    EXPECT_EQ(SlotsOf(&F::IsImmediate, &F::Open, &F::Close, &F::GetSize, &F::Read, &F::ReadAt,
                      &F::Write, &F::Seek),
              std::vector<size_t>(8, 0));
    EXPECT_EQ(SlotsOf(&R::Open, &R::Close, &R::Read), std::vector<size_t>(3, 0));
}

TEST_F(Paths, FullPathsAgainstTheWorkingDirectory) {
    // Working directory (null: unchanged), path, full path, size asked for.
    // The size counts the root working directory's one character, which the
    // full path does not copy.
    // clang-format off
    const char* cases[][4] = {
        {nullptr, "data/a.bin", "/data/a.bin", "13"}, {nullptr, "./a.bin", "/a.bin", "8"},
        {nullptr, "././a", "/./a", "6"}, {nullptr, "/x", "/x", "3"}, {nullptr, "C:\\x", "C:\\x", "5"},
        {nullptr, "kiv0:/x", "kiv0:/x", "8"}, {nullptr, "\\\\srv\\x", "\\\\srv\\x", "8"},
        {"/game", "a.bin", "/game/a.bin", "12"}, {"/game/", "", "/game", "6"},
        {"/", "a.bin", "a.bin", "6"}, {"data/", "a.bin", "data/a.bin", "11"}};
    // clang-format on
    for (const auto& c : cases) {
        if (c[0]) zkSetWorkDir(c[0]);
        const uint32_t needed = static_cast<uint32_t>(std::stoul(c[3]));
        char out[260] = "untouched", small[64] = "untouched";
        EXPECT_EQ(zkGetFullPath(c[1], out, sizeof(out)), needed) << c[1];
        EXPECT_STREQ(out, c[2]);
        EXPECT_EQ(zkGetFullPath(c[1], small, needed - 1), needed); // too small: untouched
        EXPECT_STREQ(small, "untouched");
    }
    EXPECT_EQ(zkGetFullPath(nullptr, nullptr, 0), 0u);
}

TEST(SplitPath, DirectoryNameAndExtension) {
    // Path, directory, name, extension, "!" when too long: a.b/c has its dot in
    // the directory, so its extension of 4 characters does not fit.
    // clang-format off
    const char* cases[][5] = {
        {"/data/stage1.map", "/data/", "stage1", ".map", ""}, {"readme", "", "readme", "", ""},
        {"/x", "/", "x", "", ""}, {"a\\b.c", "a\\", "b", ".c", ""}, {"a.b/c", "a.b/", "", ".b/c", "!"}};
    // clang-format on
    for (const auto& c : cases) {
        char dir[32] = "", name[32] = "", ext[32] = "";
        EXPECT_EQ(zkSplitPath(c[0], dir, 32, name, 32, ext, 32), c[4][0] ? -33 : 0) << c[0];
        EXPECT_EQ(std::string(dir) + "|" + name + "|" + ext,
                  std::string(c[1]) + "|" + c[2] + "|" + c[3]);
    }
    char small[4]; // a part fills its buffer but for the terminator; skipped parts need none
    EXPECT_EQ(Codes({zkSplitPath("a.map", nullptr, 0, nullptr, 0, small, 4),
                     zkSplitPath("a.bin", nullptr, 0, small, 2, nullptr, 0),
                     zkSplitPath(nullptr, small, 4, nullptr, 0, nullptr, 0)}),
              Codes({-33, 0, -3}));
}

TEST_F(Paths, ResolutionThroughMounts) {
    ASSERT_EQ(Codes({zkMount("/", "mem:/R", 0), zkMount("/data/", "mem:/D", 0),
                     zkMount("/dup", "mem:/first", 0), zkMount("/dup", "mem:/second", 0),
                     zkMount("/u", "mem:/U", ZK_MOUNT_UPPERCASE)}),
              Codes(5, 0));
    // Longest prefix, later record of the same path, /data not matching /database.
    // clang-format off
    const char* cases[][2] = {
        {"/data/x", "mem:/D/x"}, {"/data\\x", "mem:/D\\x"}, {"/data", "mem:/D"}, {"/", "mem:/R"},
        {"/database/x", "mem:/R/database/x"}, {"/a", "mem:/R/a"}, {"/dup/a", "mem:/second/a"},
        {"/u/abc.Bin", "mem:/U/ABC.BIN"}, {"mem:own", "mem:own"}};
    // clang-format on
    char out[260];
    for (const auto& c : cases) {
        EXPECT_EQ(zkGetPhysicalPath(c[0], out, sizeof(out)), 0) << c[0];
        EXPECT_STREQ(out, c[1]);
    }
    std::strcpy(out, "/data/self"); // resolved in place
    EXPECT_EQ(zkGetPhysicalPath(out, out, sizeof(out)), 0);
    EXPECT_STREQ(out, "mem:/D/self");
    // "mem:/D/x" is 8 characters: a buffer of 9 holds it, one of 8 does not.
    EXPECT_EQ(
        Codes({zkGetPhysicalPath("/data/x", out, 9), zkGetPhysicalPath("/data/x", out, 8),
               zkGetPhysicalPath("mem:ab", out, 6), zkGetPhysicalPath("hdd9:/a", out, 260),
               zkGetPhysicalPath("/a", out, 0), zkUnmountAll(), zkGetPhysicalPath("/a", out, 260)}),
        Codes({0, -33, -33, -23, -3, 0, -42}));
}

TEST_F(Paths, MountRulesAndDeviceCalls) {
    const std::string tooLong = "/" + std::string(260, 'a');
    EXPECT_EQ(
        Codes({zkMount(nullptr, "mem:", 0), zkMount("data", "mem:", 0), zkMount("/x", "zz9:", 0),
               zkMount(tooLong.c_str(), "mem:", 0), zkUnmount("/"), zkUnmount("/m/"),
               zkUnmount("/m"), zkRegisterDevice(nullptr), zkGetPartitionStatus("zz9:"),
               zkCreatePartition("mem:", 0, 0), zkQueryDeviceInfo("mem:x", 2, 0, 0),
               zkGetDeviceStatus("mem:"), zkSetFileTryCount(6, 2)}),
        Codes({-3, -43, -23, -26, -42, 0, -42, -3, -23, 0, 5, -6, -3}));
}

TEST_F(Paths, TablesOfMountsListingsAndDrivers) {
    // "/" and "/m" hold two of the 16 mount records.
    Codes mounts, expected(14, 0);
    for (int i = 0; i < 15; ++i)
        mounts.push_back(zkMount(("/t" + std::to_string(i)).c_str(), "mem:", 0));
    expected.push_back(-39);
    EXPECT_EQ(mounts, expected);
    EXPECT_EQ(Codes({zkUnmount("/t3"), zkMount("/again", "mem:", 0), zkMount("/more", "mem:", 0)}),
              Codes({0, 0, -39}));

    // 64 listings open at once; the 65th waits for a close.
    Device().Put("mem:/d/x", "1");
    std::vector<DirHandle*> dirs;
    for (int i = 0; i < 64; ++i)
        dirs.push_back(zkOpenDir("/m/d"));
    EXPECT_EQ(std::count(dirs.begin(), dirs.end(), nullptr), 0);
    EXPECT_EQ(zkOpenDir("/m/d"), nullptr);
    zkCloseDir(dirs[10]);
    dirs[10] = zkOpenDir("/m/d");
    EXPECT_NE(dirs[10], nullptr);
    for (DirHandle* d : dirs)
        zkCloseDir(d);

    // Drivers stay registered for the life of the process, so the device
    // table is filled in a child: registrations succeed until 16 drivers are
    // in it, and the next one is refused with -19.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            uint32_t added = 0;
            int32_t result = 0;
            while (added < 20 && (result = zkRegisterDevice(&Device())) == 0)
                ++added;
            std::exit(result == -19 && added > 0 && added < 16 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace zktest
