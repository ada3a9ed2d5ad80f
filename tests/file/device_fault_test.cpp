// Device faults: each slot of the driver fails at each position of a working
// sequence (open, pieced reads, seek, read at an offset, size, write, close, a
// listing). Whatever fails, no handle, file object, listing or block is left
// behind; with more tries than failures the sequence succeeds.
#include "file/memory_device.h"

namespace zktest {
namespace {

// The working sequence; true when every step succeeded.
bool RunSequence() {
    bool ok = true;
    char buffer[64];
    uint32_t got = 0, position = 0, size = 0;
    if (FileHandle* f = zkOpenFile("/m/data.bin", ZK_OPEN_READ, 0)) {
        ok = zkReadFile(f, buffer, 40, &got) == 0 && got == 40 && ok;
        ok = zkSeekFile(f, 5, ZK_SEEK_SET, &position) == 0 && position == 5 && ok;
        ok = zkReadFileOffset(f, 50, buffer, 20, &got, 0) == 0 && got == 20 && ok;
        ok = zkGetFileSize(f, &size) == 0 && size == 100 && ok;
        zkCloseFile(f);
    } else {
        ok = false;
    }
    if (FileHandle* f = zkOpenFile("/m/out.bin", ZK_OPEN_WRITE | ZK_OPEN_CREATE, 0)) {
        ok = zkWriteFile(f, "written", 7, &got) == 0 && got == 7 && ok;
        zkCloseFile(f);
    } else {
        ok = false;
    }
    if (DirHandle* d = zkOpenDir("/m/")) {
        char entry[64];
        int names = 0;
        while (zkReadDir(d, entry) > 0)
            ++names;
        ok = names >= 2 && ok;
        zkCloseDir(d);
    } else {
        ok = false;
    }
    return ok;
}

class DeviceFaults : public MemoryDeviceTest {
protected:
    void SetUp() override {
        MemoryDeviceTest::SetUp();
        std::string data(100, '\0');
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = char(i);
        Device().Put("mem:/data.bin", data);
    }
};

TEST_F(DeviceFaults, AFailureAtAnySlotAndPositionLeavesNothingBehind) {
    const int slots[] = {kFileOpen,   kFileClose, kFileGetSize, kFileRead,
                         kFileReadAt, kFileSeek,  kDirOpen,     kDirClose};
    ASSERT_TRUE(RunSequence());
    const uint32_t blocks = UsedBlocks();
    int failed = 0;
    for (int code : {-35, -51, -57}) {
        for (int slot : slots) {
            for (int64_t k = 1; k <= 6; ++k) {
                Device().Reset();
                Device().Put("mem:/data.bin", std::string(100, 'x'));
                Device().plan.piece = 16; // reads come in pieces
                Device().plan.faults[slot] = {k, k + 1, code};
                failed += !RunSequence();
                EXPECT_EQ(Codes({zkGetOpenFileCount(), Device().ObjectsOut(), UsedBlocks()}),
                          Codes({0, 0, blocks}))
                    << "slot " << slot << " call " << k << " code " << code;
            }
        }
    }
    // The faults reached the sequence: every slot but the two closes (whose
    // failures nobody sees) failed it at least once for each code.
    EXPECT_GE(failed, 7 * 3);
    // Sixteen worker nodes served every operation above: none was lost.
    EXPECT_TRUE(RunSequence());
}

TEST_F(DeviceFaults, TriesBeyondTheFailuresHideThem) {
    Device().plan.tries = 3;
    Device().plan.piece = 16;
    for (int slot : {kFileRead, kFileReadAt, kFileSeek, kFileGetSize}) {
        Device().plan.faults[slot] = {1, 3, -35}; // the first two calls fail
        EXPECT_TRUE(RunSequence()) << "slot " << slot;
        Device().plan.faults[slot] = {};
    }
}

} // namespace
} // namespace zktest
