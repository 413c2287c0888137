// One transfer on a libcurl easy handle: setting the handle up from a URLRequest, reading the
// response's head and body, and building the request a redirect leads to.

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <initializer_list>
#include <limits>

#include "platform/ascii.hpp"
#include "platform/url_session_engine.hpp"

namespace zul {

namespace {

constexpr std::size_t notActive = std::numeric_limits<std::size_t>::max();

long milliseconds(double seconds) noexcept {
    constexpr double longest = static_cast<double>(std::numeric_limits<long>::max() / 2);
    if (!(seconds > 0)) return 0;
    return static_cast<long>(std::min(seconds * 1000.0, longest));
}

// Appends "Name: value" to a header list, the form libcurl sends as it is ("Name;" sends a field
// with an empty value, which "Name:" would remove instead).
curl_slist* appendHeader(curl_slist* list, std::string& line, std::string_view name, std::string_view value) {
    line.assign(name);
    if (value.empty()) {
        line += ';';
    } else {
        line += ": ";
        line += value;
    }
    curl_slist* appended = curl_slist_append(list, line.c_str());
    if (appended == nullptr) fatalError("out of memory building request headers");
    return appended;
}

// The first of `names` that is set (an empty value counts: it says "none"), or null.
const char* firstSetVariable(std::initializer_list<const char*> names) {
    for (const char* name : names) {
        if (const char* value = std::getenv(name)) return value;
    }
    return nullptr;
}

}  // namespace

// ---- Proxies from the environment.

// libcurl's own rules, read once: "<scheme>_proxy" (for http only the lower-case name, which a
// CGI program's request headers cannot set), then "all_proxy"; "no_proxy" names the hosts
// reached directly. libcurl would otherwise read them on every transfer.
void URLSession::Engine::readProxyEnvironment() {
    if (configuration.proxy) return;
    const auto orAll = [](const char* value) { return value != nullptr ? value : firstSetVariable({"all_proxy", "ALL_PROXY"}); };
    const char* http = orAll(firstSetVariable({"http_proxy"}));
    const char* https = orAll(firstSetVariable({"https_proxy", "HTTPS_PROXY"}));
    const char* direct = firstSetVariable({"no_proxy", "NO_PROXY"});
    httpProxy_ = http != nullptr ? http : "";
    httpsProxy_ = https != nullptr ? https : "";
    noProxy_ = direct != nullptr ? direct : "";
}

// ---- Slots.

TransferSlot& URLSession::Engine::acquireSlot() {
    TransferSlot* slot = nullptr;
    if (!freeSlots_.empty()) {
        // A handle keeps what every transfer shares; configure() sets the rest each time.
        slot = freeSlots_.back();
        freeSlots_.pop_back();
    } else {
        auto made = std::make_unique<TransferSlot>();
        made->easy = curl_easy_init();
        made->url = curl_url();
        if (made->easy == nullptr || made->url == nullptr) fatalError("curl_easy_init failed");
        made->engine = this;
        slot = made.get();
        slots_.push_back(std::move(made));
        setSharedOptions(*slot);
    }
    slot->activeIndex = notActive;
    slot->errorText[0] = '\0';
    return *slot;
}

// The options that are the same for every transfer of this session.
void URLSession::Engine::setSharedOptions(TransferSlot& slot) {
    CURL* easy = slot.easy;
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_PRIVATE, static_cast<void*>(&slot));
    curl_easy_setopt(easy, CURLOPT_CURLU, slot.url);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, slot.errorText);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Engine::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, static_cast<void*>(&slot));
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Engine::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, static_cast<void*>(&slot));
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);  // a proxy's CONNECT answer is not the response
    // Redirects go through the delegate; the session follows them itself.
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));

    // TLS.
    const long verify = configuration.tlsVerifyPeer ? 1L : 0L;
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, verify);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, configuration.tlsVerifyPeer ? 2L : 0L);
    if (configuration.caInfoFile) {
        // CAINFO replaces the default bundle; the default directory keeps the system's CAs.
        curl_easy_setopt(easy, CURLOPT_CAINFO, configuration.caInfoFile->c_str());
        if (const char* systemPath = curl_version_info(CURLVERSION_NOW)->capath) {
            curl_easy_setopt(easy, CURLOPT_CAPATH, systemPath);
        }
    }
    if (configuration.proxy) {
        curl_easy_setopt(easy, CURLOPT_PROXY, configuration.proxy->c_str());
    } else {
        curl_easy_setopt(easy, CURLOPT_NOPROXY, noProxy_.c_str());
    }
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, std::max(1L, static_cast<long>(configuration.connectionIdleTimeout)));
}

