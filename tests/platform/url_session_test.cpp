#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/url_session_engine.hpp"
#include "support/loopback_server.hpp"
#include "support/wait.hpp"
#include "zul/platform/url_session.hpp"

namespace {

using namespace std::chrono_literals;
using zul::Data;
using zul::HTTPURLResponse;
using zul::URL;
using zul::URLError;
using zul::URLRequest;
using zul::URLSession;
using zul::URLSessionConfiguration;
using zul::URLSessionTask;
using zul::URLSessionTaskState;
using zul::test::LoopbackServer;
using zul::test::waitUntil;

URLRequest requestFor(const std::string& url, const char* method = "GET", const char* body = nullptr) {
    URLRequest request(URL::fromString(url));
    request.setHTTPMethod(method);
    if (body != nullptr) request.setHTTPBody(zul::dataFromString(body));
    return request;
}
int codeOf(const std::optional<URLError>& error) { return error ? error->code() : 0; }
std::shared_ptr<URLSessionTask> resumed(URLSession& session, const URLRequest& request) {
    auto task = session.dataTask(request);
    task->resume();
    return task;
}

// Records what a session reports, checking on every callback that it runs on the delegate queue
// and that no other callback runs at the same time.
class Recorder : public zul::URLSessionDelegate {
public:
    struct Outcome {
        std::string body;
        std::optional<URLError> error;
        std::shared_ptr<const HTTPURLResponse> response;
        URLSessionTaskState stateAtCompletion = URLSessionTaskState::running;
        std::size_t receiveCalls = 0;
        bool completed = false;
    };
    using Redirect = std::pair<std::int64_t, std::string>;  // status, new URL

    std::shared_ptr<zul::DispatchQueue> queue = zul::DispatchQueue::create("test.urlsession.delegate");
    std::atomic<bool> refuseRedirects{false};  // else follows

    static std::pair<std::shared_ptr<Recorder>, std::shared_ptr<URLSession>> session(
        const URLSessionConfiguration& configuration = {}) {
        auto recorder = std::make_shared<Recorder>();
        return {recorder, URLSession::create(configuration, recorder, recorder->queue)};
    }

    void didReceive(URLSession&, URLSessionTask& task, const Data& data) override {
        const Enter enter(*this, "data ", &task);
        Outcome& outcome = outcomes_[task.taskIdentifier()];
        if (outcome.completed) misordered_ = true;
        outcome.body.append(data.begin(), data.end());
        ++outcome.receiveCalls;
    }

    void didCompleteWithError(URLSession&, URLSessionTask& task, const std::optional<URLError>& error) override {
        const Enter enter(*this, "complete ", &task);
        Outcome& outcome = outcomes_[task.taskIdentifier()];
        if (std::exchange(outcome.completed, true)) misordered_ = true;
        ++completed_;
        outcome.error = error;
        outcome.response = task.response();
        outcome.stateAtCompletion = task.state();
    }

    void willPerformHTTPRedirection(URLSession&, URLSessionTask& task, const HTTPURLResponse& response,
                                    URLRequest newRequest,
                                    zul::UniqueFunction<void(std::optional<URLRequest>)> handler) override {
        {
            const Enter enter(*this, "redirect ", &task);
            redirects_.push_back({response.statusCode(), newRequest.url()->absoluteString()});
        }
        if (refuseRedirects) {
            handler(std::nullopt);
        } else {  // answered from another thread, as the delegate may
            std::thread([handler = std::move(handler), newRequest]() mutable { handler(newRequest); }).detach();
        }
    }

    void didBecomeInvalid(URLSession&) override { const Enter enter(*this, "invalid", nullptr); }

    std::size_t completedCount() const { return read([&] { return completed_; }); }
    Outcome outcome(std::uint64_t id) const {
        return read([&] { return outcomes_.count(id) != 0 ? outcomes_.at(id) : Outcome{}; });
    }
    std::vector<std::string> log() const { return read([&] { return log_; }); }
    std::vector<Redirect> redirects() const { return read([&] { return redirects_; }); }
    bool oneAtATimeInOrder() const { return !overlapped_ && !misordered_; }
    bool wellBehaved() const { return !offQueue_ && oneAtATimeInOrder(); }

private:
    // Marks a callback's run and logs it; flags callbacks off the delegate queue or running
    // concurrently.
    struct Enter {
        Enter(Recorder& r, const char* what, const URLSessionTask* task) : recorder(r), lock(r.mutex_, std::defer_lock) {
            if (!recorder.queue->isCurrent()) recorder.offQueue_ = true;
            if (recorder.inside_.fetch_add(1) != 0) recorder.overlapped_ = true;
            std::this_thread::yield();  // widens the window in which an overlap would show
            lock.lock();  // only now: the overlap check above must not be serialised by it
            recorder.log_.push_back(what + (task != nullptr ? std::to_string(task->taskIdentifier()) : ""));
        }
        ~Enter() {
            lock.unlock();
            recorder.inside_.fetch_sub(1);
        }
        Recorder& recorder;
        std::unique_lock<std::mutex> lock;
    };
    template <class F>
    std::invoke_result_t<F> read(F f) const {
        const std::lock_guard lock(mutex_);
        return f();
    }

