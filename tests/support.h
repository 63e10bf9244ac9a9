/*
 * support.h - helpers shared by the tests: a trace sink that
 * collects lines, and a few small volumes.
 */
#ifndef VOXELUNE_TESTS_SUPPORT_H
#define VOXELUNE_TESTS_SUPPORT_H

#include <corekit/corekit.h>
#include <panelkit/panelkit.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

/*
 * Collects the trace lines while it lives; uninstalls itself on
 * destruction.  Without with_lock the lock's lines are dropped (a frame
 * takes the lock several times a pixel).
 */
class Trace_Capture {
public:
    struct Line {
        unsigned int flags;
        std::string text;
    };
    explicit Trace_Capture(bool with_lock = true);
    ~Trace_Capture();
    std::vector<Line> lines() const;
    std::vector<std::string> texts() const;
    /* Lines whose text contains needle. */
    size_t count(const std::string& needle) const;
    bool has(const std::string& text) const;   /* an exact line */
    void clear();

private:
    static void sink(unsigned int flags, const char* line, void* context);
    bool with_lock_;
    mutable std::mutex lock_;
    std::vector<Line> lines_;
};

/* A box that counts its redraws (the library calls Draw on its own thread). */
struct Watched_Box {
    Boxs box;
    std::mutex m;
    std::condition_variable cv;
    int draws = 0;
    Watched_Box(int W, int H);
    /* Waits up to 60 s for n redraws in all. */
    bool wait_draws(int n);
    int count();
};

/*
 * Entries of a directory such as /proc/self/fd or /proc/self/task, or -1.
 * Only Linux has /proc: elsewhere every count is -1 (comparisons of a
 * count before and after hold), and a test that needs the numbers
 * themselves skips with SKIP_WITHOUT_PROC().
 */
int count_dir(const char* path);
#define SKIP_WITHOUT_PROC()                          \
    if (count_dir("/proc/self/task") < 0)            \
    GTEST_SKIP() << "counts threads and descriptors in /proc, which only Linux has"

/* Threads of the process, once a sanitizer's helper thread (started with the first thread) runs. */
int count_tasks();

/* Waits up to 20 s, in 5 ms steps, for a condition that another thread brings about. */
template <class F>
bool eventually(F f)
{
    for (int k = 0; k < 4000 && !f(); k++) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return f();
}

#endif
