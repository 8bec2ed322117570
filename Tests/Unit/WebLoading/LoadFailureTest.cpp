#include <cerrno>

#include <gtest/gtest.h>

#include "Common/Platform/Linux/Modules/Net/LoadFailure.h"

namespace utilia::platform::net {
namespace {

TEST(LoadFailure, HasTheNumberOfTheOriginalPlatform) {
    const std::pair<CURLcode, URLErrorCode> table[] = {
        {CURLE_URL_MALFORMAT, URLErrorCode::BadURL},
        {CURLE_COULDNT_RESOLVE_HOST, URLErrorCode::CannotFindHost},
        {CURLE_COULDNT_RESOLVE_PROXY, URLErrorCode::CannotFindHost},
        {CURLE_COULDNT_CONNECT, URLErrorCode::CannotConnectToHost},
        {CURLE_PROXY, URLErrorCode::CannotConnectToHost},
        {CURLE_OPERATION_TIMEDOUT, URLErrorCode::TimedOut},
        {CURLE_SEND_ERROR, URLErrorCode::NetworkConnectionLost},
        {CURLE_RECV_ERROR, URLErrorCode::NetworkConnectionLost},
        {CURLE_GOT_NOTHING, URLErrorCode::NetworkConnectionLost},
        {CURLE_PARTIAL_FILE, URLErrorCode::NetworkConnectionLost},
        {CURLE_HTTP2_STREAM, URLErrorCode::NetworkConnectionLost},
        {CURLE_UNSUPPORTED_PROTOCOL, URLErrorCode::BadServerResponse},
        {CURLE_WEIRD_SERVER_REPLY, URLErrorCode::BadServerResponse},
        {CURLE_HTTP2, URLErrorCode::BadServerResponse},
        {CURLE_BAD_CONTENT_ENCODING, URLErrorCode::CannotDecodeContentData},
        {CURLE_FILESIZE_EXCEEDED, URLErrorCode::DataLengthExceedsMaximum},
        {CURLE_SSL_CONNECT_ERROR, URLErrorCode::SecureConnectionFailed},
        {CURLE_SSL_CACERT_BADFILE, URLErrorCode::SecureConnectionFailed},
        {CURLE_PEER_FAILED_VERIFICATION, URLErrorCode::ServerCertificateUntrusted},
        {CURLE_OUT_OF_MEMORY, URLErrorCode::Unknown},
        {CURLE_FAILED_INIT, URLErrorCode::Unknown},
    };
    for (const auto& [code, number] : table) {
        EXPECT_EQ(codeOfFailure({.code = code}), number) << int{code};
    }
}

TEST(LoadFailure, OfACertificateSaysWhatIsWrongWithIt) {
    const std::pair<long, URLErrorCode> table[] = {
        {0, URLErrorCode::ServerCertificateUntrusted},
        {9, URLErrorCode::ServerCertificateNotYetValid},
        {10, URLErrorCode::ServerCertificateHasBadDate},
        {18, URLErrorCode::ServerCertificateHasUnknownRoot},
        {20, URLErrorCode::ServerCertificateHasUnknownRoot},
        {62, URLErrorCode::ServerCertificateUntrusted},
    };
    for (const auto& [result, number] : table) {
        EXPECT_EQ(codeOfFailure({.code = CURLE_PEER_FAILED_VERIFICATION, .verifyResult = result}),
                  number)
            << result;
    }
}

TEST(LoadFailure, IsTheMachinesOwnWhenItHasNoNetwork) {
    EXPECT_EQ(codeOfFailure({.code = CURLE_COULDNT_RESOLVE_HOST, .isOnline = false}),
              URLErrorCode::NotConnectedToInternet);
    EXPECT_EQ(codeOfFailure(
                  {.code = CURLE_COULDNT_CONNECT, .systemError = ENETUNREACH, .isOnline = false}),
              URLErrorCode::NotConnectedToInternet);
    EXPECT_EQ(codeOfFailure({.code = CURLE_COULDNT_CONNECT, .systemError = ENETUNREACH}),
              URLErrorCode::CannotConnectToHost);
    EXPECT_EQ(codeOfFailure(
                  {.code = CURLE_COULDNT_CONNECT, .systemError = ECONNREFUSED, .isOnline = false}),
              URLErrorCode::CannotConnectToHost);
}

TEST(LoadFailure, OfAProxyThatRefusesIsNoConnection) {
    EXPECT_EQ(codeOfFailure({.code = CURLE_RECV_ERROR, .connectAnswer = 407}),
              URLErrorCode::CannotConnectToHost);
    EXPECT_EQ(codeOfFailure({.code = CURLE_RECV_ERROR, .connectAnswer = 200}),
              URLErrorCode::NetworkConnectionLost);
}

TEST(LoadFailure, OfAHeaderThatIsTooLongIsABadResponse) {
    EXPECT_EQ(codeOfFailure({.code = CURLE_OUT_OF_MEMORY, .isInHead = true}),
              URLErrorCode::BadServerResponse);
}

}  // namespace
}  // namespace utilia::platform::net
