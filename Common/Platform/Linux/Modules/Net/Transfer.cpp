#include "Common/Platform/Linux/Modules/Net/Transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include <sys/socket.h>

#include "Common/Platform/Linux/Modules/Net/LoadFailure.h"

// Redirects are followed here and not by libcurl: so each request has the proxy of its own scheme, a
// name and a password go to nobody but the host that they were given for, and those in the address
// of a redirect to nobody at all.
//
// The clock for silence begins to run when the request does: when its host is looked up, a socket
// is opened for it, or it gets a connection that is there already. Before that, it waits for its
// turn.

namespace utilia::platform::net {
namespace {

constexpr int kMostRedirects = 16;
constexpr std::uint64_t kMostHeaders = 256 * 1024;  // of a load, in bytes; libcurl has 300 KiB

struct AddressCleanup {
    void operator()(CURLU* address) const { curl_url_cleanup(address); }
};
using Address = std::unique_ptr<CURLU, AddressCleanup>;

std::string partOf(CURLU* address, CURLUPart part, unsigned flags = 0) {
    char* text = nullptr;
    if (curl_url_get(address, part, &text, flags) != CURLUE_OK || !text) return "";
    const std::unique_ptr<char, void (*)(void*)> owned(text, curl_free);
    return text;
}

std::string originOf(CURLU* address) {
    return partOf(address, CURLUPART_SCHEME) + "://" + partOf(address, CURLUPART_HOST) + ":" +
           partOf(address, CURLUPART_PORT, CURLU_DEFAULT_PORT);
}

std::string variable(const char* name) {
    const char* value = std::getenv(name);
    return value ? value : "";
}

bool isRedirect(long statusCode) {
    switch (statusCode) {
    case 301:
    case 302:
    case 303:
    case 307:
    case 308:
        return true;
    default:
        return false;
    }
}

// A far end must not overflow.
Clock::duration durationOf(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(std::min(seconds, 1e9)));
}

// Not worth a parser before the load's time has come.
std::string serverOf(const std::string& url) {
    return url.substr(0, url.find_first_of("/?#", url.find("://") + 3));
}

}  // namespace

Transfer::Transfer(const UtiliaNetRequest& request, const UtiliaNetClient& client)
    : client_(client), certificateFile_(variable("SSL_CERT_FILE")),
      certificateFolder_(variable("SSL_CERT_DIR")), idle_(durationOf(request.idleSeconds)),
      end_(Clock::now() + durationOf(request.totalSeconds)), maximumSize_(request.maximumSize),
      url_(request.url), server_(serverOf(url_)) {
    bool isGiven = false;
    proxies_ = proxiesOfEnvironment(&isGiven);
    asksDesktop_ = !isGiven && isInDesktop();
}

Clock::time_point Transfer::deadline() const {
    return hasBegun() ? std::min(end_, lastActivity_ + idle_) : end_;
}

Clock::time_point Transfer::earliestDeadline() const {
    return std::min(end_, (hasBegun() ? lastActivity_ : handedOver_) + idle_);
}

bool Transfer::prepare(CURL* easy, std::uint32_t number, const ProxySettings& desktop) try {
    if (asksDesktop_) proxies_ = desktop;
    easy_ = easy;
    const auto set = [easy](CURLoption option, auto value) {
        if (curl_easy_setopt(easy, option, value) == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
    };
    set(CURLOPT_PRIVATE, reinterpret_cast<void*>(static_cast<std::uintptr_t>(number)));
    set(CURLOPT_ERRORBUFFER, detail_.data());
    set(CURLOPT_NOSIGNAL, 1L);
    // A load that is given up does not wait for the name server's answer.
    set(CURLOPT_QUICK_EXIT, 1L);
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_USERAGENT, "UtiliaCommon/" UTILIA_VERSION);
    set(CURLOPT_ACCEPT_ENCODING, "");
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    set(CURLOPT_MAXFILESIZE_LARGE,
        static_cast<curl_off_t>(std::min<std::uint64_t>(maximumSize_, std::uint64_t{1} << 62)));
    if (!certificateFile_.empty()) set(CURLOPT_CAINFO, certificateFile_.c_str());
    if (!certificateFolder_.empty()) set(CURLOPT_CAPATH, certificateFolder_.c_str());
    set(CURLOPT_HEADERFUNCTION, &Transfer::headerArrived);
    set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    set(CURLOPT_WRITEFUNCTION, &Transfer::bodyArrived);
    set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    set(CURLOPT_XFERINFOFUNCTION, &Transfer::progressed);
    set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_PREREQFUNCTION, &Transfer::prepared);
    set(CURLOPT_PREREQDATA, static_cast<void*>(this));
    set(CURLOPT_RESOLVER_START_FUNCTION, &Transfer::resolving);
    set(CURLOPT_RESOLVER_START_DATA, static_cast<void*>(this));
    set(CURLOPT_OPENSOCKETFUNCTION, &Transfer::openSocket);
    set(CURLOPT_OPENSOCKETDATA, static_cast<void*>(this));
    // libcurl reads addresses itself; here they are only of interest for whom a password is.
    if (server_.find('@') == std::string::npos) return setRequest(easy, url_, false);
    const Address address(curl_url());
    if (!address) throw std::bad_alloc();
    if (curl_url_set(address.get(), CURLUPART_URL, url_.c_str(), 0) != CURLUE_OK) {
        fail(URLErrorCode::BadURL);
        return false;
    }
    user_ = partOf(address.get(), CURLUPART_USER, CURLU_URLDECODE);
    password_ = partOf(address.get(), CURLUPART_PASSWORD, CURLU_URLDECODE);
    origin_ = originOf(address.get());
    return setAddress(easy, address.get());
} catch (const std::bad_alloc&) {
    fail(URLErrorCode::Unknown, "out of memory");
    return false;
}

