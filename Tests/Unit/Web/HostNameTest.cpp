#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Common/Platform/Linux/HostName.h"
#include "Common/UtiliaCommon/Web/HostReachability.h"
#include "Tests/Support/TestLog.h"

using utilia::HostReachability;
using utilia::platform::lookupHostName;
using utilia::test::TestLog;

namespace {

// "aaa…" of 63 characters, three times, and one label more: 63 * 3 + 3 dots + the rest.
std::string longName(std::size_t size) {
    const std::string label(63, 'a');
    const std::string start = label + "." + label + "." + label + ".";
    return start + std::string(size - start.size(), 'b');
}

TEST(HostName, TakesNamesAndAddresses) {
    for (const std::string name :
         {"example.org", "localhost", "a", "A-1.b_c", "example.org.", "127.0.0.1", "::1",
          "2001:db8::7", "127.1", "1.2.3.4.5", "-dash-.org"}) {
        EXPECT_EQ(lookupHostName(name), name);
    }
    EXPECT_EQ(lookupHostName(longName(253)), longName(253));
    EXPECT_EQ(lookupHostName(longName(253) + "."), longName(253) + ".");
    EXPECT_EQ(lookupHostName(std::string(63, 'x')), std::string(63, 'x'));
}

TEST(HostName, TurnsUnicodeIntoAscii) {
    EXPECT_EQ(lookupHostName("bücher.example"), "xn--bcher-kva.example");
    EXPECT_EQ(lookupHostName("例え。テスト"), "xn--r8jz45g.xn--zckzah");
}

TEST(HostName, RefusesWhatIsNone) {
    using namespace std::string_literals;
    for (const std::string& name : {
             ""s,
             "."s,
             ".."s,
             ".org"s,
             "a..b"s,
             "a b"s,
             " a"s,
             "a/b"s,
             "a:80"s,
             "a\0b"s,
             "\0"s,
             "a\n"s,
             "user@a"s,
             "[::1]"s,
             "fe80::1%lo"s,
             "*.org"s,
             "a%41"s,
             "\xff\xfe"s,
             std::string(64, 'x'),
             longName(254),
             std::string(100'000, 'a'),
             "ü"s + std::string(63, 'x'),
         }) {
        EXPECT_EQ(lookupHostName(name), std::nullopt) << name.substr(0, 80);
    }
}

TEST(HostReachability, IsNilForWhatIsNoHostWithOneLogLine) {
    using namespace std::string_literals;
    for (const std::string& name : {""s, "a b"s, "a\0b"s, std::string(64, 'x')}) {
        const TestLog log;
        EXPECT_EQ(HostReachability::initWithHostName(name), nullptr) << name;
        ASSERT_EQ(log.lines().size(), 1u) << name;
        EXPECT_TRUE(log.lines()[0].ends_with(" cannot be watched: this is no name of a host"))
            << log.lines()[0];
    }
}

TEST(HostReachability, IsNilForAUrlWithoutAHost) {
    for (const char* url : {"", "/path", "mailto:somebody@example.org", "file:///etc/hosts",
                            "https://", "https:///path", "://example.org", "https://[::1",
                            "https://user@/", "example.org", "https://a b/"}) {
        const TestLog log;
        EXPECT_EQ(HostReachability::initWithURL(url), nullptr) << url;
        EXPECT_EQ(log.lines().size(), 1u) << url;
    }
}

}  // namespace
