// HTTP/2 against nginx: a server that offers it over TLS gets it, and concurrent transfers to it
// share one connection.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/nginx_server.hpp"
#include "support/wait.hpp"
#include "zul/platform/url_session.hpp"

namespace {

using namespace std::chrono_literals;

TEST(URLSessionHTTP2Test, AServerOfferingHTTP2GetsItAndCarriesConcurrentTransfersOnOneConnection) {
    const auto identity = zul::test::TLSIdentity::selfSigned();
    // Each answer names the protocol and the server's connection number.
    zul::test::NginxServer nginx(identity, R"(location / { return 200 "$server_protocol $connection"; })");
    const zul::test::CertificateFile authority(identity);

    zul::URLSessionConfiguration configuration;
    configuration.caInfoFile = authority.path();
    configuration.httpMaximumConnectionsPerHost = 4;
    auto session = zul::URLSession::create(configuration);
    constexpr int count = 40;
    std::mutex mutex;
    std::vector<std::string> answers;
    std::atomic<int> failures{0};
    for (int i = 0; i < count; ++i) {
        session
            ->dataTask(zul::URLRequest(zul::URL::fromString(nginx.url("/" + std::to_string(i)))),
                       [&](std::optional<zul::Data> data, std::shared_ptr<const zul::HTTPURLResponse> response,
                           std::optional<zul::URLError> error) {
                           if (error || !response || response->statusCode() != 200) ++failures;
                           const std::lock_guard lock(mutex);
                           answers.push_back(data ? zul::stringFromData(*data) : "");
                       })
            ->resume();
    }
    ASSERT_TRUE(zul::test::waitUntil(
        [&] {
            const std::lock_guard lock(mutex);
            return answers.size() == count;
        },
        30s)) << answers.size() << " of " << count << " answered";
    EXPECT_EQ(failures, 0);

    std::set<std::string> connections;
    for (const std::string& answer : answers) {
        ASSERT_EQ(answer.substr(0, 9), "HTTP/2.0 ") << answer;
        connections.insert(answer.substr(9));
    }
    // Forty transfers, at most four connections allowed before the origin is known to
    // multiplex: they waited for the first connection and were carried on it.
    EXPECT_EQ(connections.size(), 1u);
}

}  // namespace
