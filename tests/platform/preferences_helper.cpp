// A program the preferences tests run as a separate process:
//
//   zul_preferences_helper loop FILE               rewrites one consistent state forever; prints
//                                                  "ready" once the first write is on disk
//   zul_preferences_helper count FILE PREFIX N     sets PREFIX0 ... PREFIX<N-1>, synchronising each
//   zul_preferences_helper standard KEY TEXT       prints the standard store's path, sets KEY and
//                                                  exits without synchronising
//   zul_preferences_helper bundle                  prints the main bundle's path and identifier
//
// It exits 0 on success and 1 when a write fails.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/preferences_state.hpp"
#include "zul/platform/bundle.hpp"
#include "zul/platform/user_defaults.hpp"

namespace {

int loop(const std::string& file) {
    auto store = zul::UserDefaults::create(file);
    // Continue from the state a killed predecessor left, so that the test sees progress.
    std::int64_t i = 0;
    if (auto previous = store->object("state")) i = zul::test::stateNumber(*previous) + 1;
    for (bool first = true;; first = false, ++i) {
        store->set(zul::test::consistentState(i), "state");
        store->set(i, "last");
        // Every other state is synchronised, the rest left to the background writer; the first
        // is on disk before "ready", so that every run makes progress.
        if ((first || i % 2 == 0) && !store->synchronize()) return 1;
        if (first) {
            std::fputs("ready\n", stdout);
            std::fflush(stdout);
        }
    }
}

int count(const std::string& file, const std::string& prefix, int n) {
    auto store = zul::UserDefaults::create(file);
    for (int i = 0; i < n; ++i) {
        store->set(i, prefix + std::to_string(i));
        if (!store->synchronize()) return 1;
    }
    return 0;
}

int standard(const std::string& key, const std::string& text) {
    std::printf("%s\n", zul::UserDefaults::standardPath().c_str());
    zul::UserDefaults::standard()->set(text, key);
    return 0;  // the store writes what is pending as the process exits
}

int bundle() {
    auto main = zul::Bundle::main();
    std::printf("%s\n%s\n", main->bundlePath().c_str(), main->bundleIdentifier().value_or("(none)").c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "loop" && argc == 3) return loop(argv[2]);
    if (mode == "count" && argc == 5) return count(argv[2], argv[3], std::atoi(argv[4]));
    if (mode == "standard" && argc == 4) return standard(argv[2], argv[3]);
    if (mode == "bundle" && argc == 2) return bundle();
    std::fprintf(stderr, "usage: see the top of preferences_helper.cpp\n");
    return 2;
}
