#pragma once

#include <cstdint>
#include <memory>
#include <utility>

namespace tarvik {

/**
 * One heap object shared by all copies of its handle; the last of them deletes it. The object may
 * be null, which copies share as well. The counter is a plain integer: no sharing between threads.
 */
template <class T>
class Handle {
public:
    Handle() : Handle(std::unique_ptr<T>()) { }
    /// Takes the object over. To be deleted as a `T`, so a base class needs a virtual destructor.
    explicit Handle(std::unique_ptr<T> object)
        : counter_(new std::int32_t(1)), object_(object.release())
    {
    }
    Handle(const Handle& other) noexcept : counter_(other.counter_), object_(other.object_)
    {
        ++*counter_;  // NOLINT(clang-analyzer-cplusplus.NewDelete): it loses count
    }
    Handle& operator=(Handle other) noexcept
    {
        std::swap(counter_, other.counter_);
        std::swap(object_, other.object_);
        return *this;
    }
    ~Handle()
    {
        if (--*counter_ > 0)
            return;
        delete object_;
        delete counter_;
    }

    /// @return the object, still owned by the handles; null when there is none.
    T* get() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    T* operator->() const noexcept { return object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    /// @return how many handles share the object, at least 1.
    std::int32_t count() const noexcept { return *counter_; }

private:
    std::int32_t* counter_;  // allocated first, so that a failure leaves the object to its owner
    T* object_;
};

}  // namespace tarvik
