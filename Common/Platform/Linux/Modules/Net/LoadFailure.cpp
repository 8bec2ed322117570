#include "Common/Platform/Linux/Modules/Net/LoadFailure.h"

#include <cerrno>

#include <ifaddrs.h>
#include <net/if.h>

namespace utilia::platform::net {
namespace {

// OpenSSL's X509_V_ERR_…, which are part of its documented interface.
URLErrorCode codeOfCertificate(long verifyResult) {
    switch (verifyResult) {
    case 9:  // not yet valid
        return URLErrorCode::ServerCertificateNotYetValid;
    case 10:  // has expired
        return URLErrorCode::ServerCertificateHasBadDate;
    case 2:   // no issuer's certificate
    case 18:  // signed by itself
    case 19:  // a chain that ends in one signed by itself
    case 20:  // no issuer's certificate here
    case 21:  // a single one, which cannot be judged
        return URLErrorCode::ServerCertificateHasUnknownRoot;
    default:  // another's name, among others
        return URLErrorCode::ServerCertificateUntrusted;
    }
}

URLErrorCode codeOfConnecting(const LoadFailure& failure) {
    const bool isWithoutRoute =
        failure.systemError == ENETUNREACH || failure.systemError == ENETDOWN;
    return isWithoutRoute && !failure.isOnline ? URLErrorCode::NotConnectedToInternet
                                               : URLErrorCode::CannotConnectToHost;
}

}  // namespace

URLErrorCode codeOfFailure(const LoadFailure& failure) {
    if (failure.connectAnswer / 100 > 2) return URLErrorCode::CannotConnectToHost;
    switch (failure.code) {
    case CURLE_URL_MALFORMAT:
        return URLErrorCode::BadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return failure.isOnline ? URLErrorCode::CannotFindHost
                                : URLErrorCode::NotConnectedToInternet;
    case CURLE_COULDNT_CONNECT:
    case CURLE_PROXY:
        return codeOfConnecting(failure);
    case CURLE_OPERATION_TIMEDOUT:
        // A name server, or a host, that has not answered in the time libcurl gives each.
        return URLErrorCode::TimedOut;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2_STREAM:
        return URLErrorCode::NetworkConnectionLost;
    case CURLE_UNSUPPORTED_PROTOCOL:  // a status line that is none; addresses are checked before
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_HTTP2:
        return URLErrorCode::BadServerResponse;
    case CURLE_OUT_OF_MEMORY:  // also for a header that is longer than libcurl takes
        return failure.isInHead ? URLErrorCode::BadServerResponse : URLErrorCode::Unknown;
    case CURLE_BAD_CONTENT_ENCODING:
        return URLErrorCode::CannotDecodeContentData;
    case CURLE_FILESIZE_EXCEEDED:
        return URLErrorCode::DataLengthExceedsMaximum;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
        return codeOfCertificate(failure.verifyResult);
    case CURLE_SSL_CLIENTCERT:
        return URLErrorCode::ClientCertificateRequired;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_USE_SSL_FAILED:
        return URLErrorCode::SecureConnectionFailed;
    default:
        return URLErrorCode::Unknown;
    }
}

const char* meaningOf(URLErrorCode code) {
    switch (code) {
    case URLErrorCode::Cancelled:
        return "cancelled";
    case URLErrorCode::BadURL:
        return "this is no address of the web";
    case URLErrorCode::TimedOut:
        return "the server has been silent for too long";
    case URLErrorCode::UnsupportedURL:
        return "nothing is loaded from such an address";
    case URLErrorCode::CannotFindHost:
        return "the host cannot be found";
    case URLErrorCode::CannotConnectToHost:
        return "the host cannot be connected to";
    case URLErrorCode::NetworkConnectionLost:
        return "the connection was lost";
    case URLErrorCode::HTTPTooManyRedirects:
        return "the server redirects too often";
    case URLErrorCode::NotConnectedToInternet:
        return "this machine is not connected to a network";
    case URLErrorCode::BadServerResponse:
        return "the server answers what is not HTTP";
    case URLErrorCode::CannotDecodeContentData:
        return "the content cannot be unpacked";
    case URLErrorCode::DataLengthExceedsMaximum:
        return "the content is too large";
    case URLErrorCode::SecureConnectionFailed:
        return "no secure connection can be made";
    case URLErrorCode::ServerCertificateHasBadDate:
        return "the server's certificate has expired";
    case URLErrorCode::ServerCertificateNotYetValid:
        return "the server's certificate is not valid yet";
    case URLErrorCode::ServerCertificateHasUnknownRoot:
        return "the server's certificate is from nobody who is trusted";
    case URLErrorCode::ServerCertificateUntrusted:
        return "the server's certificate cannot be trusted";
    case URLErrorCode::ClientCertificateRequired:
        return "the server wants a certificate";
    default:
        return "the address cannot be loaded";
    }
}

bool isMachineOnline() {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) return true;
    bool isOnline = false;
    for (const ifaddrs* each = all; each; each = each->ifa_next) {
        const unsigned flags = each->ifa_flags;
        isOnline |= (flags & IFF_UP) && (flags & IFF_RUNNING) && !(flags & IFF_LOOPBACK);
    }
    freeifaddrs(all);
    return isOnline;
}

}  // namespace utilia::platform::net
