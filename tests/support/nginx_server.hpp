#pragma once

// nginx on a free loopback port, serving HTTPS with HTTP/2 from a configuration fragment, for the
// tests that need a server speaking HTTP/2 (httplib speaks only HTTP/1.1). It runs in the
// foreground as a child process of the test, in a directory of its own that goes with it.

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/loopback_server.hpp"

extern char** environ;

namespace zul::test {

class NginxServer {
public:
    /// Starts nginx with `locations` (directives inside its one `server` block) over TLS with
    /// `identity`. Throws when nginx is missing or does not come up.
    NginxServer(const TLSIdentity& identity, const std::string& locations) {
        std::string binary = ::access("/usr/sbin/nginx", X_OK) == 0 ? "/usr/sbin/nginx" : "/usr/bin/nginx";
        if (::access(binary.c_str(), X_OK) != 0) throw std::runtime_error("nginx is not installed (nginx-light)");
        char pattern[] = "/tmp/zul-nginx-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("cannot make a directory for nginx");
        directory_ = pattern;
        std::filesystem::permissions(directory_, std::filesystem::perms(0755));  // readable by nginx's user
        std::ofstream(directory_ / "cert.pem") << identity.certificatePEM;
        std::ofstream(directory_ / "key.pem") << identity.privateKeyPEM;
        port_ = unusedLoopbackPort();
        const std::string dir = directory_.string();
        std::ofstream config(directory_ / "nginx.conf");
        config << "daemon off;\nmaster_process off;\nworker_processes 1;\npid " << dir << "/nginx.pid;\nerror_log " << dir
               << "/error.log warn;\nevents { worker_connections 256; }\nhttp {\n  access_log off;\n";
        for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
            config << "  " << temp << "_temp_path " << dir << "/" << temp << ";\n";
        }
        config << "  server {\n    listen 127.0.0.1:" << port_ << " ssl http2;\n    ssl_certificate " << dir
               << "/cert.pem;\n    ssl_certificate_key " << dir << "/key.pem;\n    " << locations << "\n  }\n}\n";
        config.close();
        std::vector<std::string> arguments{binary, "-e", dir + "/error.log", "-p", dir, "-c", dir + "/nginx.conf"};
        std::vector<char*> argv;
        for (std::string& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        if (::posix_spawn(&pid_, binary.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
            throw std::runtime_error("cannot start nginx");
        }
        // Up when it accepts a connection; gone if the process ended.
        for (int attempt = 0; attempt < 200; ++attempt) {
            if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                throw std::runtime_error("nginx stopped at once; see " + arguments[2]);
            }
            const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(static_cast<std::uint16_t>(port_));
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const bool up = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
            ::close(fd);
            if (up) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        throw std::runtime_error("nginx did not come up on port " + std::to_string(port_));
    }

    ~NginxServer() {
        if (pid_ > 0 && ::kill(pid_, SIGTERM) == 0) ::waitpid(pid_, nullptr, 0);
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    std::string url(const std::string& path) const { return "https://127.0.0.1:" + std::to_string(port_) + path; }

private:
    std::filesystem::path directory_;
    int port_ = 0;
    pid_t pid_ = -1;
};

}  // namespace zul::test
