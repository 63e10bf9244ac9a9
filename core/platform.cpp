/*
 * platform.cpp - the platform primitives: one form for Linux (POSIX) and
 * one for Windows (the C runtime's pipes and threads, Win32 for the rest).
 * What both share comes first.
 */
#include "platform.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#endif

std::atomic<int> Plat_Fail_Pipe_At{0};
std::atomic<int> Plat_Fail_Thread_At{0};

/* What every pipe holds at least: one page, as Linux rounds a pipe up to. */
static const unsigned k_pipe_room = 4096;

/* ------------------------------------------------------------------ lock */

typedef decltype(Plat_Rlock::owner)::value_type Owner_Id;
static Owner_Id self_id();
static void lock_acquire(Plat_Rlock* lock);
static void lock_release(Plat_Rlock* lock);

void Plat_Rlock_Enter(Plat_Rlock* lock)
{
    Owner_Id self = self_id();
    if (lock->owner.load(std::memory_order_relaxed) == self) {
        lock->count++;
        return;
    }
    lock_acquire(lock);
    lock->owner.store(self, std::memory_order_relaxed);
    lock->count = 1;
}

int Plat_Rlock_Leave(Plat_Rlock* lock)
{
    if (lock->owner.load(std::memory_order_relaxed) != self_id() || lock->count == 0) return -1;
    if (--lock->count == 0) {
        lock->owner.store(Owner_Id(), std::memory_order_relaxed);
        lock_release(lock);
    }
    return 0;
}

unsigned Plat_Rlock_Count(Plat_Rlock* lock)
{
    if (lock->owner.load(std::memory_order_relaxed) != self_id()) return 0;
    return lock->count;
}

void Plat_Rlock_Reset(Plat_Rlock* lock)
{
    lock->owner.store(Owner_Id());
    lock->count = 0;
}

/* --------------------------------------------------------------- threads */

namespace {
struct Thread_Start {
    Plat_Thread_Fn fn;
    void* arg;
};
}

/* Takes the start record that Plat_Thread_Start made; runs the thread's function. */
static unsigned run_thread(void* p)
{
    Thread_Start start = *static_cast<Thread_Start*>(p);
    delete static_cast<Thread_Start*>(p);
    return start.fn(start.arg);
}

#if defined(_WIN32)
/* ======================================================== Windows forms */

static Owner_Id self_id() { return GetCurrentThreadId(); }
static void lock_acquire(Plat_Rlock* lock) { AcquireSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&lock->srw)); }
static void lock_release(Plat_Rlock* lock) { ReleaseSRWLockExclusive(reinterpret_cast<PSRWLOCK>(&lock->srw)); }
static_assert(sizeof(SRWLOCK) == sizeof(void*), "an SRWLOCK is one pointer");

/*
 * The C runtime's pipes block a writer when they are full and know no
 * non-blocking mode.  Each pipe therefore counts the bytes written and not
 * yet read; a write end marked non-blocking refuses (EAGAIN) a write that
 * would take the count past the room the pipe was made with, so that such
 * a write never waits.  The count is raised before the write and lowered
 * after the read: it never falls short of what the pipe holds.
 */
namespace {
struct Pipe_Room {
    std::atomic<int> unread{0};
    std::atomic<int> ends{2};        /* ends still open */
    std::atomic<bool> nonblocking{false};
};
const int k_max_fds = 8192;
std::atomic<Pipe_Room*> pipe_rooms[k_max_fds];
}

static Pipe_Room* room_of(int fd)
{
    return fd >= 0 && fd < k_max_fds ? pipe_rooms[fd].load(std::memory_order_acquire) : nullptr;
}

int Plat_Pipe(int fds[2], unsigned size)
{
    if (Plat_Injected_Failure(Plat_Fail_Pipe_At)) {
        errno = EMFILE;
        return -1;
    }
    if (_pipe(fds, size > k_pipe_room ? size : k_pipe_room, _O_BINARY | _O_NOINHERIT) != 0) return -1;
    Pipe_Room* room = new Pipe_Room;
    for (int k = 0; k < 2; k++)
        if (fds[k] < k_max_fds) pipe_rooms[fds[k]].store(room, std::memory_order_release);
        else room->ends--;   /* beyond the table: that end goes uncounted */
    if (room->ends == 0) delete room;
    return 0;
}

int Plat_Pipe_Nonblocking_Write(int fd)
{
    Pipe_Room* room = room_of(fd);
    if (!room) {
        errno = EBADF;
        return -1;
    }
    room->nonblocking = true;
    return 0;
}

int Plat_Read(int fd, void* buf, unsigned size)
{
    int r = _read(fd, buf, size);
    Pipe_Room* room = room_of(fd);
    if (r > 0 && room) room->unread.fetch_sub(r);
    return r;
}