    mutable std::mutex mutex_;
    std::map<std::uint64_t, Outcome> outcomes_;
    std::size_t completed_ = 0;
    std::vector<std::string> log_;
    std::vector<Redirect> redirects_;
    std::atomic<int> inside_{0};
    std::atomic<bool> offQueue_{false}, overlapped_{false}, misordered_{false};
};

// What a completion-handler task was given.
struct Handed {
    std::mutex mutex;
    int calls = 0;
    std::optional<Data> data;
    std::shared_ptr<const HTTPURLResponse> response;
    std::optional<URLError> error;
    std::shared_ptr<URLSessionTask> task;

    Handed() = default;
    Handed(URLSession& session, const URLRequest& request) { start(session, request); }
    URLSession::CompletionHandler handler() {
        return [this](std::optional<Data> d, std::shared_ptr<const HTTPURLResponse> r, std::optional<URLError> e) {
            const std::lock_guard lock(mutex);
            ++calls;
            data = std::move(d);
            response = std::move(r);
            error = std::move(e);
        };
    }
    bool done() {
        const std::lock_guard lock(mutex);
        return calls > 0;
    }
    bool wait() { return waitUntil([this] { return done(); }); }
    void start(URLSession& session, const URLRequest& request) {
        task = session.dataTask(request, handler());
        task->resume();
    }
};

// Runs `count` requests for "/hello" on `session` at once, to the URLs `urlFor(i)` gives, and
// returns how many were answered "hello" with 200.
int fetchMany(URLSession& session, int count, const std::function<std::string(int)>& urlFor) {
    std::atomic<int> succeeded{0}, finished{0};
    std::vector<std::shared_ptr<URLSessionTask>> tasks;
    for (int i = 0; i < count; ++i) {
        tasks.push_back(session.dataTask(requestFor(urlFor(i)), [&](auto data, auto response, auto) {
            if (data == zul::dataFromString("hello") && response && response->statusCode() == 200) ++succeeded;
            ++finished;
        }));
    }
    for (auto& task : tasks) task->resume();
    EXPECT_TRUE(waitUntil([&] { return finished == count; }, 120s));
    for (auto& task : tasks) task->cancel();  // so that no handler outlives the counters
    waitUntil([&] { return finished == count; });
    return succeeded;
}

// Routes shared by most tests. `self` is set once the server exists (handlers read it from the
// server's threads).
void standardRoutes(httplib::Server& s, std::atomic<LoopbackServer*>* self) {
    auto text = [](const char* body, int status = 200, const char* location = nullptr) {
        return [=](const httplib::Request&, httplib::Response& res) {
            res.status = status;
            if (location != nullptr) res.set_header("Location", location);
            res.set_content(body, "text/plain");
        };
    };
    // `count` chunks of `size` bytes, `gap` apart, so that the body arrives over several rounds.
    auto paced = [](std::size_t count, std::size_t size, std::chrono::milliseconds gap, bool lettered) {
        return [=](const httplib::Request&, httplib::Response& res) {
            res.set_chunked_content_provider("text/plain", [=](std::size_t offset, httplib::DataSink& sink) {
                if (offset >= count * size) return sink.done(), true;
                std::this_thread::sleep_for(gap);
                const std::string chunk(size, lettered ? static_cast<char>('a' + offset / size) : 'x');
                return sink.write(chunk.data(), chunk.size());
            });
        };
    };
    s.Get("/hello", text("hello"));
    // Echoes the method, the headers the test asks about and the body.
    auto echo = [](const httplib::Request& req, httplib::Response& res) {
        std::string reply = req.method + "\n";
        for (const char* name : {"X-Custom", "X-Extra", "Content-Type", "Expect"}) {
            reply += std::string(name) + "=" + (req.has_header(name) ? req.get_header_value(name) : "<none>") + "\n";
        }
        res.set_content(reply + "body=" + req.body, "text/plain");
        res.set_header("X-Reply", "yes");
    };
    s.Get("/echo", echo).Post("/echo", echo).Put("/echo", echo).Delete("/echo", echo);
    s.Get("/fail", text("broken", 500));
    s.Get("/big", paced(16, 4096, 1ms, true));  // 64 KiB
    s.Get("/drip", paced(8, 1, 200ms, false));  // 1.6 s, never idle for a whole second
    s.Get("/pause", [self](const httplib::Request& req, httplib::Response& res) {
        self->load()->pause(std::chrono::milliseconds(std::stoi(req.get_param_value("ms"))));
        res.set_content("paused", "text/plain");
    });
    s.Get("/redirect", text("moved", 302, "/hello"));
    s.Post("/see-other", text("see other", 303, "echo"));  // relative to /see-other
    s.Post("/temporary", text("", 307, "/echo"));
    s.Get("/loop", text("", 301, "/loop"));
}

// A bare TCP listener on loopback for peers httplib cannot play (silent, or speaking the proxy
// form of HTTP). On a thread of its own it takes one connection, reads from it until the end of a
// request head or until the peer stops sending, keeps what it read, sends `answer` and closes.
class BareServer {
public:
    explicit BareServer(std::string answer) {
        std::tie(listener_, port_) = zul::test::boundLoopbackSocket();
        if (::listen(listener_, 4) != 0) throw std::runtime_error("cannot listen on loopback");
        thread_ = std::thread([this, answer = std::move(answer)] {
            const int client = ::accept(listener_, nullptr, nullptr);
            if (client < 0) return;
            char buffer[1024];
            ssize_t got = 0;
            const std::lock_guard lock(mutex_);  // the socket is no fence a race checker sees
            while (head_.find("\r\n\r\n") == std::string::npos && (got = ::recv(client, buffer, sizeof buffer, 0)) > 0) {
                head_.append(buffer, static_cast<std::size_t>(got));
            }
            (void)::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
            ::close(client);
        });
    }
    ~BareServer() {
        ::shutdown(listener_, SHUT_RDWR);  // ends an accept still waiting
        thread_.join();
        ::close(listener_);
    }

