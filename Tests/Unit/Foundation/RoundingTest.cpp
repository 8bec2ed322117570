#include "Common/Foundation/Rounding.h"

#include <cmath>

#include <gtest/gtest.h>

using namespace utilia;

TEST(Rounding, GoesDownToTheNextWholeNumberLikeTheMathematicsLibrary) {
    for (const double number :
         {0.0, -0.0, 0.5, -0.5, 1.0, -1.0, 1.999, -1.001, 1e15 + 0.5, -1e15 - 0.5,
          4503599627370495.5, -4503599627370495.5, 9007199254740993.0, 1e300, -1e300, HUGE_VAL,
          -HUGE_VAL, 5e-324, -5e-324}) {
        EXPECT_EQ(roundedDown(number), std::floor(number)) << number;
    }
    EXPECT_TRUE(std::isnan(roundedDown(std::nan(""))));
}
