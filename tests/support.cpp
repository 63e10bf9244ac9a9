#include "support.h"

#if !defined(_WIN32)
#include <dirent.h>
#endif

Trace_Capture::Trace_Capture(bool with_lock) : with_lock_(with_lock)
{
    Corekit_Set_Trace_Sink(
        [](unsigned int flags, const char* line, void* context) {
            Trace_Capture* self = static_cast<Trace_Capture*>(context);
            if (flags == 0x90004006u && !self->with_lock_) return;
            std::lock_guard<std::mutex> guard(self->lock_);
            self->lines_.push_back({flags, line});
        },
        this);
}

std::vector<std::string> Trace_Capture::texts() const
{
    std::vector<std::string> out;
    for (const Line& l : lines()) out.push_back(l.text);
    return out;
}

size_t Trace_Capture::count(const std::string& needle) const
{
    size_t n = 0;
    for (const std::string& t : texts()) n += t.find(needle) != std::string::npos;
    return n;
}

bool Trace_Capture::has(const std::string& text) const
{
    for (const std::string& t : texts())
        if (t == text) return true;
    return false;
}

Watched_Box::Watched_Box(int W, int H) : box(W, H)
{
    box.draw_context = this;
    box.draw_handler = [](Boxs*, void* c) {
        Watched_Box* self = static_cast<Watched_Box*>(c);
        std::lock_guard<std::mutex> g(self->m);
        self->draws++;
        self->cv.notify_all();
    };
}

bool Watched_Box::wait_draws(int n)
{
    std::unique_lock<std::mutex> g(m);
    return cv.wait_for(g, std::chrono::seconds(60), [&] { return draws >= n; });
}

int count_dir(const char* path)
{
#if defined(_WIN32)
    (void)path;
    return -1;   /* no /proc (Wine would show the Linux process's own) */
#else
    int n = 0;
    DIR* d = opendir(path);
    if (!d) return -1;
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
#endif
}

int count_tasks()
{
    std::thread([] {}).join();
    return count_dir("/proc/self/task");
}
