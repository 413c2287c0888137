// zul fetch: one request through the network router, the way an application sends it.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>

#include "commands.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/network/responses.hpp"
#include "zul/network/router.hpp"
#include "zul/platform/main_loop.hpp"

namespace zul::tool {
namespace {

struct FetchOptions {
    std::string url;
    HeaderMap headers;
    bool hasHeaders = false;
    std::optional<double> timeout;
    std::optional<std::string> postFile;
    bool json = false;
};

int usage(const std::string& problem) {
    std::fprintf(stderr, "zul fetch: %s\nusage: zul fetch [-H 'Name: value']... [--timeout SECONDS] [--post FILE] [--json] URL\n",
                 problem.c_str());
    return 2;
}

std::string trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) return {};
    const auto last = text.find_last_not_of(" \t");
    return std::string(text.substr(first, last - first + 1));
}

// Returns an exit status when the arguments are unusable.
std::optional<int> parse(const std::vector<std::string_view>& arguments, FetchOptions& options) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view argument = arguments[i];
        const bool hasValue = i + 1 < arguments.size();
        if (argument == "-H" || argument == "--header") {
            if (!hasValue) return usage("-H needs a header, for example -H 'Accept: text/plain'");
            const std::string_view header = arguments[++i];
            const auto colon = header.find(':');
            if (colon == std::string_view::npos || trimmed(header.substr(0, colon)).empty()) {
                return usage("a header is written 'Name: value', not '" + std::string(header) + "'");
            }
            options.headers.insertOrAssign(trimmed(header.substr(0, colon)), trimmed(header.substr(colon + 1)));
            options.hasHeaders = true;
        } else if (argument == "--timeout") {
            if (!hasValue) return usage("--timeout needs a number of seconds");
            const std::string value(arguments[++i]);
            char* end = nullptr;
            errno = 0;
            const double seconds = std::strtod(value.c_str(), &end);
            if (errno != 0 || end == value.c_str() || *end != '\0' || !(seconds > 0)) {
                return usage("--timeout takes a positive number of seconds, not '" + value + "'");
            }
            options.timeout = seconds;
        } else if (argument == "--post") {
            if (!hasValue) return usage("--post needs a file (- for standard input)");
            options.postFile = std::string(arguments[++i]);
        } else if (argument == "--json") {
            options.json = true;
        } else if (!argument.empty() && argument[0] == '-' && argument != "-") {
            return usage("unknown option '" + std::string(argument) + "'");
        } else if (options.url.empty()) {
            options.url = std::string(argument);
        } else {
            return usage("one URL at a time");
        }
    }
    if (options.url.empty()) return usage("which URL?");
    return std::nullopt;
}

std::optional<Data> readBody(const std::string& path) {
    if (path == "-") {
        return Data(std::istreambuf_iterator<char>(std::cin.rdbuf()), std::istreambuf_iterator<char>());
    }
    std::ifstream file(path, std::ios::binary);
    if (!file) return std::nullopt;
    Data body((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (file.bad()) return std::nullopt;
    return body;
}

}  // namespace

int fetch(const std::vector<std::string_view>& arguments) {
    FetchOptions options;
    if (auto status = parse(arguments, options)) return *status;

    const std::optional<URL> url = URL::fromString(options.url);
    if (!url) {
        std::fprintf(stderr, "zul fetch: '%s' is not a URL\n", options.url.c_str());
        return 2;
    }
    std::optional<Data> body;
    if (options.postFile) {
        body = readBody(*options.postFile);
        if (!body) {
            std::fprintf(stderr, "zul fetch: cannot read '%s': %s\n", options.postFile->c_str(), std::strerror(errno));
            return 1;
        }
    }

    int status = 1;
    auto router = NetworkRouter::create();
    auto completion = [&](RouterResult result) {
        MainLoop::stop();
        if (result.isFailure()) {
            std::fprintf(stderr, "zul fetch: request failed: %s\n", result.error().description().c_str());
            return;
        }
        const Response& response = result.value();
        std::fprintf(stderr, "HTTP %lld\n", static_cast<long long>(response.statusCode));
        if (response.response) {
            for (const auto& [name, value] : response.response->allHeaderFields()) {
                std::fprintf(stderr, "%s: %s\n", name.c_str(), value.c_str());
            }
        }
        if (options.json) {
            try {
                const AnyResponse value = JSONDecoder().decode<AnyResponse>(response.data);
                std::printf("%s\n", value.description().c_str());
            } catch (const Error& error) {
                std::fprintf(stderr, "zul fetch: the body is not JSON: %s\n", error.description().c_str());
                return;
            }
        } else {
            std::fwrite(response.data.data(), 1, response.data.size(), stdout);
        }
        std::fflush(stdout);
        status = 0;
    };

    const NetworkRequestParameters parameters{options.timeout};
    std::optional<HeaderMap> headers;
    if (options.hasHeaders) headers = options.headers;
    std::optional<std::string> token =
        body ? router->post(*url, std::move(body), parameters, std::move(headers), completion)
             : router->get(*url, parameters, std::move(headers), completion);
    // A request that fails before it is sent still reports through its completion.
    (void)token;
    MainLoop::run();
    return status;
}

}  // namespace zul::tool
