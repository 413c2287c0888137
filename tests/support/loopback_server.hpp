#pragma once

// A real HTTP(S) server on the loopback interface for tests (cpp-httplib), a self-signed TLS
// identity for it, and a port nothing listens on.
//
//     zul::test::LoopbackServer server([](httplib::Server& s) { s.Get("/hello", handler); });
//     auto url = zul::URL::fromString(server.url("/hello"));
//
// Every connection is served on a thread of its own, so slow handlers never hold up other
// connections, and the server counts the connections it has open (`peakConnections`). Keep-alive
// connections are kept for as many requests as the client sends.

#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

namespace zul::test {

/// A self-signed certificate for 127.0.0.1 (as its IP address), valid for a day and usable as its
/// own authority, and its P-256 private key: PEM files in a temporary directory that goes with the
/// object, for servers to present and clients told to trust it.
class TLSIdentity {
public:
    TLSIdentity() {
        std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
        std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), &X509_free);
        X509* cert = certificate.get();
        char pattern[] = "/tmp/zul-tls-XXXXXX";
        if (!key || cert == nullptr || ::mkdtemp(pattern) == nullptr) throw std::runtime_error("TLSIdentity: cannot make a key");
        directory_ = pattern;
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), -60);
        X509_gmtime_adj(X509_getm_notAfter(cert), 24 * 3600);
        X509_set_pubkey(cert, key.get());
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509V3_CTX context;
        X509V3_set_ctx_nodb(&context);
        X509V3_set_ctx(&context, cert, cert, nullptr, nullptr, 0);
        for (const auto& [nid, value] : {std::pair{NID_subject_alt_name, "IP:127.0.0.1"},
                                         std::pair{NID_basic_constraints, "critical,CA:TRUE"},
                                         std::pair{NID_key_usage, "critical,digitalSignature,keyCertSign"}}) {
            X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
            if (extension == nullptr) throw std::runtime_error("TLSIdentity: cannot make an extension");
            X509_add_ext(cert, extension, -1);
            X509_EXTENSION_free(extension);
        }
        if (X509_sign(cert, key.get(), EVP_sha256()) == 0) throw std::runtime_error("TLSIdentity: cannot sign");
        std::unique_ptr<BIO, decltype(&BIO_free)> certFile(BIO_new_file(certificatePath().c_str(), "w"), &BIO_free);
        std::unique_ptr<BIO, decltype(&BIO_free)> keyFile(BIO_new_file(keyPath().c_str(), "w"), &BIO_free);
        if (!certFile || !keyFile || PEM_write_bio_X509(certFile.get(), cert) == 0 ||
            PEM_write_bio_PrivateKey(keyFile.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 0) {
            throw std::runtime_error("TLSIdentity: cannot write " + directory_);
        }
    }
    ~TLSIdentity() {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    TLSIdentity(const TLSIdentity&) = delete;
    TLSIdentity& operator=(const TLSIdentity&) = delete;

    std::string certificatePath() const { return directory_ + "/cert.pem"; }
    std::string keyPath() const { return directory_ + "/key.pem"; }

private:
    std::string directory_;
};

/// A TCP socket bound to an ephemeral port of 127.0.0.1 and its port; throws when none is free.
inline std::pair<int, int> boundLoopbackSocket() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        if (fd >= 0) ::close(fd);
        throw std::runtime_error("cannot bind a loopback port");
    }
    return {fd, ntohs(address.sin_port)};
}

/// A port on 127.0.0.1 on which nothing listens: an ephemeral port is bound and let go again,
/// so connecting to it is refused (unless another process happens to take it meanwhile).
inline int unusedLoopbackPort() {
    const auto [fd, port] = boundLoopbackSocket();
    ::close(fd);
    return port;
}

class LoopbackServer {
public:
    /// Starts an HTTP server on 127.0.0.1 on an ephemeral port, with the routes `routes`
    /// registers; returns once it accepts connections. The server owns its pre-routing handler
    /// (it counts requests there): `routes` must not set one.
    explicit LoopbackServer(const std::function<void(httplib::Server&)>& routes)
        : LoopbackServer(std::make_unique<Exposed<httplib::Server>>(), "http", routes) {}

    /// The same, serving HTTPS with `identity`.
    LoopbackServer(const TLSIdentity& identity, const std::function<void(httplib::Server&)>& routes)
        : LoopbackServer(makeTLSServer(identity), "https", routes) {}

