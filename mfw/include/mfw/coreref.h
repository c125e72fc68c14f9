#pragma once
// Reference counting of the host framework: objects start with one reference
// held by their creator; release() deletes the object at zero.

#include <atomic>
#include <stdexcept>
#include <string>
#include <utility>

namespace CORE {

class coreException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class coreref {
public:
    coreref() = default;
    coreref(const coreref&) = delete;
    coreref& operator=(const coreref&) = delete;
    virtual ~coreref() = default;

    virtual long addRef() { return refs_.fetch_add(1, std::memory_order_relaxed) + 1; }
    virtual long release() {
        const long left = refs_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        if (left == 0) {
            delete this;
        }
        return left;
    }

private:
    std::atomic<long> refs_{1};
};

// Owning handle to a coreref object: adopts the creator's reference, adds one
// per copy, releases one on destruction.
template <class T>
class ref {
public:
    ref() = default;
    static ref adopt(T* p) { return ref(p); }
    ref(const ref& o) : p_(o.p_) {
        if (p_ != nullptr) {
            p_->addRef();
        }
    }
    ref(ref&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    ref& operator=(ref o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }
    ~ref() { reset(); }

    void reset() {
        if (T* p = std::exchange(p_, nullptr)) {
            p->release();
        }
    }
    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }

private:
    explicit ref(T* p) : p_(p) {}
    T* p_ = nullptr;
};

}  // namespace CORE
