/*
 * platform.h - every operating-system primitive the library uses, in one
 * place: the recursive lock, anonymous pipes, threads, sleep, large
 * buffers and their pages, and the path of the library's own module file.
 *
 * Functions return 0 on success and -1 on failure with errno set, unless
 * stated otherwise.
 */
#ifndef VOXELUNE_CORE_PLATFORM_H
#define VOXELUNE_CORE_PLATFORM_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <thread>

#if defined(__linux__)
#include <sys/mman.h>
#endif

/*
 * A recursive lock that knows its recursion count.  The owner is kept in
 * an atomic so that a thread can tell, without taking the lock, whether
 * it is the holder; the count is written only by the owner.  The lock
 * itself is the system's:
 *  - Linux: one word (0 free, 1 held, 2 held with sleepers); waiters spin
 *    on plain loads for a moment, so that they do not disturb the holder's
 *    cache line, then sleep in the kernel.
 *  - Windows: a slim reader/writer lock taken exclusively (it spins
 *    briefly, then sleeps); all zero is its initial state.
 * Lock, owner and count share one cache line: taking the lock touches one
 * line only.
 */
struct alignas(64) Plat_Rlock {
#if defined(_WIN32)
    void* srw = nullptr;                  /* an SRWLOCK */
    std::atomic<unsigned long> owner{0};  /* the holder's thread id, 0 when free */
#else
    std::atomic<unsigned int> word{0};
    std::atomic<std::thread::id> owner{};
#endif
    unsigned count = 0;
};

void Plat_Rlock_Enter(Plat_Rlock* lock);
/* Leaves the lock if the calling thread holds it; returns 0, else -1. */
int Plat_Rlock_Leave(Plat_Rlock* lock);
/* The recursion count as the calling thread sees it: 0 unless it holds the lock. */
unsigned Plat_Rlock_Count(Plat_Rlock* lock);
/* Forgets the holder and the count (the lock must be free or left for good). */
void Plat_Rlock_Reset(Plat_Rlock* lock);

/*
 * Anonymous pipe of bytes: fds[0] reads, fds[1] writes.  size is a request
 * only; every pipe holds at least one page (4096 bytes) before a write
 * would block.  A write of at most that many bytes goes in whole or not
 * at all.
 */
int Plat_Pipe(int fds[2], unsigned size);
/* Marks the write end so that a write to a full pipe fails instead of blocking. */
int Plat_Pipe_Nonblocking_Write(int fd);
/* Blocking read; returns the count read, 0 at end of file, -1 on error. */
int Plat_Read(int fd, void* buf, unsigned size);
/* Returns the count written, or -1. */
int Plat_Write(int fd, const void* buf, unsigned size);
int Plat_Close(int fd);

/* A thread whose function returns an exit code. */
struct Plat_Thread {
    void* handle = nullptr;
};
typedef unsigned (*Plat_Thread_Fn)(void* arg);
int Plat_Thread_Start(Plat_Thread* thread, Plat_Thread_Fn fn, void* arg);
/* Waits for the thread; returns its exit code.  A thread never started returns 0. */
unsigned Plat_Thread_Join(Plat_Thread* thread);

void Plat_Sleep(unsigned ms);

/* Full path of the module that holds this code; returns its length, 0 on failure. */
size_t Plat_Module_Path(char* buf, size_t size);

/*
 * A large buffer (megabytes) that is written once, right away.  Faulting
 * it in 4 KiB pages can cost more than the work that fills it (notably
 * under virtualisation), so on Linux it is aligned to and advised for
 * 2 MiB pages.  Not cleared; released with free(); null when memory runs
 * out.
 */
inline void* Plat_Alloc_Large(size_t bytes)
{
#if defined(__linux__)
    const size_t page = size_t(2) << 20;
    size_t rounded = (bytes + page - 1) & ~(page - 1);
    void* p = std::aligned_alloc(page, rounded);
    if (p) (void)madvise(p, rounded, MADV_HUGEPAGE);   /* a hint: failure is harmless */
    return p;
#else
    return std::calloc(bytes, 1);
#endif
}

/*
 * Asks the system to back the whole pages of [p, p + bytes) with memory
 * now, in one call, rather than on first touch, page by page: a buffer
 * about to be written all over (a table rebuilt for a new box size) is
 * then ready in a fraction of the time the faults take, notably under
 * virtualisation.  Contents are unchanged; a hint whose failure is
 * harmless (older kernels do not know it); nothing on other systems.
 */
inline void Plat_Prefault(void* p, size_t bytes)
{
#if defined(__linux__) && defined(MADV_POPULATE_WRITE)
    const uintptr_t page = 4096;
    uintptr_t from = (reinterpret_cast<uintptr_t>(p) + page - 1) & ~(page - 1);
    uintptr_t to = (reinterpret_cast<uintptr_t>(p) + bytes) & ~(page - 1);
    if (p && to > from) (void)madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
#else
    (void)p;
    (void)bytes;
#endif
}

/*
 * Fault injection for tests: the n-th next call (counting from 1) of
 * Plat_Pipe or Plat_Thread_Start fails with EMFILE / EAGAIN.  0 disables.
 */
extern std::atomic<int> Plat_Fail_Pipe_At;
extern std::atomic<int> Plat_Fail_Thread_At;


/*
 * The countdown behind every fault-injection setting (these and the
 * library's own): counts one call down from at; true for the call that
 * brings it from 1 to 0, the one that is to fail.  Safe from any thread.
 */
inline bool Plat_Injected_Failure(std::atomic<int>& at)
{
    int n = at.load();
    while (n > 0) {
        if (at.compare_exchange_weak(n, n - 1)) return n == 1;
    }
    return false;
}

#endif
