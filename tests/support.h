/* support.h - helpers shared by the tests: a trace sink that collects lines, a box that counts redraws. */
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

/* Collects the trace lines while it lives.  Without with_lock the lock's lines are dropped (a frame takes
 * the lock several times a pixel). */
class Trace_Capture {
public:
    struct Line {
        unsigned int flags;
        std::string text;
    };
    explicit Trace_Capture(bool with_lock = true);
    ~Trace_Capture() { Corekit_Set_Trace_Sink(nullptr, nullptr); }
    std::vector<Line> lines() const
    {
        std::lock_guard<std::mutex> guard(lock_);
        return lines_;
    }
    std::vector<std::string> texts() const;
    size_t count(const std::string& needle) const;   /* lines that contain needle */
    bool has(const std::string& text) const;          /* an exact line */
    void clear()
    {
        std::lock_guard<std::mutex> guard(lock_);
        lines_.clear();
    }

private:
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
    bool wait_draws(int n);   /* up to 60 s for n redraws in all */
    int count()
    {
        std::lock_guard<std::mutex> g(m);
        return draws;
    }
};

/* Entries of a directory such as /proc/self/fd, or -1 (no /proc: then counts before and after still agree). */
int count_dir(const char* path);

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
