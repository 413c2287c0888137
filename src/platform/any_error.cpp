#include <cstdlib>
#include <stdexcept>

#include "zul/platform/error.hpp"

namespace zul {

namespace {

// Stands in for an exception that does not derive from `std::exception`.
class UnknownException final : public Error {
public:
    const char* what() const noexcept override { return "unknown error"; }
};

}  // namespace

AnyError::AnyError(std::shared_ptr<const std::exception> error, std::exception_ptr foreign)
    : error_(std::move(error)), rethrow_(&throwForeign), foreign_(std::move(foreign)) {}

AnyError AnyError::current() { return fromException(std::current_exception()); }

AnyError AnyError::fromException(std::exception_ptr exception) {
    if (!exception) throw std::invalid_argument("AnyError::fromException needs an exception");
    try {
        std::rethrow_exception(exception);
    } catch (const std::exception& error) {
        // Rethrowing an exception_ptr throws the very object it holds, so the view stays valid
        // while the exception_ptr lives; the aliasing pointer keeps it alive.
        auto keeper = std::make_shared<const std::exception_ptr>(exception);
        return AnyError(std::shared_ptr<const std::exception>(keeper, &error), exception);
    } catch (...) {
        return AnyError(std::make_shared<const UnknownException>(), exception);
    }
}

void AnyError::throwForeign(const AnyError& self) { std::rethrow_exception(self.foreign_); }

std::string AnyError::description() const {
    if (const auto* error = dynamic_cast<const Error*>(error_.get())) return error->description();
    return error_->what();
}

void AnyError::rethrow() const {
    rethrow_(*this);
    std::abort();  // not reached: every thrower throws
}

}  // namespace zul
