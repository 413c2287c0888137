// URLError and the mapping of libcurl's failures onto the platform's transport error codes.

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "platform/url_session_engine.hpp"

namespace zul {

URLError::URLError(int code, std::string message) : code_(code), message_(std::move(message)) {}

const char* URLError::what() const noexcept {
    switch (code_) {
    case unknown: return "unknown";
    case cancelled: return "cancelled";
    case badURL: return "badURL";
    case timedOut: return "timedOut";
    case unsupportedURL: return "unsupportedURL";
    case cannotFindHost: return "cannotFindHost";
    case cannotConnectToHost: return "cannotConnectToHost";
    case networkConnectionLost: return "networkConnectionLost";
    case httpTooManyRedirects: return "httpTooManyRedirects";
    case notConnectedToInternet: return "notConnectedToInternet";
    case badServerResponse: return "badServerResponse";
    default: return "URLError";
    }
}

std::string URLError::description() const {
    std::string text = "URLError(" + std::to_string(code_);
    const std::string_view name = what();
    if (name != "URLError") {
        text += ' ';
        text += name;
    }
    text += ')';
    if (!message_.empty()) {
        text += ": ";
        text += message_;
    }
    return text;
}

namespace detail {

namespace {

// Failures of the network itself rather than of the peer: the platform reports them as being
// offline, whatever stage of the transfer met them.
bool isUnreachable(long osErrno) noexcept { return osErrno == ENETUNREACH || osErrno == EHOSTUNREACH; }

int codeFor(CURLcode code, long osErrno) noexcept {
    switch (code) {
    case CURLE_OPERATION_TIMEDOUT: return URLError::timedOut;
    case CURLE_UNSUPPORTED_PROTOCOL: return URLError::unsupportedURL;
    case CURLE_URL_MALFORMAT: return URLError::badURL;
    default: break;
    }
    if (isUnreachable(osErrno)) return URLError::notConnectedToInternet;
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
        return URLError::cannotFindHost;
    case CURLE_COULDNT_CONNECT:
        // The kernel gave up on the handshake: the platform calls that a time-out, too.
        return osErrno == ETIMEDOUT ? URLError::timedOut : URLError::cannotConnectToHost;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return URLError::networkConnectionLost;
    case CURLE_GOT_NOTHING:
    case CURLE_WEIRD_SERVER_REPLY:
        return URLError::badServerResponse;
    default:
        return URLError::unknown;
    }
}

}  // namespace

URLError urlErrorFromCurl(CURLcode code, long osErrno, std::string_view message) {
    return URLError(codeFor(code, osErrno), std::string(message.empty() ? curl_easy_strerror(code) : message));
}

std::chrono::seconds idleTimeout(double requestInterval, double configured) noexcept {
    const double interval = requestInterval > 0 ? requestInterval : configured;
    // Whole seconds, as the platform counts them; a positive interval under one second still
    // gives the transfer a second, and nonsense (NaN, non-positive) falls back to the default.
    if (!(interval >= 1.0)) return std::chrono::seconds(interval > 0 ? 1 : 60);
    constexpr double longest = 1e9;  // about 31 years: "never", without overflowing a time point
    return std::chrono::seconds(static_cast<std::int64_t>(std::floor(std::min(interval, longest))));
}

}  // namespace detail

}  // namespace zul
