#include "platform/file_worker.hpp"

#include <pthread.h>

#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

namespace zul::detail {

namespace {

class FileWorker {
public:
    FileWorker() {
        std::thread thread([this] { run(); });
        thread.detach();
    }

    void submit(UniqueFunction<void()> job) {
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        ready_.notify_one();
    }

private:
    [[noreturn]] void run() {
        pthread_setname_np(pthread_self(), "zul-files");
        for (;;) {
            UniqueFunction<void()> job;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [this] { return !jobs_.empty(); });
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<UniqueFunction<void()>> jobs_;
};

}  // namespace

namespace {

FileWorker& worker() {
    // Never destroyed: its thread runs until the process ends.
    static FileWorker* instance = new FileWorker;
    return *instance;
}

}  // namespace

void submitFileWork(UniqueFunction<void()> job) { worker().submit(std::move(job)); }

void waitForFileWork() {
    std::promise<void> done;
    auto finished = done.get_future();
    worker().submit([&done] { done.set_value(); });
    finished.wait();
}

}  // namespace zul::detail