    /// Stops the server and joins its thread (and those of its connections).
    ~LoopbackServer() {
        {
            const std::lock_guard lock(stopMutex_);
            stopping_ = true;
        }
        stopCondition_.notify_all();
        // stop() is ignored until the accept loop runs; wait for it, briefly.
        for (int i = 0; i < 5000 && !server_->is_running(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        server_->stop();
        thread_.join();
    }

    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    /// "http://127.0.0.1:<port>" + path ("https://..." when serving TLS)
    std::string url(std::string_view path = "") const {
        return scheme_ + "://127.0.0.1:" + std::to_string(port_) + std::string(path);
    }

    /// Requests received so far (counted before routing, so unknown paths count).
    std::size_t requestCount() const { return requests_.load(std::memory_order_relaxed); }

    /// Connections accepted so far, and the most that were open at the same time.
    std::size_t connectionCount() const { return locked(accepted_); }
    std::size_t peakConnections() const { return locked(peak_); }

    /// For handlers: waits `duration`, or less when the server is being stopped, so that slow
    /// endpoints do not hold up the end of a test. Returns false when cut short.
    bool pause(std::chrono::milliseconds duration) {
        std::unique_lock lock(stopMutex_);
        return !stopCondition_.wait_for(lock, duration, [this] { return stopping_; });
    }

private:
    // Exposes the listening socket, which httplib keeps to itself.
    template <class Base>
    struct Exposed final : Base {
        using Base::Base;
        int listeningSocket() const { return this->svr_sock_; }
    };

    template <class S>
    LoopbackServer(std::unique_ptr<Exposed<S>> server, std::string scheme,
                   const std::function<void(httplib::Server&)>& routes)
        : scheme_(std::move(scheme)) {
        Exposed<S>& exposed = *server;
        server_ = std::move(server);
        server_->new_task_queue = [this] { return new ConnectionThreads(*this); };
        server_->set_keep_alive_max_count(1'000'000);
        // Without it, a response written in two pieces waits out the client's delayed ACK.
        server_->set_tcp_nodelay(true);
        routes(*server_);
        server_->set_pre_routing_handler([this](const httplib::Request&, httplib::Response&) {
            requests_.fetch_add(1, std::memory_order_relaxed);
            return httplib::Server::HandlerResponse::Unhandled;
        });
        port_ = server_->bind_to_any_port("127.0.0.1");
        if (port_ <= 0) throw std::runtime_error("LoopbackServer: cannot bind a loopback port");
        // httplib listens with a backlog of 5: dozens of clients connecting at once would see
        // their handshakes dropped and retried a second or more later. Listening again on the
        // same socket only changes the backlog. Connections wait in it until the thread accepts.
        ::listen(exposed.listeningSocket(), SOMAXCONN);
        thread_ = std::thread([this] { server_->listen_after_bind(); });
    }

    static std::unique_ptr<Exposed<httplib::SSLServer>> makeTLSServer(const TLSIdentity& identity) {
        auto server = std::make_unique<Exposed<httplib::SSLServer>>(identity.certificatePath().c_str(),
                                                                     identity.keyPath().c_str());
        if (!server->is_valid()) throw std::runtime_error("LoopbackServer: TLS set-up failed");
        return server;
    }

    template <class T>
    T locked(const T& value) const {
        const std::lock_guard lock(connectionMutex_);
        return value;
    }

    // httplib hands each accepted connection to a task queue, always from its accept thread;
    // this one gives each connection a thread of its own and counts them.
    struct ConnectionThreads final : httplib::TaskQueue {
        LoopbackServer& owner;
        std::list<std::future<void>> connections;  // a future of std::async joins its thread

        explicit ConnectionThreads(LoopbackServer& o) : owner(o) {}

        void enqueue(std::function<void()> serve) override {
            // Threads of closed connections are joined here, so that they do not pile up.
            connections.remove_if([](auto& f) { return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
            {
                const std::lock_guard lock(owner.connectionMutex_);
                ++owner.accepted_;
                owner.peak_ = std::max(owner.peak_, ++owner.open_);
            }
            connections.push_back(std::async(std::launch::async, [this, serve = std::move(serve)] {
                serve();
                const std::lock_guard lock(owner.connectionMutex_);
                --owner.open_;
            }));
        }
        void shutdown() override { connections.clear(); }
    };

    std::string scheme_;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
    int port_ = 0;
    std::atomic<std::size_t> requests_{0};

    mutable std::mutex connectionMutex_;
    std::size_t accepted_ = 0, open_ = 0, peak_ = 0;

    std::mutex stopMutex_;
    std::condition_variable stopCondition_;
    bool stopping_ = false;
};

}  // namespace zul::test
