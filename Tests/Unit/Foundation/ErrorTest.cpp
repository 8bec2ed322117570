#include "Common/Foundation/Error.h"

#include <cerrno>
#include <map>
#include <string>

#include <gtest/gtest.h>

#include "Common/Foundation/Handle.h"
#include "Common/Foundation/Result.h"
#include "Tests/Support/TestVectors.h"

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

TEST(Error, HasTheFileCodesOfTheOriginalPlatform) {
    const std::map<std::string, int> numbers{{"EACCES", EACCES}, {"EFBIG", EFBIG},
                                             {"EISDIR", EISDIR}, {"ENOTDIR", ENOTDIR},
                                             {"EIO", EIO},       {"EMFILE", EMFILE},
                                             {"EPERM", EPERM},   {"ENAMETOOLONG", ENAMETOOLONG},
                                             {"ENOSPC", ENOSPC}, {"EDQUOT", EDQUOT},
                                             {"EROFS", EROFS},   {"EEXIST", EEXIST},
                                             {"EXDEV", EXDEV},   {"ENOTEMPTY", ENOTEMPTY}};
    for (const auto& vector : test::testVectors("error-codes")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const int number = numbers.at(vector.at("input").at("errno").get<std::string>());
        const auto access = vector.at("input").at("direction") == "read"
                                ? Error::FileAccess::Reading
                                : Error::FileAccess::Writing;
        const Error error = Error::cocoa(Error::posix(number, "open", "/x"), access);
        EXPECT_EQ(error.domain, vector.at("expected").at("domain").get<std::string>());
        EXPECT_EQ(error.code, vector.at("expected").at("code").get<int>());
        EXPECT_EQ(error.underlyingPosixCode, number);
    }
}

TEST(Error, HasTheFileCodesThatDependOnTheDirection) {
    const auto code = [](int number, Error::FileAccess access) {
        return Error::cocoa(Error::posix(number, "open", "/x"), access).code;
    };
    EXPECT_EQ(code(ENOENT, Error::FileAccess::Reading), 260);
    EXPECT_EQ(code(ENOENT, Error::FileAccess::Writing), 4);
    EXPECT_EQ(code(EPERM, Error::FileAccess::Reading), 257);
    EXPECT_EQ(code(ENAMETOOLONG, Error::FileAccess::Reading), 258);
    EXPECT_EQ(code(EEXIST, Error::FileAccess::Reading), 256);
    EXPECT_EQ(code(ENOSPC, Error::FileAccess::Reading), 256);
    EXPECT_EQ(code(EFBIG, Error::FileAccess::Writing), 512);
}

TEST(Error, LeavesAnErrorOfAnotherDomainAsItIs) {
    const Error refused = Error::utilia(UtiliaErrorCode::Refused, "too large");
    EXPECT_EQ(Error::cocoa(refused, Error::FileAccess::Reading), refused);
}

TEST(Error, PrintsLikeAnErrorObject) {
    EXPECT_EQ(Error::cocoa(Error::posix(ENOSPC, "write", "/x"), Error::FileAccess::Writing).text(),
              "Error Domain=NSCocoaErrorDomain Code=640 \"write /x: No space left on device\"");
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
