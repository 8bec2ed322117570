#include "Common/UtiliaCommon/SandboxDialogDelegate.h"

#include <gtest/gtest.h>

namespace utilia {
namespace {

TEST(SandboxDialogDelegate, EnablesTheOneLocationAndNeitherParentsNorChildren) {
    const SandboxDialogDelegate delegate("file:///home/a/Pictures/");
    EXPECT_EQ(delegate.url(), "file:///home/a/Pictures/");
    EXPECT_TRUE(delegate.panel(nullptr, "file:///home/a/Pictures/"));
    for (const char* other :
         {"file:///home/a/", "file:///home/a/Pictures/2026/", "file:///home/a/Pictures",
          "file:///home/a/pictures/", "file://localhost/home/a/Pictures/",
          "file:///home/a/./Pictures/", "/home/a/Pictures/", ""}) {
        EXPECT_FALSE(delegate.panel(nullptr, other)) << other;
    }
}

TEST(SandboxDialogDelegate, ComparesTheTextAndDecodesNothing) {
    const SandboxDialogDelegate delegate("file:///A%20B");
    EXPECT_TRUE(delegate.panel(nullptr, "file:///A%20B"));
    EXPECT_FALSE(delegate.panel(nullptr, "file:///A B"));
}

TEST(SandboxDialogDelegate, WithoutALocationEnablesNothing) {
    const SandboxDialogDelegate delegate(std::nullopt);
    EXPECT_EQ(delegate.url(), std::nullopt);
    EXPECT_FALSE(delegate.panel(nullptr, ""));
    EXPECT_FALSE(delegate.panel(nullptr, "file:///"));
}

TEST(SandboxDialogDelegate, DoesNotLookAtThePanel) {
    const SandboxDialogDelegate delegate("file:///A");
    const int panel = 0;
    EXPECT_TRUE(delegate.panel(&panel, "file:///A"));
}

}  // namespace
}  // namespace utilia
