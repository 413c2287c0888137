// Fetches a "price" on a background queue, converts it along a chain of futures, and shows the
// result on the main queue, which this program runs until the work is done.

#include <zul/core/dispatch.hpp>
#include <zul/core/future.hpp>
#include <zul/platform/main_loop.hpp>

#include <cstdio>
#include <string>

namespace {

class PriceUnavailable final : public zul::Error {
public:
    const char* what() const noexcept override { return "price unavailable"; }
};

// Pretends to ask a back end for a price in cents, answering 50 ms later on a worker queue.
std::shared_ptr<zul::Future<int>> fetchPriceInCents(const std::shared_ptr<zul::Dispatcher>& worker, bool available) {
    return zul::Future<int>::create([&](zul::Future<int>::Completion done) {
        worker->async(zul::dispatchTimeAfter(0.05), [done, available] {
            if (available) {
                done(zul::success(1999));
            } else {
                done(zul::failure(PriceUnavailable()));
            }
        });
    });
}

}  // namespace

int main() {
    auto worker = zul::ZulDispatchCustom::create("dev.example.prices");
    auto ui = zul::ZulDispatchMain::create();
    int pending = 2;

    for (bool available : {true, false}) {
        fetchPriceInCents(worker, available)
            ->map([](int cents) {
                char text[32];
                std::snprintf(text, sizeof text, "%d.%02d", cents / 100, cents % 100);
                return std::string(text);
            })
            ->onResult([ui, &pending](const zul::Future<std::string>::Outcome& outcome) {
                // Futures call back on the completing thread; hop to the main queue to "update the UI".
                ui->async([outcome, &pending] {
                    if (outcome.isSuccess()) {
                        std::printf("price: %s\n", outcome.value().c_str());
                    } else {
                        std::printf("no price: %s\n", outcome.error().description().c_str());
                    }
                    if (--pending == 0) zul::MainLoop::stop();
                });
            });
    }

    zul::MainLoop::run();  // returns when the last answer has been shown
    return 0;
}