void URLSession::Engine::releaseSlot(TransferSlot& slot) {
    if (slot.activeIndex != notActive) {
        curl_multi_remove_handle(multi_, slot.easy);
        if (slot.mayMultiplex) --multiplexCandidates_;
        TransferSlot* last = active_.back();
        active_[slot.activeIndex] = last;
        last->activeIndex = slot.activeIndex;
        active_.pop_back();
        slot.activeIndex = notActive;
    }
    if (slot.state != nullptr) {
        slot.state->slot = nullptr;
        leaveHost(*slot.state);
        slot.state = nullptr;
    }
    slot.task.reset();
    freeSlots_.push_back(&slot);
}

// ---- Setting a transfer up.

// Sets the easy handle up for the task's current request. Returns the error that stops the
// task before it reaches the wire, if any.
std::optional<URLError> URLSession::Engine::configure(TransferSlot& slot, URLSessionTask::State& state) {
    // Only the transfer thread writes the current request, so it reads it without the lock; the
    // body libcurl sends from stays where it is until the transfer ends.
    const URLRequest& request = state.currentRequest;
    if (!request.url()) return URLError(URLError::badURL, "the request has no URL");
    const std::string& url = request.url()->absoluteString();
    const std::string_view scheme = request.url()->scheme();
    const bool https = detail::equalsIgnoringASCIICase(scheme, "https");
    if (!https && !detail::equalsIgnoringASCIICase(scheme, "http")) {
        return URLError(URLError::unsupportedURL, "unsupported scheme \"" + std::string(scheme) + "\"");
    }

    CURL* easy = slot.easy;
    if (slot.urlText != url) {
        // Emptied first: a handle that holds a URL would resolve the new text against it.
        curl_url_set(slot.url, CURLUPART_URL, nullptr, 0);
        const CURLUcode parsed = curl_url_set(slot.url, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME);
        if (parsed != CURLUE_OK) {
            slot.urlText.clear();
            return URLError(parsed == CURLUE_OUT_OF_MEMORY ? URLError::unknown : URLError::badURL,
                            curl_url_strerror(parsed));
        }
        slot.urlText = url;
    }
    // Options a handle keeps from its previous transfer are set only when they change.
    // Over TLS, wait for a connection that may turn out to multiplex instead of opening another.
    if (slot.mayMultiplex != https) curl_easy_setopt(easy, CURLOPT_PIPEWAIT, https ? 1L : 0L);
    slot.mayMultiplex = https;
    if (!configuration.proxy) {
        // "" tells libcurl there is none, so that it does not look in the environment itself.
        const std::string& proxy = https ? httpsProxy_ : httpProxy_;
        if (slot.proxy != &proxy) {
            curl_easy_setopt(easy, CURLOPT_PROXY, proxy.c_str());
            slot.proxy = &proxy;
        }
    }

    // Time-outs: the idle one is the engine's own (checkIdle), libcurl's connect time-out is
    // lifted to match it, and the resource time-out, also checked by the engine, bounds what is
    // left of the whole task.
    slot.idleTimeout = detail::idleTimeout(request.timeoutInterval(), configuration.timeoutIntervalForRequest);
    const long connectMs =
        static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(slot.idleTimeout).count());
    if (slot.connectTimeoutMs != connectMs) {
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, connectMs);
        slot.connectTimeoutMs = connectMs;
    }
    const double resourceLeft = configuration.timeoutIntervalForResource -
                                std::chrono::duration<double>(now_ - state.startedAt).count();
    if (resourceLeft <= 0) return URLError(URLError::timedOut, "the resource time-out has passed");
    slot.resourceDeadline = now_ + std::chrono::milliseconds(std::max(1L, milliseconds(resourceLeft)));

    // Method and body: the request's method is sent exactly as given. A handle that last sent
    // something other than a plain GET first forgets it (setting the fields makes a POST, so
    // they go before HTTPGET).
    const std::string& method = request.httpMethod();
    const std::optional<Data>& body = request.httpBody();
    const bool plainGet = method == "GET" && !body;
    if (!plainGet || !slot.plainGet) {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, static_cast<const void*>(nullptr));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(-1));
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr));
    }
    slot.plainGet = plainGet;
    if (method == "HEAD") {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
        if (body || method == "POST") {
            const Data* bytes = body ? &*body : nullptr;
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(bytes != nullptr ? bytes->size() : 0));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS,
                             bytes != nullptr && !bytes->empty() ? static_cast<const void*>(bytes->data()) : "");
        }
        if (method != "GET" || body) {
            if (method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
    }

    // Headers: the request's, then the configuration's where the request has none of that name.
    // libcurl would hold a large body back for "100 Continue", a round trip the platform does
    // not make.
    const HTTPHeaders& fields = request.allHTTPHeaderFields();
    const bool noExpect = body && !fields.contains("Expect");
    const bool sameFields = slot.headersSet && slot.headersNoExpect == noExpect &&
                            std::equal(fields.begin(), fields.end(), slot.headersFrom.begin(), slot.headersFrom.end());
    if (!sameFields) {
        curl_slist* headers = nullptr;
        for (const auto& [name, value] : fields) headers = appendHeader(headers, headerLine_, name, value);
        for (const auto& [name, value] : configuration.httpAdditionalHeaders) {
            if (!fields.contains(name)) headers = appendHeader(headers, headerLine_, name, value);
        }
        if (noExpect) {
            curl_slist* appended = curl_slist_append(headers, "Expect:");
            if (appended == nullptr) fatalError("out of memory building request headers");
            headers = appended;
        }
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
        curl_slist_free_all(slot.headers);
        slot.headers = headers;
        slot.headersFrom = fields;
        slot.headersNoExpect = noExpect;
        slot.headersSet = true;
    }
    return std::nullopt;
}

