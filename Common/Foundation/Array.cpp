#include <algorithm>

#include "Common/Foundation/CopyOnWriteInternal.h"
#include "Common/Foundation/Value.h"

namespace utilia {

Array::Array(std::initializer_list<Value> values) {
    if (values.size() != 0) storage_ = std::make_shared<std::vector<Value>>(values);
}

std::vector<Value>& Array::own() { return ownStorage(storage_); }

std::size_t Array::size() const { return storage_ ? storage_->size() : 0; }
const Value& Array::operator[](std::size_t index) const { return (*storage_)[index]; }
Array::const_iterator Array::begin() const { return storage_ ? storage_->data() : nullptr; }
Array::const_iterator Array::end() const { return begin() + size(); }

void Array::append(Value value) { own().push_back(std::move(value)); }

void Array::insert(std::size_t index, Value value) {
    std::vector<Value>& values = own();
    values.insert(values.begin() + static_cast<std::ptrdiff_t>(index), std::move(value));
}

void Array::set(std::size_t index, Value value) { own()[index] = std::move(value); }

void Array::removeAt(std::size_t index) {
    std::vector<Value>& values = own();
    values.erase(values.begin() + static_cast<std::ptrdiff_t>(index));
}

std::size_t Array::remove(const Value& value) {
    if (std::find(begin(), end(), value) == end()) return 0;
    // A copy, since it may be one of the elements that move.
    const Value wanted = value;  // NOLINT(performance-unnecessary-copy-initialization)
    return std::erase(own(), wanted);
}

void Array::reserve(std::size_t count) { own().reserve(count); }

bool operator==(const Array& left, const Array& right) {
    return left.storage_ == right.storage_ ||
           std::equal(left.begin(), left.end(), right.begin(), right.end());
}

}  // namespace utilia
