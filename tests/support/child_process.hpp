#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace zul::test {

/// A child process started from a program and arguments, its standard output on a pipe.
class ChildProcess {
public:
    /// Starts `program` with `arguments`, with this process's environment plus `environment`
    /// ("NAME=value" entries, which win over inherited ones of the same name). `pid()` is -1 when
    /// it could not be started.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const std::vector<std::string>& environment = {}) {
        std::vector<std::string> argv{program};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<std::string> envp;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const std::string text(*entry);
            const std::string name = text.substr(0, text.find('=') + 1);
            bool replaced = false;
            for (const auto& extra : environment) replaced = replaced || extra.rfind(name, 0) == 0;
            if (!replaced) envp.push_back(text);
        }
        envp.insert(envp.end(), environment.begin(), environment.end());

        int pipe[2];
        if (::pipe2(pipe, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
        auto argvPointers = pointers(argv);
        auto envpPointers = pointers(envp);
        if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argvPointers.data(), envpPointers.data()) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        ::close(pipe[1]);
        output_ = pipe[0];
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    ~ChildProcess() {
        if (pid_ > 0 && !waited_) {
            ::kill(pid_, SIGKILL);
            wait();
        }
        if (output_ >= 0) ::close(output_);
    }

    pid_t pid() const noexcept { return pid_; }

    /// Reads standard output up to and including the next newline (or to its end).
    std::string readLine() {
        std::string line;
        char c = 0;
        while (output_ >= 0) {
            const ssize_t count = ::read(output_, &c, 1);
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) break;
            line.push_back(c);
            if (c == '\n') break;
        }
        return line;
    }

    /// Reads standard output to its end.
    std::string readAll() {
        std::string all;
        for (std::string line = readLine(); !line.empty(); line = readLine()) all += line;
        return all;
    }

    /// Waits for the child; returns its wait status.
    int wait() {
        int status = 0;
        if (pid_ <= 0) return status;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        waited_ = true;
        return status;
    }

    /// Waits for the child; returns its exit code, or -1 when a signal ended it.
    int exitCode() {
        const int status = wait();
        return pid_ > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    static std::vector<char*> pointers(std::vector<std::string>& texts) {
        std::vector<char*> result;
        for (auto& text : texts) result.push_back(text.data());
        result.push_back(nullptr);
        return result;
    }

    pid_t pid_ = -1;
    int output_ = -1;
    bool waited_ = false;
};

}  // namespace zul::test
