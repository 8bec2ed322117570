#pragma once

#include <charconv>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

namespace utilia {

// Text that is put together piece by piece. The first 4096 bytes lie in the object itself, so that
// nearly every record of an event is made without asking for memory.
//
// Threads: only the one that uses the object.
class TextBuffer final {
public:
    static constexpr std::size_t kStep = 4096;

    TextBuffer() : text_(own_) {}
    TextBuffer(const TextBuffer&) = delete;
    TextBuffer& operator=(const TextBuffer&) = delete;

    std::string_view text() const { return {text_, size_}; }
    std::size_t size() const { return size_; }
    void cutTo(std::size_t size) { size_ = size; }  // at most size()

    void append(std::string_view piece) {
        std::memcpy(room(piece.size()), piece.data(), piece.size());
        size_ += piece.size();
    }
    void append(char character) {
        *room(1) = character;
        ++size_;
    }
    // Whatever std::to_chars() takes; at most 64 characters.
    template <class... Arguments>
    void appendNumber(Arguments... arguments) {
        constexpr std::size_t kLongest = 64;
        char* const begin = room(kLongest);
        size_ += static_cast<std::size_t>(std::to_chars(begin, begin + kLongest, arguments...).ptr -
                                          begin);
    }
    // Decimal, with leading zeros up to `digits`.
    void appendPadded(unsigned value, unsigned digits) {
        char* const begin = room(digits);
        for (unsigned i = digits; i-- > 0; value /= 10)
            begin[i] = static_cast<char>('0' + value % 10);
        size_ += digits;
    }

private:
    char* room(std::size_t size) {
        if (capacity_ - size_ < size) grow(size);
        return text_ + size_;
    }
    void grow(std::size_t size) {
        // Twice as much at least, or a long text would be copied once for each step.
        const std::size_t wanted = size_ + size > 2 * capacity_ ? size_ + size : 2 * capacity_;
        const std::size_t capacity = (wanted + kStep - 1) / kStep * kStep;
        std::unique_ptr<char[]> larger(new char[capacity]);
        std::memcpy(larger.get(), text_, size_);
        larger_ = std::move(larger);
        text_ = larger_.get();
        capacity_ = capacity;
    }

    char own_[kStep];  // not initialized: that would cost as much as a record
    char* text_;
    std::size_t size_ = 0;
    std::size_t capacity_ = kStep;
    std::unique_ptr<char[]> larger_;
};

}  // namespace utilia