int Plat_Write(int fd, const void* buf, unsigned size)
{
    Pipe_Room* room = room_of(fd);
    if (room) {
        int before = room->unread.fetch_add(static_cast<int>(size));
        if (room->nonblocking && before + size > k_pipe_room && size <= k_pipe_room) {
            room->unread.fetch_sub(static_cast<int>(size));
            errno = EAGAIN;
            return -1;
        }
    }
    int r = _write(fd, buf, size);
    if (room && r < static_cast<int>(size)) room->unread.fetch_sub(static_cast<int>(size) - (r > 0 ? r : 0));
    return r;
}

int Plat_Close(int fd)
{
    Pipe_Room* room = room_of(fd);
    if (room) {
        pipe_rooms[fd].store(nullptr);
        if (room->ends.fetch_sub(1) == 1) delete room;
    }
    return _close(fd);
}

static unsigned __stdcall thread_entry(void* p) { return run_thread(p); }

int Plat_Thread_Start(Plat_Thread* thread, Plat_Thread_Fn fn, void* arg)
{
    thread->handle = nullptr;
    if (Plat_Injected_Failure(Plat_Fail_Thread_At)) {
        errno = EAGAIN;
        return -1;
    }
    Thread_Start* start = new Thread_Start{fn, arg};
    uintptr_t h = _beginthreadex(nullptr, 0, &thread_entry, start, 0, nullptr);
    if (h == 0) {
        delete start;
        return -1;   /* errno set by the runtime */
    }
    thread->handle = reinterpret_cast<void*>(h);
    return 0;
}

unsigned Plat_Thread_Join(Plat_Thread* thread)
{
    if (!thread->handle) return 0;
    HANDLE h = static_cast<HANDLE>(thread->handle);
    DWORD code = 0;
    WaitForSingleObject(h, INFINITE);
    GetExitCodeThread(h, &code);
    CloseHandle(h);
    thread->handle = nullptr;
    return static_cast<unsigned>(code);
}

void Plat_Sleep(unsigned ms) { Sleep(ms); }

size_t Plat_Module_Path(char* buf, size_t size)
{
    HMODULE module = nullptr;
    if (size == 0 ||
        !GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            reinterpret_cast<LPCSTR>(&Plat_Module_Path), &module))
        return 0;
    DWORD cap = size > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<DWORD>(size);
    DWORD n = GetModuleFileNameA(module, buf, cap);
    if (n == 0) return 0;
    if (n >= cap) n = cap - 1;   /* cut short: the system may leave it unterminated */
    buf[n] = 0;
    return n;
}

#else
/* ========================================================== Linux forms */

static Owner_Id self_id() { return std::this_thread::get_id(); }

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

static void lock_acquire(Plat_Rlock* lock)
{
    unsigned int c = 0;
    if (lock->word.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
    /* Spin on loads while the holder is busy for a moment: the lock
       guards sections of a few instructions, millions of times a frame. */
    for (int k = 0; k < 128; k++) {
        cpu_relax();
        if (lock->word.load(std::memory_order_relaxed) == 0) {
            c = 0;
            if (lock->word.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed))
                return;
        }
    }
    /* Then sleep: mark the lock as having sleepers and wait for a wake-up. */
    c = lock->word.exchange(2, std::memory_order_acquire);
    while (c != 0) {
        futex_wait(&lock->word, 2);
        c = lock->word.exchange(2, std::memory_order_acquire);
    }
}

static void lock_release(Plat_Rlock* lock)
{
    if (lock->word.exchange(0, std::memory_order_release) == 2) futex_wake_one(&lock->word);
}

int Plat_Pipe(int fds[2], unsigned size)
{
    if (Plat_Injected_Failure(Plat_Fail_Pipe_At)) {
        errno = EMFILE;
        return -1;
    }
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
#ifdef F_SETPIPE_SZ
    /* a request; the kernel rounds up to a page */
    (void)fcntl(fds[1], F_SETPIPE_SZ, static_cast<int>(size > k_pipe_room ? size : k_pipe_room));
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

static void* thread_entry(void* p) { return reinterpret_cast<void*>(static_cast<uintptr_t>(run_thread(p))); }

int Plat_Thread_Start(Plat_Thread* thread, Plat_Thread_Fn fn, void* arg)
{
    thread->handle = nullptr;
    if (Plat_Injected_Failure(Plat_Fail_Thread_At)) {
        errno = EAGAIN;
        return -1;
    }
    pthread_t* t = new pthread_t;
    Thread_Start* start = new Thread_Start{fn, arg};
    int r = pthread_create(t, nullptr, thread_entry, start);
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
    if (size == 0 || !dladdr(reinterpret_cast<void*>(&Plat_Module_Path), &info) || !info.dli_fname) return 0;
    size_t n = std::strlen(info.dli_fname);
    if (n >= size) n = size - 1;
    std::memcpy(buf, info.dli_fname, n);
    buf[n] = 0;
    return n;
}
#endif
