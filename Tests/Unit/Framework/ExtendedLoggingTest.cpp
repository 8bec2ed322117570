#include "Common/UtiliaCommon/ExtendedLogging.h"

#include <gtest/gtest.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia {
namespace {

class ExtendedLogging : public testing::Test {
protected:
    ExtendedLogging() { installProductLogging(); }
    ~ExtendedLogging() override {
        setExtendedLoggingProbe(nullptr);
        setLogSink(nullptr);
    }

    static void set(Value value) {
        platform::UserDefaults::initWithDomain("com.korvane.utilia")
            ->setObject(std::move(value), "ExtendedLogging");
    }

    test::TemporaryHome home_;
};

TEST_F(ExtendedLogging, IsOffUntilTheAgentsPreferencesSayOtherwise) {
    EXPECT_FALSE(KUIsExtendedLoggingOn());
    set(true);
    EXPECT_TRUE(KUIsExtendedLoggingOn());
    set(false);
    EXPECT_FALSE(KUIsExtendedLoggingOn());
}

TEST_F(ExtendedLogging, IsReadAsABoolean) {
    set("YES");
    EXPECT_TRUE(KUIsExtendedLoggingOn());
    set(Array{true});
    EXPECT_FALSE(KUIsExtendedLoggingOn());
}

}  // namespace
}  // namespace utilia
