// The host driver's object pool and name claims, through the driver itself.
#include "file/host_device.h"

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(HostDevice, ClaimsDrivesNetworkPathsAndNamesWithoutAColon) {
    zk::DeviceDriver* host = zk::HostDeviceDriver();
    struct {
        const char* name;
        int32_t result;
    } const cases[] = {
        {"C:\\x", 0},   {"c:", 0},      {"\\\\server\\x", 0}, {"data/x.bin", 0}, {"", 0},
        {"kiv0:x", -6}, {"host0:", -6}, {"hdd0:/x", -6},      {"ab:c", -6},      {"1:x", -6},
    };
    for (const auto& c : cases)
        EXPECT_EQ(host->MatchName(c.name), c.result) << c.name;
}

TEST(HostDevice, PoolOf32FileObjectsGivesAClosedOneBack) {
    zk::DeviceDriver* host = zk::HostDeviceDriver();
    zk::FileObject* taken[zk::kHostFileCount];
    std::set<zk::FileObject*> distinct;
    for (auto& file : taken) {
        file = host->CreateFileObject();
        ASSERT_NE(file, nullptr);
        distinct.insert(file);
    }
    EXPECT_EQ(distinct.size(), zk::kHostFileCount);
    EXPECT_EQ(host->CreateFileObject(), nullptr);
    // A free object that never opened a file answers the host failure codes.
    uint32_t size = 0, got = 0;
    char byte;
    EXPECT_EQ(taken[7]->GetSize(&size), -35);
    EXPECT_EQ(taken[7]->ReadAt(0, &byte, 1, &got, 0), -37);
    EXPECT_EQ(taken[7]->Write(&byte, 1, &got), -36);
    EXPECT_EQ(taken[7]->Close(), 0);
    EXPECT_EQ(host->CreateFileObject(), taken[7]);
    for (auto* file : taken)
        file->Close();
}

} // namespace
