#include "zul/core/future.hpp"

#include "zul/platform/uuid.hpp"

namespace zul {

const char* FutureError::what() const noexcept {
    switch (kind_) {
        case Kind::emptyInitValue:
            return "emptyInitValue";
        case Kind::noSuchElement:
            return "noSuchElement";
    }
    return "FutureError";
}

namespace detail {

std::string makeFutureLabel() {
    std::string label(7 + 36, '\0');
    label.replace(0, 7, "Future-");
    UUID::random().write(label.data() + 7);
    return label;
}

}  // namespace detail
}  // namespace zul