    static std::string ok(const std::string& body) {
        return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
    }
    std::string origin(const char* scheme = "http") const {
        return std::string(scheme) + "://127.0.0.1:" + std::to_string(port_);
    }
    std::string head() {
        const std::lock_guard lock(mutex_);
        return head_;
    }

private:
    int listener_ = -1, port_ = 0;
    std::mutex mutex_;
    std::string head_;
    std::thread thread_;
};

// Answers after 5 s (or when the server stops).
constexpr const char* slowPath = "/pause?ms=5000";

struct StandardServer {
    std::atomic<LoopbackServer*> self{nullptr};
    LoopbackServer server{[this](httplib::Server& s) { standardRoutes(s, &self); }};
    StandardServer() { self = &server; }
};

// ---- URLError and the pieces of the engine that need no network.

TEST(URLErrorTest, NamesTheCaseAndDescribesCodeNameAndMessage) {
    EXPECT_STREQ(URLError(-1).what(), "unknown");  // the descriptions below show the other names
    EXPECT_EQ(URLError(-1001, "Operation timed out after 2000 milliseconds").description(),
              "URLError(-1001 timedOut): Operation timed out after 2000 milliseconds");
    EXPECT_EQ(URLError(-999).description(), "URLError(-999 cancelled)");
    EXPECT_EQ(URLError(-4242, "odd").description(), "URLError(-4242): odd");
    // Equal by code; the message is only an explanation.
    EXPECT_EQ(URLError(-1004, "a"), URLError(-1004, "b"));
    EXPECT_NE(URLError(-1004), URLError(-1005));
    EXPECT_STREQ(URLError::domain, "NSURLErrorDomain");
}

TEST(URLErrorTest, LibcurlFailuresMapOntoThePlatformCodesAndIdleTimeOutsAreWholeSeconds) {
    using zul::detail::urlErrorFromCurl;
    const struct {
        CURLcode code;
        long osErrno;
        int expected;
    } cases[] = {{CURLE_OPERATION_TIMEDOUT, 0, -1001},      {CURLE_COULDNT_RESOLVE_HOST, 0, -1003},
                 {CURLE_COULDNT_CONNECT, ECONNREFUSED, -1004}, {CURLE_COULDNT_CONNECT, ENETUNREACH, -1009},
                 {CURLE_COULDNT_CONNECT, ETIMEDOUT, -1001},    {CURLE_RECV_ERROR, ECONNRESET, -1005},
                 {CURLE_SEND_ERROR, EHOSTUNREACH, -1009},      {CURLE_PARTIAL_FILE, 0, -1005},
                 {CURLE_GOT_NOTHING, 0, -1011},                {CURLE_UNSUPPORTED_PROTOCOL, 0, -1002},
                 {CURLE_SSL_CONNECT_ERROR, 0, -1}};
    for (const auto& c : cases) EXPECT_EQ(urlErrorFromCurl(c.code, c.osErrno, "").code(), c.expected) << c.code;
    // libcurl's own text, or its description of the code when it gave none.
    EXPECT_EQ(urlErrorFromCurl(CURLE_COULDNT_CONNECT, ECONNREFUSED, "Connection refused").message(), "Connection refused");
    EXPECT_EQ(urlErrorFromCurl(CURLE_GOT_NOTHING, 0, "").message(), curl_easy_strerror(CURLE_GOT_NOTHING));

    // The idle time-out counts whole seconds and falls back to the configuration.
    using zul::detail::idleTimeout;
    EXPECT_EQ(idleTimeout(2.5, 60), 2s);
    EXPECT_EQ(idleTimeout(0, 7.9), 7s);
    EXPECT_EQ(idleTimeout(-3, 15), 15s);
    EXPECT_EQ(idleTimeout(0.4, 60), 1s);  // never under a second
}

TEST(URLErrorTest, ResponseHeadsParseFieldsFoldedLinesAndRepeats) {
    const zul::HTTPHeaders fields = zul::detail::parseHeaderFields(
        "Content-Type:  text/plain \r\nX-Long: first\r\n \tsecond part\r\nSet-Cookie: a=1\nset-cookie: b=2\n"
        "no colon here\n: nameless\nX-Empty:\n");
    EXPECT_EQ(fields.value("content-type"), "text/plain");
    EXPECT_EQ(fields.value("X-Long"), "first second part");
    EXPECT_EQ(fields.value("Set-Cookie"), "a=1,b=2");  // repeats join, whatever the name's case
    EXPECT_EQ(fields.value("X-Empty"), "");
    EXPECT_EQ(fields.size(), 4u);
    EXPECT_TRUE(zul::detail::parseHeaderFields("").empty());
}

TEST(URLErrorTest, RedirectedRequestsResolveTheLocationAndRewriteTheMethodAsThePlatformDoes) {
    const struct {
        const char* method;
        int status;
        const char* location;
        const char* expectedURL;  // "" when the Location names no URL
        const char* expectedMethod;
    } cases[] = {{"POST", 301, "c", "http://h.test/a/c", "GET"},
                 {"POST", 302, "c", "http://h.test/a/c", "GET"},
                 {"POST", 307, "/root", "http://h.test/root", "POST"},
                 {"PUT", 303, "//other.test/x", "http://other.test/x", "GET"},
                 {"PUT", 302, "/x", "http://h.test/x", "PUT"},  // only POST turns into GET
                 {"HEAD", 303, "https://secure.test/", "https://secure.test/", "HEAD"},
                 {"HEAD", 302, "http://bad host/", "", ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.method) + " " + std::to_string(c.status));
        URLRequest request = requestFor("http://h.test/a/b?q=1", c.method, "payload");
        request.setValue("yes", "X-Keep");
        const auto next = zul::detail::redirectedRequest(request, c.status, c.location);
        ASSERT_EQ(next.has_value(), *c.expectedURL != '\0');
        if (!next) continue;
        EXPECT_EQ(next->url()->absoluteString(), c.expectedURL);
        EXPECT_EQ(next->httpMethod(), c.expectedMethod);
        // A method turned into GET loses the body; one kept keeps it. Headers always stay.
        const bool toGet = next->httpMethod() != request.httpMethod();
        EXPECT_EQ(next->httpBody(), toGet ? std::nullopt : std::optional(zul::dataFromString("payload")));
        EXPECT_EQ(next->value("X-Keep"), "yes");
    }
}

