// One object of T per process, created on first use and destroyed at process exit.
//
// T derives from singleton_ptr<T> and makes singleton_ptr<T> a friend when its constructor is
// not public. The object is built in zero-filled static storage; creation is thread-safe.
#pragma once

#include <new>

namespace mcl {

template <typename T>
class singleton_ptr {
public:
    static T& instance() {
        static holder h;
        return *h.object;
    }

protected:
    singleton_ptr() = default;
    ~singleton_ptr() = default;

private:
    struct holder {
        holder() : object(new (storage) T()) {}
        ~holder() { object->~T(); }
        holder(const holder&) = delete;
        holder& operator=(const holder&) = delete;
        alignas(T) unsigned char storage[sizeof(T)] = {};
        T* object;
    };
};

}  // namespace mcl
