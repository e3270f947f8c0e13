// Growable arrays with 256 elements of inline storage: the byte buffer that carries every IPC
// payload and frame (binary_t), a zero-terminated text buffer (string_t) and handle lists.
//
// A buffer has no lock; its owner guards it. Storage moves to the heap only when the content
// outgrows the inline 256 elements. Up to 64 KiB of content the heap capacity is the next
// multiple of 256 above the size needed; beyond that it grows geometrically so that building a
// large payload piece by piece costs linear time.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

namespace mcl {

template <typename T>
class buffer {
public:
    static constexpr uint32_t inline_capacity = 256;
    static constexpr uint32_t growth_step = 256;
    // Beyond this many bytes of content the capacity doubles instead of growing by steps.
    static constexpr uint64_t linear_growth_limit = 64 * 1024;

    buffer() { buffer::init(); }
    buffer(const T* p, uint32_t n) {
        buffer::init();
        buffer::write_at(0, p, n);
    }
    buffer(const buffer& other) {
        buffer::init();
        buffer::write_at(0, other.data_, other.size_);
    }
    buffer& operator=(const buffer& other) {
        if (this != &other) assign(other.data_, other.size_);
        return *this;
    }
    // Moving hands a heap block over without copying (inline content is copied); the source
    // is left empty.
    buffer(buffer&& other) noexcept {
        buffer::init();
        take(other);
    }
    buffer& operator=(buffer&& other) noexcept {
        if (this != &other) {
            free_heap();
            take(other);
        }
        return *this;
    }
    virtual ~buffer() { free_heap(); }

    virtual void init() {
        data_ = inline_;
        spare_ = T();
        capacity_ = inline_capacity;
        size_ = 0;
    }
    virtual void append(const buffer& other) { append(other.data_, other.size_); }
    virtual void append(const T* p, uint32_t n) { write_at(size_, p, n); }

    // The one primitive that stores elements: writes n elements at pos and makes the size
    // pos + n, so it both overwrites and truncates. A null p reserves room without copying.
    // Nothing changes when n is 0, pos lies beyond the size or memory runs out.
    virtual void write_at(uint32_t pos, const T* p, uint32_t n) {
        if (n == 0 || pos > size_) return;
        const uint64_t required = static_cast<uint64_t>(pos) + n;
        if (required > UINT32_MAX) return;
        T* retired = nullptr;  // old storage stays alive while p may still point into it
        if (!reserve_for(pos, required, &retired)) return;
        if (p != nullptr) memmove(data_ + pos, p, static_cast<size_t>(n) * sizeof(T));
        size_ = static_cast<uint32_t>(required);
        free(retired);
    }
    virtual void assign(const T* p, uint32_t n) {
        clear();
        append(p, n);
    }
    virtual void release_storage() { free_heap(); }
    virtual void clear() { size_ = 0; }
    virtual bool empty() const { return size_ == 0; }

    // Takes a heap block from malloc as storage (freed by this buffer later). A null block
    // or a count above the capacity is refused.
    virtual bool attach(T* block, uint32_t count, uint32_t capacity) {
        if (block == nullptr || count > capacity) return false;
        free_heap();
        data_ = block;
        capacity_ = capacity;
        size_ = count;
        return true;
    }
    // Hands the heap block to the caller (who frees it with free) and returns to the inline
    // storage. Returns null when the content lives inline; the buffer then keeps it.
    virtual T* detach() {
        if (data_ == inline_) return nullptr;
        T* block = data_;
        init();
        return block;
    }

    virtual int64_t find(const T& value, uint32_t start) const {
        for (uint32_t i = start; i < size_; ++i)
            if (data_[i] == value) return i;
        return -1;
    }
    virtual uint32_t drop_back(uint32_t n) {
        if (n > size_) {
            clear();
        } else {
            size_ -= n;
        }
        return size_;
    }

    const T* data() const { return data_; }
    T* data() { return data_; }
    uint32_t size() const { return size_; }
    uint32_t capacity() const { return capacity_; }
    bool is_inline() const { return data_ == inline_; }

    // Element access never leaves the storage: an index at or past the size gives the spare.
    const T& operator[](uint32_t i) const { return i < size_ ? data_[i] : spare_; }
    T& operator[](uint32_t i) {
        if (i < size_) return data_[i];
        spare_ = T();
        return spare_;
    }

    // Removes the first n elements, moving the rest to the front.
    void drop_front(uint32_t n) {
        if (n >= size_) {
            clear();
            return;
        }
        memmove(data_, data_ + n, static_cast<size_t>(size_ - n) * sizeof(T));
        size_ -= n;
    }

protected:
    static uint64_t capacity_for(uint64_t required) {
        if (required <= inline_capacity) return inline_capacity;
        if (required <= linear_growth_limit) return (required / growth_step + 1) * growth_step;
        uint64_t cap = linear_growth_limit;
        while (cap <= required) cap *= 2;
        return cap > UINT32_MAX ? UINT32_MAX : cap;
    }

