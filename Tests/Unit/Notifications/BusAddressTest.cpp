#include "Common/Platform/Linux/BusAddress.h"

#include <cstdlib>
#include <fstream>

#include <gtest/gtest.h>

#include "Tests/Support/TemporaryHome.h"

namespace utilia::platform {
namespace {

class BusAddress : public testing::Test {
protected:
    std::string standardAddress() const {
        return "unix:path=" + (home_.runtime() / "bus").string();
    }
    test::TemporaryHome home_;
};

TEST_F(BusAddress, WithoutAVariableTheStandardSocketIsMeant) {
    EXPECT_EQ(sessionBusAddress(), standardAddress());
}

TEST_F(BusAddress, AStandardSocketThatIsNotThereCannotBeReached) {
    EXPECT_EQ(reachableSessionBusAddress(), std::nullopt);
    std::ofstream(home_.runtime() / "bus") << "here";
    EXPECT_EQ(reachableSessionBusAddress(), standardAddress());
}

TEST_F(BusAddress, TheVariableGoesBeforeTheStandardSocket) {
    std::ofstream(home_.runtime() / "bus") << "here";
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/somewhere/else", 1);
    EXPECT_EQ(sessionBusAddress(), "unix:path=/somewhere/else");
    EXPECT_EQ(reachableSessionBusAddress(), "unix:path=/somewhere/else");
}

TEST_F(BusAddress, AnEmptyVariableIsNone) {
    setenv("DBUS_SESSION_BUS_ADDRESS", "", 1);
    EXPECT_EQ(sessionBusAddress(), standardAddress());
}

TEST_F(BusAddress, ABusThatWouldHaveToBeStartedIsNone) {
    setenv("DBUS_SESSION_BUS_ADDRESS", "autolaunch:", 1);
    EXPECT_EQ(sessionBusAddress(), std::nullopt);
    EXPECT_EQ(reachableSessionBusAddress(), std::nullopt);
}

TEST_F(BusAddress, WithoutARuntimeFolderThereIsNone) {
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(sessionBusAddress(), std::nullopt);
    EXPECT_EQ(reachableSessionBusAddress(), std::nullopt);
    setenv("XDG_RUNTIME_DIR", "relative", 1);
    EXPECT_EQ(sessionBusAddress(), std::nullopt);
}

TEST_F(BusAddress, OnlyLocalSocketsAreKept) {
    const std::pair<const char*, std::optional<std::string>> table[] = {
        {"unix:path=/a", "unix:path=/a"},
        {"unix:abstract=/tmp/x,guid=12", "unix:abstract=/tmp/x,guid=12"},
        {"autolaunch:;unix:path=/a", "unix:path=/a"},
        {"unix:path=/a;tcp:host=127.0.0.1,port=1;unix:path=/b", "unix:path=/a;unix:path=/b"},
        {";;unix:path=/a;", "unix:path=/a"},
        {"tcp:host=127.0.0.1,port=1", std::nullopt},
        {"unixexec:path=/bin/false", std::nullopt},
        {"nonsense", std::nullopt},
        {"", std::nullopt},
        {";", std::nullopt},
    };
    for (const auto& [addresses, kept] : table)
        EXPECT_EQ(socketAddresses(addresses), kept) << addresses;
}

TEST_F(BusAddress, APathIsEscapedAsDBusAsks) {
    EXPECT_EQ(socketAddress("/run/user/1000/bus"), "unix:path=/run/user/1000/bus");
    EXPECT_EQ(socketAddress("/a b;c,d=e%f"), "unix:path=/a%20b%3bc%2cd%3de%25f");
    EXPECT_EQ(socketAddress("/\xc3\xa9"), "unix:path=/%c3%a9");
}

}  // namespace
}  // namespace utilia::platform
