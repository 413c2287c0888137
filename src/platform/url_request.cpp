#include "zul/platform/url_request.hpp"

#include <algorithm>

#include "platform/ascii.hpp"

namespace zul {

namespace {

// Field names are tokens: ASCII only, so ASCII case folding is all there is to it.
bool sameName(std::string_view a, std::string_view b) noexcept { return detail::equalsIgnoringASCIICase(a, b); }

// Requests mostly carry a handful of fields: room for them on the first, instead of growing
// the vector one field at a time.
constexpr std::size_t initialFieldCapacity = 4;

}  // namespace

HTTPHeaders::HTTPHeaders(std::initializer_list<Field> fields) {
    fields_.reserve(fields.size());
    for (const Field& field : fields) setValue(field.second, field.first);
}

std::vector<HTTPHeaders::Field>::iterator HTTPHeaders::find(std::string_view name) {
    return std::find_if(fields_.begin(), fields_.end(), [name](const Field& field) { return sameName(field.first, name); });
}

std::vector<HTTPHeaders::Field>::const_iterator HTTPHeaders::find(std::string_view name) const {
    return std::find_if(fields_.begin(), fields_.end(), [name](const Field& field) { return sameName(field.first, name); });
}

std::optional<std::string> HTTPHeaders::value(std::string_view name) const {
    const auto field = find(name);
    if (field == fields_.end()) return std::nullopt;
    return field->second;
}

void HTTPHeaders::setValue(std::optional<std::string> value, std::string_view name) {
    const auto field = find(name);
    if (!value) {
        if (field != fields_.end()) fields_.erase(field);
        return;
    }
    if (field != fields_.end()) {
        field->second = std::move(*value);
        return;
    }
    if (fields_.capacity() == 0) fields_.reserve(initialFieldCapacity);
    fields_.emplace_back(std::string(name), std::move(*value));
}

void HTTPHeaders::addValue(std::string_view value, std::string_view name) {
    const auto field = find(name);
    if (field != fields_.end()) {
        std::string& current = field->second;
        current.reserve(current.size() + 1 + value.size());
        current += ',';
        current += value;
        return;
    }
    if (fields_.capacity() == 0) fields_.reserve(initialFieldCapacity);
    fields_.emplace_back(std::string(name), std::string(value));
}

// ---- URLRequest: copy on write.

const URLRequest::Fields& URLRequest::defaultFields() noexcept {
    static const Fields fields;
    return fields;
}

URLRequest::URLRequest(std::optional<URL> url, URLRequestCachePolicy cachePolicy, double timeoutInterval) {
    if (!url && cachePolicy == URLRequestCachePolicy::useProtocolCachePolicy &&
        timeoutInterval == defaultTimeoutInterval) {
        return;  // the defaults, shared by every such request
    }
    shared_ = new Shared{};
    shared_->fields.url = std::move(url);
    shared_->fields.cachePolicy = cachePolicy;
    shared_->fields.timeoutInterval = timeoutInterval;
}

URLRequest::URLRequest(const URLRequest& other) noexcept : shared_(other.shared_) {
    if (shared_ != nullptr) shared_->references.fetch_add(1, std::memory_order_relaxed);
}

URLRequest& URLRequest::operator=(const URLRequest& other) noexcept {
    URLRequest copy(other);
    std::swap(shared_, copy.shared_);
    return *this;
}

URLRequest& URLRequest::operator=(URLRequest&& other) noexcept {
    URLRequest taken(std::move(other));
    std::swap(shared_, taken.shared_);
    return *this;
}

URLRequest::~URLRequest() {
    // The last owner deletes; acq_rel so that every other owner's use happens before.
    if (shared_ != nullptr && shared_->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete shared_;
}

URLRequest::Fields& URLRequest::edit() {
    if (shared_ == nullptr) {
        shared_ = new Shared{};
    } else if (shared_->references.load(std::memory_order_acquire) != 1) {
        // Shared: this request gets its own copy, and the others keep theirs untouched.
        URLRequest previous;
        previous.shared_ = std::exchange(shared_, new Shared{shared_->fields});
    }
    return shared_->fields;
}

bool operator==(const URLRequest& a, const URLRequest& b) {
    return a.shared_ == b.shared_ || a.fields() == b.fields();
}

bool operator==(const HTTPHeaders& a, const HTTPHeaders& b) {
    // Names are unique (in any case) within each, so equal counts and every field of `a` found
    // with its value in `b` make them the same set.
    if (a.fields_.size() != b.fields_.size()) return false;
    return std::all_of(a.fields_.begin(), a.fields_.end(), [&b](const HTTPHeaders::Field& field) {
        const auto other = b.find(field.first);
        return other != b.fields_.end() && other->second == field.second;
    });
}

}  // namespace zul
