// Guards for what a function holds: each releases it at the end of its block unless take() handed
// it on. Written on the line after the acquisition.
#pragma once

#include "lib/vylist.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

// clang's thread-safety analysis (-Wthread-safety); nothing for other compilers.
#if defined(__clang__)
#define VY_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VY_THREAD_ANNOTATION(x)
#endif
#define VY_CAPABILITY(name) VY_THREAD_ANNOTATION(capability(name))
#define VY_SCOPED_CAPABILITY VY_THREAD_ANNOTATION(scoped_lockable)
#define VY_GUARDED_BY(lock) VY_THREAD_ANNOTATION(guarded_by(lock))
#define VY_PT_GUARDED_BY(lock) VY_THREAD_ANNOTATION(pt_guarded_by(lock))
#define VY_ACQUIRE(...) VY_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define VY_RELEASE(...) VY_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define VY_NO_THREAD_ANALYSIS VY_THREAD_ANNOTATION(no_thread_safety_analysis)

// A pointer released by `Release` (which is not called for null).
template <typename T, void (*Release)(T*)>
class Guard {
  public:
    explicit Guard(T* held = nullptr) : held_(held) {}
    ~Guard() { reset(nullptr); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

    T* get() const { return held_; }
    T* operator->() const { return held_; }
    explicit operator bool() const { return held_ != nullptr; }
    T** out() { return &held_; } // for functions that return owned through a pointer; hold null
    T* take()
    {
        T* handed_on = held_;
        held_ = nullptr;
        return handed_on;
    }
    void reset(T* next)
    {
        if (held_ != nullptr)
            Release(held_);
        held_ = next;
    }

  private:
    T* held_;
};

template <typename T>
void mem_release(T* memory)
{
    free(memory);
}

inline void file_release(FILE* stream)
{
    (void)fclose(stream); // who cares for the last write's result has called fflush
}

template <typename T>
using MemGuard = Guard<T, mem_release<T>>;
using FileGuard = Guard<FILE, file_release>;
using ListGuard = Guard<vylist, vylist_dispose>; // nodes only, as vylist_dispose

// A descriptor; -1 holds nothing. Has no test by operator: 0 is a descriptor.
class FdGuard {
  public:
    explicit FdGuard(int fd = -1) : fd_(fd) {}
    ~FdGuard() { reset(-1); }
    FdGuard(const FdGuard&) = delete;
    FdGuard& operator=(const FdGuard&) = delete;

    int get() const { return fd_; }
    int take()
    {
        const int handed_on = fd_;
        fd_ = -1;
        return handed_on;
    }
    void reset(int next)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = next;
    }

  private:
    int fd_;
};

// A pthread mutex that the thread-safety analysis knows. Made by init(), gone by term().
class VY_CAPABILITY("mutex") Mutex {
  public:
    [[nodiscard]] int init() { return pthread_mutex_init(&mutex_, nullptr); }
    void term() { (void)pthread_mutex_destroy(&mutex_); }
    void lock() VY_ACQUIRE() { (void)pthread_mutex_lock(&mutex_); }
    void unlock() VY_RELEASE() { (void)pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_;
};

class VY_SCOPED_CAPABILITY LockGuard {
  public:
    explicit LockGuard(Mutex& mutex) VY_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~LockGuard() VY_RELEASE() { mutex_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

  private:
    Mutex& mutex_;
};

// Flags that a signal handler or another thread sets without a lock: one byte, lock-free
// everywhere.
inline uint8_t flag_get(const uint8_t* flag)
{
    return __atomic_load_n(flag, __ATOMIC_ACQUIRE);
}

inline void flag_set(uint8_t* flag, uint8_t value)
{
    __atomic_store_n(flag, value, __ATOMIC_RELEASE);
}