// ---- Transfers against a loopback server.

TEST(URLSessionTest, SendsMethodsHeadersAndBodiesAndReportsTheResponse) {
    StandardServer s;
    URLSessionConfiguration configuration;
    configuration.httpAdditionalHeaders.setValue("from-configuration", "X-Extra");
    configuration.httpAdditionalHeaders.setValue("from-configuration", "X-Custom");
    auto [recorder, session] = Recorder::session(configuration);

    const std::string echo = s.server.url("/echo");
    // Large enough for libcurl to want "Expect".
    URLRequest post = requestFor(echo, "POST", std::string(3000, 'p').c_str());
    post.setValue("from-request", "X-Custom");
    post.setValue("application/json", "Content-Type");
    std::vector<std::shared_ptr<URLSessionTask>> tasks;
    for (const URLRequest& request : {requestFor(echo), post, requestFor(echo, "PUT", "put-body"),
                                      requestFor(echo, "DELETE"), requestFor(echo, "HEAD"), requestFor(echo, "POST")}) {
        tasks.push_back(resumed(*session, request));
    }
    ASSERT_TRUE(waitUntil([&] { return recorder->completedCount() == tasks.size(); }));

    auto bodyOf = [&](std::size_t i) { return recorder->outcome(tasks[i]->taskIdentifier()).body; };
    EXPECT_EQ(bodyOf(0), "GET\nX-Custom=from-configuration\nX-Extra=from-configuration\nContent-Type=<none>\n"
                         "Expect=<none>\nbody=");
    EXPECT_EQ(bodyOf(1), "POST\nX-Custom=from-request\nX-Extra=from-configuration\nContent-Type=application/json\n"
                         "Expect=<none>\nbody=" + std::string(3000, 'p'));
    EXPECT_EQ(bodyOf(2).substr(0, 4), "PUT\n");
    EXPECT_NE(bodyOf(2).find("body=put-body"), std::string::npos);
    EXPECT_EQ(bodyOf(3).substr(0, 7), "DELETE\n");
    EXPECT_EQ(bodyOf(4), "");  // HEAD: headers only
    EXPECT_EQ(bodyOf(5).substr(0, 5), "POST\n");

    for (const auto& task : tasks) {
        const auto outcome = recorder->outcome(task->taskIdentifier());
        EXPECT_FALSE(outcome.error) << outcome.error->description();
        ASSERT_TRUE(outcome.response);
        EXPECT_EQ(outcome.response->statusCode(), 200);
        EXPECT_EQ(outcome.response->value("x-reply"), "yes");  // names match in any case
        EXPECT_EQ(outcome.response->url(), task->originalRequest().url());
        EXPECT_EQ(outcome.stateAtCompletion, URLSessionTaskState::completed);
        EXPECT_EQ(task->countOfBytesReceived(), static_cast<std::int64_t>(outcome.body.size()));
    }
    // HEAD: the length of the body it did not send.
    EXPECT_NE(recorder->outcome(tasks[4]->taskIdentifier()).response->value("Content-Length").value_or("0"), "0");
    EXPECT_TRUE(recorder->wellBehaved());

    // Connections are kept and reused: the same requests again, one after the other, open none.
    // One after the other, they also reuse one transfer handle, which must forget each
    // method's settings (HEAD then GET, GET then POST, ...).
    const std::size_t connections = s.server.connectionCount();
    for (const std::size_t i : {4u, 0u, 1u, 3u, 2u, 5u, 0u}) {
        Handed again(*session, tasks[i]->originalRequest());
        ASSERT_TRUE(again.wait());
        EXPECT_FALSE(again.error);
        EXPECT_EQ(zul::stringFromData(again.data.value_or(Data())), bodyOf(i)) << "request " << i;
    }
    EXPECT_EQ(s.server.connectionCount(), connections);
}

