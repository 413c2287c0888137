#pragma once

// nginx on a free loopback port, serving HTTPS with HTTP/2 from a configuration fragment, for the
// tests that need a server speaking HTTP/2 (httplib speaks only HTTP/1.1). It runs in the
// foreground as a child process of the test, in a directory of its own that goes with it.

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "support/child_process.hpp"
#include "support/loopback_server.hpp"
#include "support/wait.hpp"

namespace zul::test {

class NginxServer {
public:
    /// Starts nginx with `locations` (directives inside its one `server` block) over TLS with
    /// `identity`. Throws when nginx is missing or does not come up.
    NginxServer(const TLSIdentity& identity, const std::string& locations) {
        const std::string binary = ::access("/usr/sbin/nginx", X_OK) == 0 ? "/usr/sbin/nginx" : "/usr/bin/nginx";
        if (::access(binary.c_str(), X_OK) != 0) throw std::runtime_error("nginx is not installed (nginx-light)");
        char pattern[] = "/tmp/zul-nginx-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("cannot make a directory for nginx");
        directory_ = pattern;
        std::filesystem::permissions(directory_, std::filesystem::perms(0755));  // readable by nginx's user
        port_ = unusedLoopbackPort();
        const std::string dir = directory_.string();
        std::ofstream config(directory_ / "nginx.conf");
        config << "daemon off;\nmaster_process off;\nworker_processes 1;\npid " << dir << "/nginx.pid;\nerror_log " << dir
               << "/error.log warn;\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n";
        for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            config << "  " << temp << "_temp_path " << dir << "/" << temp << ";\n";
        }
        config << "  server {\n    listen 127.0.0.1:" << port_ << " ssl http2;\n    ssl_certificate "
               << identity.certificatePath() << ";\n    ssl_certificate_key " << identity.keyPath() << ";\n    "
               << locations << "\n  }\n}\n";
        config.close();
        process_ = std::make_unique<ChildProcess>(binary, std::vector<std::string>{"-e", dir + "/error.log", "-p", dir,
                                                                                   "-c", dir + "/nginx.conf"});
        // Up when it accepts a connection; gone if the process ended (left for ChildProcess to reap).
        const auto exited = [this] {
            siginfo_t info{};
            return process_->pid() <= 0 ||
                   (::waitid(P_PID, static_cast<id_t>(process_->pid()), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
                    info.si_pid == process_->pid());
        };
        const auto accepts = [this] {
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<std::uint16_t>(port_));
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            ::close(fd);
            return up;
        };
        const bool up = waitUntil([&] { return exited() || accepts(); }, std::chrono::seconds(5)) && !exited();
        if (!up) throw std::runtime_error("nginx did not come up on port " + std::to_string(port_) + "; see " + dir);
    }
    ~NginxServer() {
        process_.reset();  // kills it
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    std::string url(const std::string& path) const { return "https://127.0.0.1:" + std::to_string(port_) + path; }

private:
    std::filesystem::path directory_;
    int port_ = 0;
    std::unique_ptr<ChildProcess> process_;
};

}  // namespace zul::test
