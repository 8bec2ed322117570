#pragma once

#include <curl/curl.h>

#include "Common/Foundation/Error.h"

namespace utilia::platform::net {

// What is known when libcurl has given up.
struct LoadFailure {
    CURLcode code = CURLE_OK;
    long verifyResult = 0;   // of the certificate: X509_V_ERR_…
    long systemError = 0;    // errno of the last connection
    long connectAnswer = 0;  // a proxy's answer to CONNECT
    bool isOnline = true;    // this machine has a network beyond itself
    bool isInHead = false;   // a response had begun and its headers had not ended
};

// The number of the original platform for it. Pure.
URLErrorCode codeOfFailure(const LoadFailure& failure);

// What the number means, in a few words.
const char* meaningOf(URLErrorCode code);

// Whether a network interface other than the loopback is up.
bool isMachineOnline();

}  // namespace utilia::platform::net