TEST(URLSessionTest, DelegateCallbacksArriveOnTheQueueInOrderOneAtATime) {
    StandardServer s;
    // A concurrent queue as delegate queue: the session still calls the delegate one at a time.
    auto recorder = std::make_shared<Recorder>();
    recorder->queue = zul::DispatchQueue::global();
    auto session = URLSession::create(URLSessionConfiguration(), recorder, recorder->queue);
    std::vector<std::shared_ptr<URLSessionTask>> tasks;
    for (int i = 0; i < 8; ++i) tasks.push_back(resumed(*session, requestFor(s.server.url(i % 2 == 0 ? "/big" : "/hello"))));
    ASSERT_TRUE(waitUntil([&] { return recorder->completedCount() == tasks.size(); }));
    // (Jobs of the serial queue the session puts in front of a global queue do not count as
    // the global queue's own, so only order and exclusion are checked here.)
    EXPECT_TRUE(recorder->oneAtATimeInOrder());

    std::string expectedBig;
    for (int chunk = 0; chunk < 16; ++chunk) expectedBig += std::string(4096, static_cast<char>('a' + chunk));
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        const auto outcome = recorder->outcome(tasks[i]->taskIdentifier());
        EXPECT_EQ(outcome.body, i % 2 == 0 ? expectedBig : "hello");
    }
    // The big bodies came in over time: gathered per round, so in several calls but far fewer
    // than libcurl's writes.
    EXPECT_GT(recorder->outcome(tasks[0]->taskIdentifier()).receiveCalls, 1u);
}

TEST(URLSessionTest, CompletionHandlerTasksGetDataResponseOrThePlatformErrorOnce) {
    StandardServer s;
    auto [recorder, session] = Recorder::session();
    BareServer closer("");  // reads the request and closes the connection without answering

    Handed ok(*session, requestFor(s.server.url("/big")));
    Handed serverError(*session, requestFor(s.server.url("/fail")));
    Handed refused(*session, requestFor("http://127.0.0.1:" + std::to_string(zul::test::unusedLoopbackPort()) + "/"));
    Handed unknownHost(*session, requestFor("http://nonexistent.invalid/"));
    Handed unsupported(*session, requestFor("ftp://127.0.0.1/file"));
    Handed noURL(*session, URLRequest());
    Handed empty(*session, requestFor(closer.origin() + "/"));
    const std::vector<Handed*> all{&ok, &serverError, &refused, &unknownHost, &unsupported, &noURL, &empty};
    ASSERT_TRUE(waitUntil([&] { return std::all_of(all.begin(), all.end(), [](Handed* h) { return h->done(); }); }));

    EXPECT_EQ(ok.data->size(), 65536u);
    EXPECT_EQ(ok.response->statusCode(), 200);
    EXPECT_FALSE(ok.error);
    // A 500 is a successful transfer: the status tells the rest.
    EXPECT_EQ(serverError.data, zul::dataFromString("broken"));
    EXPECT_EQ(serverError.response->statusCode(), 500);
    EXPECT_FALSE(serverError.error);
    EXPECT_FALSE(refused.data);
    EXPECT_FALSE(refused.response);
    EXPECT_EQ(refused.task->error(), refused.error);
    EXPECT_EQ(refused.task->state(), URLSessionTaskState::completed);
    std::vector<int> codes;
    for (Handed* h : {&refused, &unknownHost, &unsupported, &noURL, &empty}) codes.push_back(codeOf(h->error));
    EXPECT_EQ(codes, (std::vector<int>{URLError::cannotConnectToHost, URLError::cannotFindHost, URLError::unsupportedURL,
                                       URLError::badURL, URLError::badServerResponse}));

    std::this_thread::sleep_for(50ms);  // a second call or a delegate callback would show by now
    for (Handed* h : all) EXPECT_EQ(h->calls, 1);
    EXPECT_TRUE(recorder->log().empty());  // the delegate hears nothing of these tasks
}

