#pragma once
// Locks the compiler can check. With clang and -Wthread-safety, state marked
// MFW_GUARDED_BY(lock) may only be touched with `lock` held, and functions
// marked MFW_EXCLUDES(lock) may not be called with it held; other compilers
// see plain mutexes. The standard library's mutexes carry no such
// annotations, hence these thin wrappers.

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define MFW_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MFW_THREAD_ANNOTATION(x)
#endif

#define MFW_CAPABILITY(name) MFW_THREAD_ANNOTATION(capability(name))
#define MFW_SCOPED_CAPABILITY MFW_THREAD_ANNOTATION(scoped_lockable)
#define MFW_GUARDED_BY(x) MFW_THREAD_ANNOTATION(guarded_by(x))
#define MFW_PT_GUARDED_BY(x) MFW_THREAD_ANNOTATION(pt_guarded_by(x))
#define MFW_ACQUIRED_BEFORE(...) MFW_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define MFW_ACQUIRED_AFTER(...) MFW_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define MFW_REQUIRES(...) MFW_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define MFW_REQUIRES_SHARED(...) MFW_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define MFW_ACQUIRE(...) MFW_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define MFW_ACQUIRE_SHARED(...) MFW_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define MFW_RELEASE(...) MFW_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define MFW_RELEASE_SHARED(...) MFW_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define MFW_RELEASE_GENERIC(...) MFW_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define MFW_TRY_ACQUIRE(...) MFW_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define MFW_EXCLUDES(...) MFW_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define MFW_RETURN_CAPABILITY(x) MFW_THREAD_ANNOTATION(lock_returned(x))
#define MFW_NO_THREAD_SAFETY_ANALYSIS MFW_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace CORE {

class MFW_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() MFW_ACQUIRE() { m_.lock(); }
    void unlock() MFW_RELEASE() { m_.unlock(); }
    bool try_lock() MFW_TRY_ACQUIRE(true) { return m_.try_lock(); }

    // Tells the analysis that the caller holds the lock (for lambdas run
    // under it, which the analysis cannot follow).
    void assertHeld() const MFW_THREAD_ANNOTATION(assert_capability(this)) {}

private:
    friend class MutexLock;
    std::mutex m_;
};

// Holds a Mutex for its scope; can wait on a condition variable.
class MFW_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& m) MFW_ACQUIRE(m) : lock_(m.m_) {}
    ~MutexLock() MFW_RELEASE() {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    // Releases early; the destructor then does nothing.
    void unlock() MFW_RELEASE() { lock_.unlock(); }

    template <class Predicate>
    void wait(std::condition_variable& cv, Predicate pred) {
        cv.wait(lock_, pred);
    }
    // The lock underneath, for waits that take a std::unique_lock (a
    // TimeSource's, say); it must be held again when they return.
    std::unique_lock<std::mutex>& native() { return lock_; }
    template <class Rep, class Period, class Predicate>
    bool waitFor(std::condition_variable& cv, std::chrono::duration<Rep, Period> limit,
                 Predicate pred) {
        return cv.wait_for(lock_, limit, pred);
    }

private:
    std::unique_lock<std::mutex> lock_;
};

// A reader/writer lock.
class MFW_CAPABILITY("mutex") SharedMutex {
public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void lock() MFW_ACQUIRE() { m_.lock(); }
    void unlock() MFW_RELEASE() { m_.unlock(); }
    void lock_shared() MFW_ACQUIRE_SHARED() { m_.lock_shared(); }
    void unlock_shared() MFW_RELEASE_SHARED() { m_.unlock_shared(); }

private:
    std::shared_mutex m_;
};

class MFW_SCOPED_CAPABILITY WriterLock {
public:
    explicit WriterLock(SharedMutex& m) MFW_ACQUIRE(m) : m_(m) { m_.lock(); }
    ~WriterLock() MFW_RELEASE() { m_.unlock(); }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

private:
    SharedMutex& m_;
};

class MFW_SCOPED_CAPABILITY ReaderLock {
public:
    explicit ReaderLock(SharedMutex& m) MFW_ACQUIRE_SHARED(m) : m_(m) { m_.lock_shared(); }
    ~ReaderLock() MFW_RELEASE() { m_.unlock_shared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

private:
    SharedMutex& m_;
};

}  // namespace CORE
