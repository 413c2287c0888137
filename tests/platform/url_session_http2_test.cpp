// HTTP/2 against nginx: a server that offers it over TLS gets it, and concurrent transfers to it
// share one connection.

#include <gtest/gtest.h>

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "support/nginx_server.hpp"
#include "support/wait.hpp"
#include "zul/platform/url_session.hpp"

namespace {

TEST(URLSessionHTTP2Test, AServerOfferingHTTP2GetsItAndCarriesConcurrentTransfersOnOneConnection) {
    const zul::test::TLSIdentity identity;
    // Each answer names the protocol and the server's connection number.
    zul::test::NginxServer nginx(identity, R"(location / { return 200 "$server_protocol $connection"; })");
    zul::URLSessionConfiguration configuration;
    configuration.caInfoFile = identity.certificatePath();
    configuration.httpMaximumConnectionsPerHost = 4;
    auto session = zul::URLSession::create(configuration);

    constexpr std::size_t count = 40;
    std::mutex mutex;
    std::vector<std::string> answers;  // "<protocol> <connection>", or what went wrong
    for (std::size_t i = 0; i < count; ++i) {
        const zul::URLRequest request(zul::URL::fromString(nginx.url("/" + std::to_string(i))));
        session->dataTask(request, [&](auto data, auto response, auto error) {
            const std::lock_guard lock(mutex);
            const bool ok = !error && response && response->statusCode() == 200;
            answers.push_back(ok ? zul::stringFromData(*data) : error ? error->description() : "not 200");
        })->resume();
    }
    const auto answered = [&] {
        const std::lock_guard lock(mutex);
        return answers.size();
    };
    ASSERT_TRUE(zul::test::waitUntil([&] { return answered() == count; }, std::chrono::seconds(30)))
        << answered() << " of " << count << " answered";

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
