#include "zul/core/dispatch.hpp"

#include "zul/platform/error.hpp"

namespace zul {

namespace {
[[noreturn]] void unimplementedInitializer(const char* className) {
    fatalError(std::string("Use of unimplemented initializer 'init(queue:)' for class '") + className + "'");
}
}  // namespace

ZulDispatch::ZulDispatch(std::shared_ptr<DispatchQueue> queue) : queue_(std::move(queue)) {
    if (queue_ == nullptr) fatalError("ZulDispatch needs a queue");
}

std::shared_ptr<ZulDispatch> ZulDispatch::create(std::shared_ptr<DispatchQueue> queue) {
    return std::shared_ptr<ZulDispatch>(new ZulDispatch(std::move(queue)));
}

// Both submit with the queue's own quality of service and as ordinary (non-barrier) work.
void ZulDispatch::async(Work work) { queue_->async(std::move(work)); }

void ZulDispatch::async(DispatchTime deadline, Work work) { queue_->asyncAfter(deadline, std::move(work)); }

ZulDispatchMain::ZulDispatchMain() : ZulDispatch(DispatchQueue::main()) {}

std::shared_ptr<ZulDispatchMain> ZulDispatchMain::create() {
    return std::shared_ptr<ZulDispatchMain>(new ZulDispatchMain());
}

void ZulDispatchMain::create(std::shared_ptr<DispatchQueue>) { unimplementedInitializer("ZulFoundation.ZulDispatchMain"); }

ZulDispatchCustom::ZulDispatchCustom(std::string label)
    : ZulDispatch(DispatchQueue::create(std::move(label), QualityOfService::unspecified)) {}

std::shared_ptr<ZulDispatchCustom> ZulDispatchCustom::create(std::string label) {
    return std::shared_ptr<ZulDispatchCustom>(new ZulDispatchCustom(std::move(label)));
}

void ZulDispatchCustom::create(std::shared_ptr<DispatchQueue>) {
    unimplementedInitializer("ZulFoundation.ZulDispatchCustom");
}

}  // namespace zul
