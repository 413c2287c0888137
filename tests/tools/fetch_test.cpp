// `zul fetch` run as a separate process against a server on loopback.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "support/loopback_server.hpp"
#include "zul/core/json_decoder.hpp"
#include "zul/network/responses.hpp"

namespace {

struct ToolRun {
    int status = -1;
    std::string out, err;
    bool operator==(const ToolRun&) const = default;
    friend void PrintTo(const ToolRun& run, std::ostream* os) {
        *os << "status " << run.status << ", out \"" << run.out << "\", err \"" << run.err << '"';
    }
};

std::string slurp(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/// Runs `zul fetch` with the arguments (none of which holds a single quote) through the shell.
ToolRun fetch(const std::vector<std::string>& arguments) {
    const auto directory = std::filesystem::temp_directory_path() / ("zul-fetch-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    std::string command = std::string("'") + ZUL_TOOL_PATH + "' fetch";
    for (const std::string& argument : arguments) command += " '" + argument + "'";
    const int raw = std::system((command + " >'" + (directory / "out").string() + "' 2>'" +
                                 (directory / "err").string() + "'").c_str());
    ToolRun run{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(directory / "out"), slurp(directory / "err")};
    std::filesystem::remove_all(directory);
    return run;
}

constexpr const char* kJSON = R"({"data": {"id": 7, "title": "Up"}, "list": [1, 1.5, true, null]})";

void routes(httplib::Server& server) {
    using Req = httplib::Request;
    using Res = httplib::Response;
    auto echo = [](const Req& req, Res& res) {
        res.set_header("X-Echo-Method", req.method);
        res.set_content(req.method + "|" + req.get_header_value("X-Token") + "|" + req.body, "text/plain");
    };
    server.Get("/echo", echo);
    server.Post("/echo", echo);
    server.Get("/json", [](const Req&, Res& res) { res.set_content(kJSON, "application/json"); });
    server.Get("/slow", [](const Req&, Res& res) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2500));
        res.set_content("late", "text/plain");
    });
}

TEST(ZulFetchTest, PrintsTheResponseAndReportsFailuresAndBadArguments) {
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

    EXPECT_EQ(fetch({"--timeout", "1", server.url("/slow")}),
              (ToolRun{1, "", "zul fetch: request failed: requestTimeOut\n"}));
    EXPECT_EQ(fetch({"http://127.0.0.1:" + std::to_string(zul::test::unusedLoopbackPort()) + "/"}),
              (ToolRun{1, "", "zul fetch: request failed: cancelled\n"}));

    // Bad arguments.
    EXPECT_EQ(fetch({}).status, 2);
    EXPECT_EQ(fetch({"-H", "no colon", "http://127.0.0.1/"}).status, 2);
    EXPECT_EQ(fetch({"--timeout", "soon", "http://127.0.0.1/"}).status, 2);
    EXPECT_EQ(fetch({"not a url"}), (ToolRun{2, "", "zul fetch: 'not a url' is not a URL\n"}));
    EXPECT_EQ(fetch({"--post", "/nonexistent/body", "http://127.0.0.1/"}),
              (ToolRun{1, "", "zul fetch: cannot read '/nonexistent/body': No such file or directory\n"}));
}

}  // namespace
