#include <gtest/gtest.h>

#include "Tests/Support/ChildRole.h"

int main(int argc, char** argv) {
    int status = 0;
    if (utilia::test::runChildRole(argc, argv, &status)) return status;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