    // Makes room for `required` elements, keeping the first `keep` of them. A heap block that
    // is replaced goes to *retired for the caller to free (or is freed here without one).
    bool reserve_for(uint32_t keep, uint64_t required, T** retired = nullptr) {
        if (required <= capacity_) return true;
        const uint64_t cap = capacity_for(required);
        if (cap < required) return false;
        T* storage = inline_;
        if (cap > inline_capacity) {
            storage = static_cast<T*>(malloc(static_cast<size_t>(cap) * sizeof(T)));
            if (storage == nullptr) return false;
        }
        if (storage != data_ && keep != 0) memcpy(storage, data_, static_cast<size_t>(keep) * sizeof(T));
        if (data_ != inline_) {
            if (retired != nullptr) {
                *retired = data_;
            } else {
                free(data_);
            }
        }
        data_ = storage;
        capacity_ = static_cast<uint32_t>(cap);
        size_ = keep;
        return true;
    }

private:
    void take(buffer& other) {
        if (other.data_ == other.inline_) {
            buffer::write_at(0, other.data_, other.size_);
            other.size_ = 0;
            return;
        }
        data_ = other.data_;
        capacity_ = other.capacity_;
        size_ = other.size_;
        other.data_ = other.inline_;
        other.capacity_ = inline_capacity;
        other.size_ = 0;
    }
    void free_heap() {
        if (data_ != inline_) free(data_);
        init();
    }

    T inline_[inline_capacity];
    T* data_ = inline_;
    T spare_ = T();
    uint32_t capacity_ = inline_capacity;
    uint32_t size_ = 0;
};

// The byte buffer of every IPC payload and frame.
class binary_t : public buffer<unsigned char> {
public:
    using buffer::buffer;
    binary_t() = default;
    binary_t(const binary_t&) = default;
    binary_t& operator=(const binary_t&) = default;
    binary_t(binary_t&&) = default;
    binary_t& operator=(binary_t&&) = default;

    bool operator==(const binary_t& other) const {
        return size() == other.size() && (size() == 0 || memcmp(data(), other.data(), size()) == 0);
    }
    bool operator!=(const binary_t& other) const { return !(*this == other); }
};

// A text whose terminating zero lies inside the buffer: size = characters + 1.
class string_t : public buffer<char> {
public:
    string_t() { string_t::init(); }
    string_t(const char* s) {  // NOLINT: converting from C strings is the point
        string_t::init();
        if (s != nullptr) buffer::write_at(0, s, static_cast<uint32_t>(strlen(s)) + 1);
    }
    string_t(const string_t& other) : buffer(other) {}
    string_t& operator=(const string_t& other) {
        if (this != &other) {
            buffer::clear();
            buffer::write_at(0, other.data(), other.size());
        }
        return *this;
    }

    void init() override {
        buffer::init();
        buffer::write_at(0, "", 1);
    }
    void write_at(uint32_t pos, const char* p, uint32_t n) override {
        if (n == 0 || pos > size()) return;
        const uint64_t required = static_cast<uint64_t>(pos) + n + 1;
        char* retired = nullptr;
        if (required > UINT32_MAX || !reserve_for(pos, required, &retired)) return;
        buffer::write_at(pos, p, n);
        free(retired);
        const char zero = 0;
        buffer::write_at(pos + n, &zero, 1);
    }
    void clear() override {
        buffer::clear();
        const char zero = 0;
        buffer::write_at(0, &zero, 1);
    }
    bool empty() const override { return size() < 2; }
    uint32_t drop_back(uint32_t n) override {
        const uint32_t chars = length();
        if (n >= chars) {
            clear();
        } else {
            data()[chars - n] = 0;
            buffer::drop_back(n);
        }
        return size();
    }

    virtual void append(char c) {
        if (c != 0) write_at(size() - 1, &c, 1);
    }
    virtual void append(const char* s) {
        if (s != nullptr) write_at(size() - 1, s, static_cast<uint32_t>(strlen(s)));
    }
    virtual void append(const string_t& other) { write_at(size() - 1, other.data(), other.length()); }
    using buffer::append;

    uint32_t length() const { return size() == 0 ? 0 : size() - 1; }
    const char* c_str() const { return data(); }
    bool operator==(const char* s) const { return strcmp(c_str(), s == nullptr ? "" : s) == 0; }
    bool operator==(const string_t& other) const { return strcmp(c_str(), other.c_str()) == 0; }
};

// A list of handles for the IPC wait loops.
using handle_list = buffer<void*>;

// Two upper-case hexadecimal digits per byte, nothing between them.
string_t to_hex(const binary_t& bytes);

}  // namespace mcl