TEST(URLSessionTest, RedirectsAreFollowedWhenTheDelegateAcceptsUpToALimitAndRefusedOnesAreTheAnswer) {
    StandardServer s;
    auto [recorder, session] = Recorder::session();

    auto task = resumed(*session, requestFor(s.server.url("/redirect")));
    ASSERT_TRUE(waitUntil([&] { return recorder->completedCount() == 1; }));
    const auto outcome = recorder->outcome(task->taskIdentifier());
    EXPECT_EQ(recorder->redirects(), (std::vector<Recorder::Redirect>{{302, s.server.url("/hello")}}));
    EXPECT_EQ(recorder->log().front(), "redirect " + std::to_string(task->taskIdentifier()));
    EXPECT_FALSE(outcome.error);
    EXPECT_EQ(outcome.body, "hello");  // the 302's own body ("moved") is not delivered
    EXPECT_EQ(outcome.response->statusCode(), 200);
    EXPECT_EQ(outcome.response->url()->absoluteString(), s.server.url("/hello"));
    EXPECT_EQ(task->currentRequest().url()->absoluteString(), s.server.url("/hello"));
    EXPECT_EQ(task->originalRequest().url()->absoluteString(), s.server.url("/redirect"));

    // 303 after POST: the next request is a GET without body, to the relative Location.
    URLRequest post = requestFor(s.server.url("/see-other"), "POST", "form");
    post.setValue("kept", "X-Custom");
    Handed seeOther(*session, post);
    // 307 after POST: method and body stay.
    URLRequest temporary = post;
    temporary.setURL(URL::fromString(s.server.url("/temporary")));
    Handed kept(*session, temporary);
    // A loop ends after the first request and 16 redirects.
    Handed loop(*session, requestFor(s.server.url("/loop")));
    ASSERT_TRUE(seeOther.wait() && kept.wait() && loop.wait());
    EXPECT_EQ(zul::stringFromData(*seeOther.data),
              "GET\nX-Custom=kept\nX-Extra=<none>\nContent-Type=<none>\nExpect=<none>\nbody=");
    EXPECT_EQ(zul::stringFromData(*kept.data).substr(0, 5), "POST\n");
    EXPECT_NE(zul::stringFromData(*kept.data).find("body=form"), std::string::npos);
    EXPECT_EQ(codeOf(loop.error), URLError::httpTooManyRedirects);
    EXPECT_EQ(s.server.requestCount(), 2u + 2u + 2u + 17u);
    EXPECT_TRUE(recorder->wellBehaved());

    // Refused: the redirect response and its body are the answer, for both kinds of task.
    auto [refuser, refusing] = Recorder::session();
    refuser->refuseRedirects = true;
    auto refused = resumed(*refusing, requestFor(s.server.url("/redirect")));
    Handed handed(*refusing, requestFor(s.server.url("/redirect")));
    ASSERT_TRUE(waitUntil([&] { return refuser->completedCount() == 1 && handed.done(); }));
    const auto refusal = refuser->outcome(refused->taskIdentifier());
    EXPECT_FALSE(refusal.error);
    EXPECT_EQ(refusal.response->statusCode(), 302);
    EXPECT_EQ(refusal.response->value("Location"), "/hello");
    EXPECT_EQ(refusal.body, "moved");
    EXPECT_EQ(handed.response->statusCode(), 302);
    EXPECT_EQ(handed.data, zul::dataFromString("moved"));
    EXPECT_EQ(s.server.requestCount(), 23u + 2u);  // "/hello" was never asked for
}

