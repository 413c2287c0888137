// `zul fetch` run as a separate process against a server on loopback.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/loopback_server.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/network/responses.hpp"

namespace {

using namespace std::chrono_literals;

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

std::string slurp(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string quoted(const std::string& argument) {
    std::string result = "'";
    for (char c : argument) {
        if (c == '\'') result += "'\\''";
        else result += c;
    }
    return result + "'";
}

ToolRun fetch(const std::vector<std::string>& arguments) {
    const auto directory = std::filesystem::temp_directory_path() /
                           ("zul-fetch-" + std::to_string(::getpid()) + "-" + std::to_string(std::rand()));
    std::filesystem::create_directories(directory);
    std::string command = quoted(ZUL_TOOL_PATH) + " fetch";
    for (const std::string& argument : arguments) command += " " + quoted(argument);
    command += " >" + quoted((directory / "out").string()) + " 2>" + quoted((directory / "err").string());
    const int raw = std::system(command.c_str());
    ToolRun run;
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.out = slurp(directory / "out");
    run.err = slurp(directory / "err");
    std::filesystem::remove_all(directory);
    return run;
}

constexpr const char* kJSON = R"({"data": {"id": 7, "title": "Up"}, "list": [1, 1.5, true, null]})";

void routes(httplib::Server& server) {
    auto echo = [](const httplib::Request& request, httplib::Response& response) {
        response.set_header("X-Echo-Method", request.method);
        response.set_content(request.method + "|" + request.get_header_value("X-Token") + "|" + request.body,
                             "text/plain");
    };
    server.Get("/echo", echo);
    server.Post("/echo", echo);
    server.Get("/json", [](const httplib::Request&, httplib::Response& response) {
        response.set_content(kJSON, "application/json");
    });
    server.Get("/slow", [](const httplib::Request&, httplib::Response& response) {
        std::this_thread::sleep_for(2500ms);
        response.set_content("late", "text/plain");
    });
}

TEST(ZulFetchTest, PrintsTheResponseAndReportsFailures) {
    zul::test::LoopbackServer server(routes);

    const ToolRun get = fetch({"-H", "X-Token: abc", server.url("/echo")});
    EXPECT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(get.out, "GET|abc|");
    EXPECT_EQ(get.err.rfind("HTTP 200\n", 0), 0u) << get.err;
    EXPECT_NE(get.err.find("X-Echo-Method: GET\n"), std::string::npos) << get.err;

    const auto bodyFile = std::filesystem::temp_directory_path() / ("zul-fetch-body-" + std::to_string(::getpid()));
    std::ofstream(bodyFile) << "posted bytes";
    const ToolRun post = fetch({"--post", bodyFile.string(), server.url("/echo")});
    std::filesystem::remove(bodyFile);
    EXPECT_EQ(post.status, 0) << post.err;
    EXPECT_EQ(post.out, "POST||posted bytes");

    const ToolRun json = fetch({"--json", server.url("/json")});
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(json.out, zul::JSONDecoder().decode<zul::AnyResponse>(std::string_view(kJSON)).description() + "\n");

    const ToolRun notJSON = fetch({"--json", server.url("/echo")});
    EXPECT_EQ(notJSON.status, 1);
    EXPECT_NE(notJSON.err.find("zul fetch: the body is not JSON: "), std::string::npos) << notJSON.err;

    const ToolRun slow = fetch({"--timeout", "1", server.url("/slow")});
    EXPECT_EQ(slow.status, 1);
    EXPECT_EQ(slow.err, "zul fetch: request failed: requestTimeOut\n");

    const ToolRun refused = fetch({"http://127.0.0.1:" + std::to_string(zul::test::unusedLoopbackPort()) + "/"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(refused.err, "zul fetch: request failed: cancelled\n");
    EXPECT_TRUE(refused.out.empty());
}

TEST(ZulFetchTest, RefusesBadArguments) {
    EXPECT_EQ(fetch({}).status, 2);
    EXPECT_EQ(fetch({"-H", "no colon", "http://127.0.0.1/"}).status, 2);
    EXPECT_EQ(fetch({"--timeout", "soon", "http://127.0.0.1/"}).status, 2);
    const ToolRun badURL = fetch({"not a url"});
    EXPECT_EQ(badURL.status, 2);
    EXPECT_EQ(badURL.err, "zul fetch: 'not a url' is not a URL\n");
    const ToolRun missing = fetch({"--post", "/nonexistent/body", "http://127.0.0.1/"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, "zul fetch: cannot read '/nonexistent/body': No such file or directory\n");
}

}  // namespace