// ---- Reading the response.

// Header lines, one call each: the status line starts a response (a 1xx is followed by the
// real one), fields accumulate as text, and the empty line ends the head: then the response is
// known and published for any thread to read. Lines after that are trailers, which the platform
// does not report.
std::size_t URLSession::Engine::onHeader(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto& slot = *static_cast<TransferSlot*>(user);
    URLSessionTask::State& state = *slot.state;
    const std::size_t length = size * count;
    slot.lastActivity = slot.engine->now_;
    std::string_view line(buffer, length);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);

    if (line.starts_with("HTTP/")) {
        state.status = 0;
        const std::size_t space = line.find(' ');
        if (space != std::string_view::npos) {
            const std::string_view code = line.substr(space + 1, 3);
            std::from_chars(code.data(), code.data() + code.size(), state.status);
        }
        slot.head.clear();
        state.headHasLocation = false;
        state.headersComplete = false;
        return length;
    }
    if (state.headersComplete) return length;  // trailers
    if (line.empty()) {
        if (state.status >= 100 && state.status < 200) return length;  // interim; the real one follows
        state.headersComplete = true;
        state.holdingRedirect = detail::isRedirectStatus(state.status) && state.headHasLocation;
        Engine& engine = *slot.engine;
        // Tasks made from now on reserve room for a head like this one (bounded, so that one
        // huge head does not cost every later task).
        constexpr std::size_t largestReserve = 4096;
        if (slot.head.size() > engine.headReserve() && slot.head.size() <= largestReserve) {
            engine.headReserve_.store(slot.head.size(), std::memory_order_relaxed);
        }
        const std::lock_guard lock(state.mutex);
        state.publishedHead.assign(slot.head);
        state.publishedStatus = state.status;
        state.headPublished = true;
        state.response.reset();
        return length;
    }
    constexpr std::string_view location = "location:";
    if ((line.front() | 0x20) == 'l' && line.size() >= location.size() &&
        detail::equalsIgnoringASCIICase(line.substr(0, location.size()), location)) {
        state.headHasLocation = true;
    }
    // Kept as it came, line end and all: the parser trims it, and this runs for every line of
    // every response. The slot's buffer keeps its storage from one transfer to the next.
    slot.head.append(buffer, length);
    if (buffer[length - 1] != '\n') slot.head += '\n';
    return length;
}

