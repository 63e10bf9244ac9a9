/*
 * platform.cpp - POSIX forms of the platform primitives.
 */
#include "platform.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <dlfcn.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

std::atomic<int> Plat_Fail_Pipe_At{0};
std::atomic<int> Plat_Fail_Thread_At{0};

/* Sleeps while *word holds val (or returns at once if it no longer does). */
static void futex_wait(std::atomic<unsigned int>* word, unsigned int val)
{
    syscall(SYS_futex, reinterpret_cast<unsigned int*>(word), FUTEX_WAIT_PRIVATE, val, nullptr, nullptr, 0);
}

static void futex_wake_one(std::atomic<unsigned int>* word)
{
    syscall(SYS_futex, reinterpret_cast<unsigned int*>(word), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

static inline void cpu_relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

void Plat_Rlock_Enter(Plat_Rlock* lock)
{
    std::thread::id self = std::this_thread::get_id();
    if (lock->owner.load(std::memory_order_relaxed) == self) {
        lock->count++;
        return;
    }
    unsigned int c = 0;
    if (!lock->word.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
        /* Spin on loads while the holder is busy for a moment: the lock
           guards sections of a few instructions, millions of times a frame. */
        for (int k = 0; k < 128; k++) {
            cpu_relax();
            if (lock->word.load(std::memory_order_relaxed) == 0) {
                c = 0;
                if (lock->word.compare_exchange_strong(c, 1, std::memory_order_acquire,
                                                       std::memory_order_relaxed))
                    goto taken;
            }
        }
        /* Then sleep: mark the lock as having sleepers and wait for a wake-up. */
        c = lock->word.exchange(2, std::memory_order_acquire);
        while (c != 0) {
            futex_wait(&lock->word, 2);
            c = lock->word.exchange(2, std::memory_order_acquire);
        }
    }
taken:
    lock->owner.store(self, std::memory_order_relaxed);
    lock->count = 1;
}

int Plat_Rlock_Leave(Plat_Rlock* lock)
{
    if (lock->owner.load(std::memory_order_relaxed) != std::this_thread::get_id() || lock->count == 0)
        return -1;
    if (--lock->count == 0) {
        lock->owner.store(std::thread::id(), std::memory_order_relaxed);
        if (lock->word.exchange(0, std::memory_order_release) == 2) futex_wake_one(&lock->word);
    }
    return 0;
}

unsigned Plat_Rlock_Count(Plat_Rlock* lock)
{
    if (lock->owner.load(std::memory_order_relaxed) != std::this_thread::get_id()) return 0;
    return lock->count;
}

int Plat_Pipe(int fds[2], unsigned size)
{
    if (Plat_Injected_Failure(Plat_Fail_Pipe_At)) {
        errno = EMFILE;
        return -1;
    }
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
#ifdef F_SETPIPE_SZ
    (void)fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(size)); /* a request; the kernel rounds up */
#else
    (void)size;
#endif
    return 0;
}

int Plat_Pipe_Nonblocking_Write(int fd)
{
    int fl = fcntl(fd, F_GETFL);
    if (fl < 0) return -1;
    return fcntl(fd, F_SETFL, fl | O_NONBLOCK) < 0 ? -1 : 0;
}

int Plat_Read(int fd, void* buf, unsigned size)
{
    ssize_t r;
    do r = read(fd, buf, size); while (r < 0 && errno == EINTR);
    return static_cast<int>(r);
}

int Plat_Write(int fd, const void* buf, unsigned size)
{
    ssize_t r;
    do r = write(fd, buf, size); while (r < 0 && errno == EINTR);
    return static_cast<int>(r);
}

int Plat_Close(int fd) { return close(fd); }

int Plat_Bytes_Waiting(int fd)
{
    struct pollfd p;
    p.fd = fd;
    p.events = POLLIN;
    p.revents = 0;
    int r;
    do r = poll(&p, 1, 0); while (r < 0 && errno == EINTR);
    return r > 0 && (p.revents & (POLLIN | POLLHUP | POLLERR)) ? 1 : 0;
}

namespace {
struct Thread_Start {
    Plat_Thread_Fn fn;
    void* arg;
};
}

static void* thread_trampoline(void* p)
{
    Thread_Start start = *static_cast<Thread_Start*>(p);
    delete static_cast<Thread_Start*>(p);
    unsigned code = start.fn(start.arg);
    return reinterpret_cast<void*>(static_cast<uintptr_t>(code));
}

int Plat_Thread_Start(Plat_Thread* thread, Plat_Thread_Fn fn, void* arg)
{
    thread->handle = nullptr;
    if (Plat_Injected_Failure(Plat_Fail_Thread_At)) {
        errno = EAGAIN;
        return -1;
    }
    pthread_t* t = new pthread_t;
    Thread_Start* start = new Thread_Start{fn, arg};
    int r = pthread_create(t, nullptr, thread_trampoline, start);
    if (r != 0) {
        delete start;
        delete t;
        errno = r;
        return -1;
    }
    thread->handle = t;
    return 0;
}

unsigned Plat_Thread_Join(Plat_Thread* thread)
{
    if (!thread->handle) return 0;
    pthread_t* t = static_cast<pthread_t*>(thread->handle);
    void* code = nullptr;
    pthread_join(*t, &code);
    delete t;
    thread->handle = nullptr;
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(code));
}

void Plat_Sleep(unsigned ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

size_t Plat_Module_Path(char* buf, size_t size)
{
    Dl_info info;
    if (size == 0 || !dladdr(reinterpret_cast<void*>(&Plat_Module_Path), &info) || !info.dli_fname)
        return 0;
    size_t n = std::strlen(info.dli_fname);
    if (n >= size) n = size - 1;
    std::memcpy(buf, info.dli_fname, n);
    buf[n] = 0;
    return n;
}
