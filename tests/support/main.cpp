// The test programs' entry: remembers the program's path for child programs,
// then runs every test.
#include "support/process.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    zktest::SetTestProgramPath(argc > 0 ? argv[0] : "");
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
