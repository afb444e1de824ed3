// main of every unit test executable.
#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char* argv[])
{
    testing::InitGoogleTest(&argc, argv);
    // The fixed paths that the service uses must be a private world's.
    if (getenv("VY_WORLD") == nullptr && !GTEST_FLAG_GET(list_tests)) {
        fprintf(stderr, "run this through tests/support/world (see docs/TESTING.md)\n");
        return 125;
    }
    return RUN_ALL_TESTS();
}