std::shared_ptr<const HTTPURLResponse> URLSessionTask::State::responseLocked() {
    if (!response && headPublished) {
        // The head is only needed again when another one replaces it.
        response = std::make_shared<const HTTPURLResponse>(
            HTTPURLResponse::fromHeadLines(currentRequest.url(), publishedStatus, std::move(publishedHead)));
    }
    return response;
}

std::size_t URLSession::Engine::onBody(char* buffer, std::size_t size, std::size_t count, void* user) {
    auto& slot = *static_cast<TransferSlot*>(user);
    URLSessionTask::State& state = *slot.state;
    Engine& engine = *slot.engine;
    const std::size_t length = size * count;
    slot.lastActivity = engine.now_;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(buffer);
    if (state.body.capacity() == 0 && !engine.spareBodies_.empty()) {
        state.body = std::move(engine.spareBodies_.back());
        engine.spareBodies_.pop_back();
    }
    state.body.insert(state.body.end(), bytes, bytes + length);
    state.bytesReceived.fetch_add(static_cast<std::int64_t>(length), std::memory_order_relaxed);
    // Bytes of a completion-handler task, or of a redirect that may be followed, wait for the end.
    if (!state.hasCompletionHandler && !state.holdingRedirect && !state.queuedForDelivery) {
        state.queuedForDelivery = true;
        engine.received_.push_back(&state);
    }
    return length;
}

// ---- Redirects.

namespace detail {

std::optional<URLRequest> redirectedRequest(const URLRequest& current, std::int64_t status, std::string_view location) {
    if (!current.url()) return std::nullopt;
    CURLU* handle = curl_url();
    if (handle == nullptr) return std::nullopt;
    std::optional<URL> target;
    const std::string base = current.url()->absoluteString();
    const std::string reference(trimmedFieldText(location));
    constexpr unsigned flags = CURLU_NON_SUPPORT_SCHEME;
    if (curl_url_set(handle, CURLUPART_URL, base.c_str(), flags) == CURLUE_OK &&
        curl_url_set(handle, CURLUPART_URL, reference.c_str(), flags) == CURLUE_OK) {
        char* resolved = nullptr;
        if (curl_url_get(handle, CURLUPART_URL, &resolved, 0) == CURLUE_OK) {
            target = URL::fromString(resolved);
            curl_free(resolved);
        }
    }
    curl_url_cleanup(handle);
    if (!target) return std::nullopt;

    URLRequest next = current;
    next.setURL(std::move(target));
    const std::string& method = current.httpMethod();
    const bool toGet = ((status == 301 || status == 302) && method == "POST") || (status == 303 && method != "HEAD");
    if (toGet) {
        next.setHTTPMethod("GET");
        next.setHTTPBody(std::nullopt);
    }
    return next;
}

}  // namespace detail

}  // namespace zul
