// What differs between the C libraries and build kinds that are home: nothing else in the code asks
// which one it is.
#pragma once

#include <features.h>
#include <linux/audit.h>
#include <malloc.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

// Sends what a stream holds down to its file. Returns 0, or -1 with errno when a write failed: now,
// or earlier since the stream was opened or cleared. uClibc's fflush returns 0 even then and
// forgets the bytes; only the stream's mark tells.
[[nodiscard]] inline int stream_flush(FILE* stream)
{
    return fflush(stream) == 0 && ferror(stream) == 0 ? 0 : -1;
}

// Hands the pages that deeper calls have left on the main thread's stack back to the machine; to be
// called by that thread. Nobody else has anything there: the kernel lets a stack grow into it. Not
// inlined, for only then its frame is the last one.
[[gnu::noinline]] inline void stack_give_back()
{
    constexpr uintptr_t left = 1024;    // for the call that gives back
    constexpr uintptr_t looked = 65536; // bytes; calls take less
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
    const uintptr_t end = (here - left) & ~(page - 1);
    (void)madvise(reinterpret_cast<void*>(end - looked), looked, MADV_DONTNEED);
}

// Hands the memory that was freed back to the machine, for a program that is about to wait: most of
// what it takes is for one event, and the next one may be days away. glibc keeps it otherwise; what
// the others do is left to them. To be called by the main thread.
inline void memory_give_back()
{
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    (void)malloc_trim(0);
#endif
    stack_give_back();
}

// Has all threads share one heap, which glibc would give each of them. To be called before the
// first is made.
inline void memory_share_heap()
{
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    (void)mallopt(M_ARENA_MAX, 1);
#endif
}

// Stack of the receive thread, in bytes.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VY_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VY_SANITIZED 1
#endif
#endif

#if defined(VY_SANITIZED)
constexpr size_t receive_stack_bytes = 262144; // a sanitizer's report needs room
#elif defined(__GLIBC__) && !defined(__UCLIBC__) &&                                                \
    (defined(__aarch64__) || defined(__mips__) || defined(__powerpc64__))
constexpr size_t receive_stack_bytes = 131072; // the least that glibc takes there
#else
constexpr size_t receive_stack_bytes = 16384;
#endif

// What the kernel calls this machine's kind of system calls; 0 where that is not known here.
#if defined(__x86_64__)
constexpr uint32_t system_call_architecture = AUDIT_ARCH_X86_64;
#elif defined(__i386__)
constexpr uint32_t system_call_architecture = AUDIT_ARCH_I386;
#elif defined(__aarch64__)
constexpr uint32_t system_call_architecture = AUDIT_ARCH_AARCH64;
#elif defined(__mips__) && _MIPS_SIM == _ABIO32 && defined(__MIPSEL__)
constexpr uint32_t system_call_architecture = AUDIT_ARCH_MIPSEL;
#elif defined(__mips__) && _MIPS_SIM == _ABIO32
constexpr uint32_t system_call_architecture = AUDIT_ARCH_MIPS;
#elif defined(__arm__) && defined(__ARMEL__)
constexpr uint32_t system_call_architecture = AUDIT_ARCH_ARM;
#else
constexpr uint32_t system_call_architecture = 0;
#endif