TEST(URLSessionTest, IdleTransfersTimeOutButSlowSteadyOnesDoNot) {
    StandardServer s;
    auto session = URLSession::create();
    URLRequest stuck = requestFor(s.server.url(slowPath));
    stuck.setTimeoutInterval(1.5);  // counts as 1 s
    URLRequest drip = requestFor(s.server.url("/drip"));
    drip.setTimeoutInterval(1);
    const auto start = std::chrono::steady_clock::now();
    Handed timedOut(*session, stuck), steady(*session, drip);
    ASSERT_TRUE(timedOut.wait() && steady.wait());
    EXPECT_EQ(codeOf(timedOut.error), URLError::timedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_FALSE(steady.error) << steady.error->description();  // 1.6 s in all, never a second idle
    EXPECT_EQ(steady.data, zul::dataFromString("xxxxxxxx"));

    // Connecting counts: a server that accepts but never answers the TLS handshake holds the
    // transfer in libcurl's connect phase, where the same idle clock runs.
    BareServer silent("");  // reads the client's hello, then waits for more until the client gives up
    URLRequest stalled = requestFor(silent.origin("https") + "/");
    stalled.setTimeoutInterval(1);
    Handed handshake(*session, stalled);
    ASSERT_TRUE(handshake.wait());
    EXPECT_EQ(codeOf(handshake.error), URLError::timedOut);

    // The configuration's resource time-out bounds the whole transfer, however busy.
    URLSessionConfiguration configuration;
    configuration.timeoutIntervalForResource = 1;
    auto bounded = URLSession::create(configuration);
    Handed cut(*bounded, drip);
    ASSERT_TRUE(cut.wait());
    EXPECT_EQ(codeOf(cut.error), URLError::timedOut);
}

TEST(URLSessionTest, ProxiesComeFromTheConfigurationOrFromTheEnvironmentAsTheSessionIsMade) {
    BareServer configured(BareServer::ok("proxied")), fromEnvironment(BareServer::ok("proxied"));
    BareServer direct(BareServer::ok("direct"));
    URLSessionConfiguration configuration;
    configuration.proxy = configured.origin();
    auto viaConfiguration = URLSession::create(configuration);
    ::setenv("http_proxy", fromEnvironment.origin().c_str(), 1);
    ::setenv("no_proxy", "127.0.0.1", 1);
    auto viaEnvironment = URLSession::create(URLSessionConfiguration{});
    ::unsetenv("http_proxy");  // too late: the session has read them
    ::unsetenv("no_proxy");

    Handed proxied(*viaConfiguration, requestFor("http://origin.invalid/path?q=1"));
    Handed proxiedByEnvironment(*viaEnvironment, requestFor("http://origin.invalid/env"));
    Handed directly(*viaEnvironment, requestFor(direct.origin() + "/"));
    ASSERT_TRUE(proxied.wait() && proxiedByEnvironment.wait() && directly.wait());
    EXPECT_EQ(proxied.data, zul::dataFromString("proxied"));
    EXPECT_EQ(proxiedByEnvironment.data, zul::dataFromString("proxied"));
    EXPECT_EQ(directly.data, zul::dataFromString("direct"));  // no_proxy names it
    // The proxies were asked for the absolute URL, on behalf of the origin (whose name does not
    // even resolve).
    const auto firstLine = [](const std::string& head) { return head.substr(0, head.find("\r\n")); };
    EXPECT_EQ(firstLine(configured.head()), "GET http://origin.invalid/path?q=1 HTTP/1.1");
    EXPECT_NE(configured.head().find("\r\nHost: origin.invalid\r\n"), std::string::npos) << configured.head();
    EXPECT_EQ(firstLine(fromEnvironment.head()), "GET http://origin.invalid/env HTTP/1.1");
}

TEST(URLSessionTest, TLSIsVerifiedUnlessSwitchedOffAndTrustsTheConfiguredAuthority) {
    const zul::test::TLSIdentity identity;
    LoopbackServer server(identity, [](httplib::Server& s) {
        s.Get("/hello", [](const httplib::Request&, httplib::Response& res) { res.set_content("secure", "text/plain"); });
    });
    URLSessionConfiguration unverified, trusting;
    unverified.tlsVerifyPeer = false;
    trusting.caInfoFile = identity.certificatePath();
    auto strict = URLSession::create();
    auto lax = URLSession::create(unverified);
    auto trusted = URLSession::create(trusting);
    Handed refused(*strict, requestFor(server.url("/hello")));
    Handed accepted(*lax, requestFor(server.url("/hello")));
    Handed verified(*trusted, requestFor(server.url("/hello")));
    ASSERT_TRUE(refused.wait() && accepted.wait() && verified.wait());

    ASSERT_EQ(codeOf(refused.error), URLError::unknown);  // a certificate nobody vouches for
    EXPECT_NE(refused.error->message().find("certificate"), std::string::npos) << refused.error->message();
    for (Handed* handed : {&accepted, &verified}) {
        EXPECT_FALSE(handed->error) << handed->error->description();
        EXPECT_EQ(handed->data, zul::dataFromString("secure"));
    }
}

TEST(URLSessionTest, TaskStatesAndCancellation) {
    StandardServer s;
    auto [recorder, session] = Recorder::session();

    auto task = session->dataTask(requestFor(s.server.url("/hello")));
    EXPECT_EQ(task->state(), URLSessionTaskState::suspended);
    EXPECT_FALSE(task->response());
    EXPECT_EQ(task->taskIdentifier() + 1, session->dataTask(requestFor(s.server.url("/hello")))->taskIdentifier());
    task->resume();
    ASSERT_TRUE(waitUntil([&] { return recorder->completedCount() == 1; }));
    EXPECT_EQ(task->state(), URLSessionTaskState::completed);
    EXPECT_EQ(task->response()->statusCode(), 200);
    task->resume();  // nothing happens to a completed task
    task->cancel();
    EXPECT_FALSE(task->error());

    // Cancelling a running transfer: -999, completed, reported once.
    auto slow = resumed(*session, requestFor(s.server.url(slowPath)));
    EXPECT_EQ(slow->state(), URLSessionTaskState::running);
    ASSERT_TRUE(waitUntil([&] { return s.server.requestCount() == 2; }));  // it is on the wire
    slow->cancel();
    EXPECT_TRUE(slow->state() == URLSessionTaskState::canceling || slow->state() == URLSessionTaskState::completed);
    slow->cancel();
    ASSERT_TRUE(waitUntil([&] { return recorder->completedCount() == 2; }));
    auto outcome = recorder->outcome(slow->taskIdentifier());
    EXPECT_EQ(codeOf(outcome.error), URLError::cancelled);
    EXPECT_EQ(outcome.stateAtCompletion, URLSessionTaskState::completed);
    EXPECT_EQ(codeOf(slow->error()), URLError::cancelled);

    // Cancelling a suspended task reports it too; resuming it afterwards does nothing.
    auto suspended = session->dataTask(requestFor(s.server.url("/hello")));
    suspended->cancel();
    suspended->resume();
    ASSERT_TRUE(waitUntil([&] { return recorder->completedCount() == 3; }));
    EXPECT_EQ(codeOf(recorder->outcome(suspended->taskIdentifier()).error), URLError::cancelled);
    EXPECT_EQ(suspended->state(), URLSessionTaskState::completed);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(s.server.requestCount(), 2u);
    EXPECT_TRUE(recorder->wellBehaved());
}

TEST(URLSessionTest, ThousandsOfTasksShareAFewConnectionsEachOriginItsShareAndWaitingIsNotIdleness) {
    StandardServer s;
    URLSessionConfiguration configuration;
    configuration.maximumConnections = 4;
    auto session = URLSession::create(configuration);
    constexpr int count = 2000;
    EXPECT_EQ(fetchMany(*session, count, [&](int) { return s.server.url("/hello"); }), count);
    EXPECT_EQ(s.server.requestCount(), static_cast<std::size_t>(count));
    EXPECT_LE(s.server.peakConnections(), 4u);

    // Each origin gets its share (peaks counted afresh, on new servers).
    StandardServer first, second;
    configuration.httpMaximumConnectionsPerHost = 2;
    auto sharing = URLSession::create(configuration);
    // Unequal shares: a third to the second server.
    EXPECT_EQ(fetchMany(*sharing, 300, [&](int i) { return (i % 3 == 0 ? second : first).server.url("/hello"); }), 300);
    EXPECT_LE(first.server.peakConnections(), 2u);
    EXPECT_LE(second.server.peakConnections(), 2u);

    // One connection, five answers of 0.5 s each, an idle time-out of 2 s: the last task waits
    // 2 s in the session's line, which is not idle time on the wire.
    configuration.httpMaximumConnectionsPerHost = 1;
    auto serial = URLSession::create(configuration);
    URLRequest request = requestFor(first.server.url("/pause?ms=500"));
    request.setTimeoutInterval(2);
    std::vector<Handed> handed(5);
    for (Handed& h : handed) h.start(*serial, request);
    ASSERT_TRUE(waitUntil([&] { return std::all_of(handed.begin(), handed.end(), [](Handed& h) { return h.done(); }); }));
    for (Handed& h : handed) EXPECT_FALSE(h.error) << h.error->description();
}

TEST(URLSessionTest, InvalidatingCancelsOrFinishesAndReportsInvalidAndDestroyingCancels) {
    StandardServer s;
    {
        auto [recorder, session] = Recorder::session();
        auto running = resumed(*session, requestFor(s.server.url(slowPath)));
        auto suspended = session->dataTask(requestFor(s.server.url(slowPath)));
        ASSERT_TRUE(waitUntil([&] { return s.server.requestCount() == 1; }));
        session->invalidateAndCancel();
        ASSERT_TRUE(waitUntil([&] { return recorder->log().size() == 3; }));
        EXPECT_EQ(codeOf(recorder->outcome(running->taskIdentifier()).error), URLError::cancelled);
        EXPECT_EQ(codeOf(recorder->outcome(suspended->taskIdentifier()).error), URLError::cancelled);
        EXPECT_EQ(recorder->log().back(), "invalid");

        // An invalid session runs nothing new and tells the delegate nothing more.
        Handed late(*session, requestFor(s.server.url("/hello")));
        ASSERT_TRUE(late.wait());
        EXPECT_EQ(codeOf(late.error), URLError::cancelled);
        auto another = resumed(*session, requestFor(s.server.url("/hello")));
        ASSERT_TRUE(waitUntil([&] { return another->state() == URLSessionTaskState::completed; }));
        std::this_thread::sleep_for(50ms);
        EXPECT_EQ(recorder->log().size(), 3u);
        EXPECT_EQ(s.server.requestCount(), 1u);
    }
    {
        auto [recorder, session] = Recorder::session();
        auto big = resumed(*session, requestFor(s.server.url("/big")));
        auto drip = resumed(*session, requestFor(s.server.url("/drip")));
        session->finishTasksAndInvalidate();
        ASSERT_TRUE(waitUntil([&] { return recorder->log().size() >= 2 && recorder->log().back() == "invalid"; }));
        EXPECT_FALSE(recorder->outcome(big->taskIdentifier()).error);
        EXPECT_EQ(recorder->outcome(big->taskIdentifier()).body.size(), 65536u);
        EXPECT_EQ(recorder->outcome(drip->taskIdentifier()).body, "xxxxxxxx");
        EXPECT_TRUE(recorder->wellBehaved());
    }

    // Destroying the session cancels what is in flight or waiting.
    const std::size_t before = s.server.requestCount();
    auto recorder = std::make_shared<Recorder>();
    Handed slow, queued;
    std::shared_ptr<URLSessionTask> delegateTask;
    {
        URLSessionConfiguration configuration;
        configuration.maximumConnections = 1;
        auto session = URLSession::create(configuration, recorder, recorder->queue);
        slow.start(*session, requestFor(s.server.url(slowPath)));
        queued.start(*session, requestFor(s.server.url("/hello")));  // waits in line
        delegateTask = resumed(*session, requestFor(s.server.url(slowPath)));
        ASSERT_TRUE(waitUntil([&] { return s.server.requestCount() == before + 1; }));
        const auto start = std::chrono::steady_clock::now();
        session.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);  // it does not wait for the server
    }
    ASSERT_TRUE(slow.wait() && queued.wait());
    EXPECT_EQ(codeOf(slow.error), URLError::cancelled);
    EXPECT_EQ(codeOf(queued.error), URLError::cancelled);
    EXPECT_EQ(delegateTask->state(), URLSessionTaskState::completed);
    EXPECT_EQ(codeOf(delegateTask->error()), URLError::cancelled);
    delegateTask->resume();  // a task outliving its session is inert
    delegateTask->cancel();

    // A session that never moved a byte (its transfer thread never started) still cancels what
    // it made.
    Handed neverResumed;
    std::shared_ptr<URLSessionTask> kept;
    {
        auto idle = URLSession::create();
        kept = idle->dataTask(requestFor(s.server.url("/hello")), neverResumed.handler());
    }
    ASSERT_TRUE(neverResumed.wait());
    EXPECT_EQ(codeOf(neverResumed.error), URLError::cancelled);

    // A delegate that is gone is simply not called.
    auto shortLived = std::make_shared<Recorder>();
    auto session = URLSession::create(URLSessionConfiguration(), shortLived, shortLived->queue);
    shortLived.reset();
    EXPECT_FALSE(session->delegate());
    EXPECT_TRUE(URLSession::create()->delegateQueue()->isSerial());  // made by the session
    auto task = resumed(*session, requestFor(s.server.url("/redirect")));  // the default follows
    ASSERT_TRUE(waitUntil([&] { return task->state() == URLSessionTaskState::completed; }));
    EXPECT_EQ(task->response()->statusCode(), 200);
}

}  // namespace