// Of the next request. May throw std::bad_alloc.
bool Transfer::setAddress(CURL* easy, CURLU* address) {
    curl_url_set(address, CURLUPART_USER, nullptr, 0);
    curl_url_set(address, CURLUPART_PASSWORD, nullptr, 0);
    const std::string url = partOf(address, CURLUPART_URL);
    if (url.empty()) throw std::bad_alloc();
    return setRequest(easy, url, !user_.empty() && originOf(address) == origin_);
}

bool Transfer::setRequest(CURL* easy, const std::string& url, bool isWithPassword) {
    const auto set = [easy](CURLoption option, const char* text) {
        return curl_easy_setopt(easy, option, text) == CURLE_OK;
    };
    const bool isSet = set(CURLOPT_URL, url.c_str()) &&
                       set(CURLOPT_USERNAME, isWithPassword ? user_.c_str() : nullptr) &&
                       set(CURLOPT_PASSWORD, isWithPassword ? password_.c_str() : nullptr) &&
                       // Also when they are empty: so libcurl does not read the environment.
                       set(CURLOPT_PROXY, proxies_.forURL(url).c_str()) &&
                       set(CURLOPT_NOPROXY, proxies_.exceptions.c_str());
    if (!isSet) throw std::bad_alloc();
    // By this, libcurl divides the time among several addresses of a host.
    setConnectLimit(idle_);
    lastActivity_ = kNotBegun;
    handedOver_ = Clock::now();
    loaded_ = 0;
    isInHead_ = false;
    return true;
}

void Transfer::setConnectLimit(Clock::duration limit) {
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit).count();
    isConnectLimited_ = limit == idle_;
    curl_easy_setopt(easy_, CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(std::clamp<Clock::rep>(milliseconds, 1, 2'000'000'000)));
}

// A host that talks, if only about how to talk in secret, has been connected to.
void Transfer::dataArrived() {
    touch();
    if (isConnectLimited_) setConnectLimit(std::chrono::hours(24 * 7));
}

bool Transfer::goOn(CURL* easy, CURLcode code) try {
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &statusCode_);
    if (error_ != URLErrorCode{0}) return false;
    if (code == CURLE_OK && isInHead_) {
        // libcurl takes the end of a connection for the end of the headers.
        fail(URLErrorCode::NetworkConnectionLost, "in the middle of the headers");
        return false;
    }
    if (code == CURLE_OK) return isRedirect(statusCode_) && follow(easy);
    LoadFailure failure{.code = code, .isOnline = true, .isInHead = isInHead_};
    curl_easy_getinfo(easy, CURLINFO_SSL_VERIFYRESULT, &failure.verifyResult);
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &failure.systemError);
    curl_easy_getinfo(easy, CURLINFO_HTTP_CONNECTCODE, &failure.connectAnswer);
    if (code == CURLE_COULDNT_RESOLVE_HOST || code == CURLE_COULDNT_RESOLVE_PROXY ||
        code == CURLE_COULDNT_CONNECT) {
        failure.isOnline = isMachineOnline();
    }
    fail(codeOfFailure(failure), detail_[0] ? detail_.data() : curl_easy_strerror(code));
    return false;
} catch (const std::bad_alloc&) {
    fail(URLErrorCode::Unknown, "out of memory");
    return false;
}

