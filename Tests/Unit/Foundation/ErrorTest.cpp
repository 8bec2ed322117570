#include "Common/Foundation/Error.h"

#include <cerrno>

#include <gtest/gtest.h>

#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Result.h"

using namespace utilia;

TEST(Error, NamesTheCallAndItsObject) {
    const Error error = Error::posix(ENOSPC, "rename", "/x/state");

    EXPECT_EQ(error.domain, "NSPOSIXErrorDomain");
    EXPECT_EQ(error.code, ENOSPC);
    EXPECT_EQ(error.description, "rename /x/state: No space left on device");
    EXPECT_TRUE(error.isPosix(ENOSPC));
    EXPECT_FALSE(error.isPosix(EACCES));
}

TEST(Error, LeavesOutAnObjectThatThereIsNot) {
    EXPECT_EQ(Error::posix(EMFILE, "socket", "").description, "socket: Too many open files");
}

TEST(Error, PutsContextBeforeTheDescriptionAndKeepsTheCode) {
    const Error error = Error::utilia(UtiliaErrorCode::Busy, "lock /x is held");
    const Error inContext = error.withContext("save icon");

    EXPECT_EQ(inContext.description, "save icon: lock /x is held");
    EXPECT_TRUE(inContext.is(UtiliaErrorCode::Busy));
    EXPECT_FALSE(inContext.is(UtiliaErrorCode::NotFound));
}

TEST(Error, KeepsDomainsApart) {
    const Error cocoa = Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt, "no property list");

    EXPECT_EQ(cocoa.domain, "NSCocoaErrorDomain");
    EXPECT_EQ(cocoa.code, 3840);
    EXPECT_FALSE(cocoa.isPosix(3840));
    EXPECT_NE(Error::posix(1, "open", "x"),
              Error::utilia(UtiliaErrorCode::Busy, "open x: Operation not permitted"));
}

TEST(Result, HoldsAValueOrAnError) {
    const Result<std::string> good(std::string("text"));
    const Result<std::string> bad(Error::utilia(UtiliaErrorCode::Refused, "too large"));

    EXPECT_TRUE(good);
    EXPECT_EQ(*good, "text");
    EXPECT_EQ(good->size(), 4u);
    EXPECT_FALSE(bad);
    EXPECT_EQ(bad.error().description, "too large");
    EXPECT_EQ(bad.value_or("other"), "other");
    EXPECT_TRUE(Result<void>());
    EXPECT_FALSE(Result<void>(Error::utilia(UtiliaErrorCode::Busy, "held")));
}

TEST(Handle, EndsItsRegistrationOnce) {
    int ended = 0;
    {
        Handle handle([&ended] { ++ended; });
        Handle moved(std::move(handle));
        EXPECT_TRUE(moved);
        moved.reset();
        moved.reset();
        EXPECT_EQ(ended, 1);
    }
    EXPECT_EQ(ended, 1);
}

TEST(Handle, EndsTheOldRegistrationWhenItTakesAnother) {
    std::string ended;
    Handle handle([&ended] { ended += "a"; });

    handle = Handle([&ended] { ended += "b"; });
    EXPECT_EQ(ended, "a");
    handle = Handle();
    EXPECT_EQ(ended, "ab");
}