// False, too, when the answer leads nowhere and so is the last one.
bool Transfer::follow(CURL* easy) {
    const char* location = nullptr;
    curl_easy_getinfo(easy, CURLINFO_REDIRECT_URL, &location);
    if (!location) return false;
    if (++redirects_ > kMostRedirects) {
        fail(URLErrorCode::HTTPTooManyRedirects);
        return false;
    }
    const std::string_view target(location);
    const std::string_view scheme = target.substr(0, target.find(':'));
    if (!curl_strequal(std::string(scheme).c_str(), "http") &&
        !curl_strequal(std::string(scheme).c_str(), "https")) {
        fail(URLErrorCode::UnsupportedURL, ("a redirect to " + std::string(scheme)).c_str());
        return false;
    }
    const Address address(curl_url());
    if (!address) throw std::bad_alloc();
    if (curl_url_set(address.get(), CURLUPART_URL, location, 0) != CURLUE_OK) {
        fail(URLErrorCode::BadURL, "of a redirect");
        return false;
    }
    return setAddress(easy, address.get());
}

void Transfer::fail(URLErrorCode code, const char* detail) {
    if (error_ != URLErrorCode{0}) return;
    error_ = code;
    std::snprintf(message_.data(), message_.size(), "%s%s%s", meaningOf(code), *detail ? ": " : "",
                  detail);
}

void Transfer::finish() noexcept {
    const bool isError = error_ != URLErrorCode{0};
    const UtiliaNetResult result{static_cast<std::int32_t>(error_),
                                 isError ? 0 : static_cast<std::int32_t>(statusCode_),
                                 message_.data()};
    client_.finished(client_.context, &result);
}

bool Transfer::takeHeader(std::string_view line) {
    touch();
    // What comes behind a body in chunks is not the head of a response.
    if (line.starts_with("HTTP/")) isInHead_ = true;
    if (line == "\r\n" || line == "\n") isInHead_ = false;
    headerSize_ += line.size();
    if (headerSize_ <= kMostHeaders) return true;
    fail(URLErrorCode::BadServerResponse, "headers without an end");
    return false;
}

bool Transfer::takeBody(const std::uint8_t* bytes, std::size_t size) {
    touch();
    bodySize_ += size;
    if (bodySize_ > maximumSize_) {
        fail(URLErrorCode::DataLengthExceedsMaximum);
        return false;
    }
    long statusCode = 0;
    curl_easy_getinfo(easy_, CURLINFO_RESPONSE_CODE, &statusCode);
    if (isRedirect(statusCode)) return true;
    curl_off_t announced = 0;
    if (!std::exchange(hasReceived_, true))
        curl_easy_getinfo(easy_, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
    const auto expected = static_cast<std::uint64_t>(std::max<curl_off_t>(announced, 0));
    if (client_.received(client_.context, bytes, size, expected) == UtiliaNetTakenAll) return true;
    fail(URLErrorCode::Unknown, "out of memory");
    return false;
}

std::size_t Transfer::headerArrived(char* bytes, std::size_t size, std::size_t count, void* self) {
    const std::string_view line(bytes, size * count);
    return static_cast<Transfer*>(self)->takeHeader(line) ? line.size() : 0;
}

std::size_t Transfer::bodyArrived(char* bytes, std::size_t size, std::size_t count, void* self) {
    const auto* start = reinterpret_cast<const std::uint8_t*>(bytes);
    return static_cast<Transfer*>(self)->takeBody(start, size * count) ? size * count : 0;
}

// Also told of what does not reach the body: data that are still packed, or of a redirect.
int Transfer::progressed(void* self, curl_off_t, curl_off_t loaded, curl_off_t, curl_off_t) {
    auto& transfer = *static_cast<Transfer*>(self);
    if (loaded == transfer.loaded_) return 0;
    transfer.loaded_ = loaded;
    transfer.touch();
    if (loaded < 0 || static_cast<std::uint64_t>(loaded) <= transfer.maximumSize_) return 0;
    transfer.fail(URLErrorCode::DataLengthExceedsMaximum);
    return 1;
}

int Transfer::prepared(void* self, char*, char*, int, int) {
    static_cast<Transfer*>(self)->touch();
    return CURL_PREREQFUNC_OK;
}

int Transfer::resolving(void*, void*, void* self) {
    static_cast<Transfer*>(self)->touch();
    return 0;
}

// What this process starts must not inherit it.
curl_socket_t Transfer::openSocket(void* self, curlsocktype, curl_sockaddr* address) {
    auto& transfer = *static_cast<Transfer*>(self);
    if (!transfer.hasBegun()) transfer.touch();
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

}  // namespace utilia::platform::net
