/*
 * ray_dispatch.cpp - the CPU render pipeline.
 *
 * A control thread turns render requests into a coarse-to-fine list of
 * pixel blocks per slot, 1 to 64 ray workers take blocks from those lists
 * and cast one ray each, and a draw thread redraws a box whenever a
 * refinement level of its frame is complete.  The threads talk through
 * anonymous pipes that carry only tiny records:
 *
 *   control pipe  host -> control   4 bytes: (slot << 8) | command
 *   worker pipe   control -> worker 1 byte:  0x01 start, 0xFF stop, 0x00 leave
 *   draw pipe     workers -> draw   4 bytes: (slot << 8) | level
 *
 * All frame data (tasks, counters, pixels) lives in shared tables under the
 * library lock.  No thread ever blocks on a pipe while it holds the lock:
 * every write end is non-blocking, and a write that finds its pipe full is
 * either dropped where that is harmless or retried after the lock is left.
 */
#include "cpu/ray_dispatch.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "cpu/ray_packet.h"
#include "cpu/ray_pixel.h"
#include "cpu/ray_dispatch_state.h"
#include "voxelune/voxelune_layout.h"

#define SRC_NAME "ray_dispatch"

/* ------------------------------------------------------------------ state */

unsigned short Ray_Thread_Nb = 0;
int Ray_Pipe_Ctrl[2] = {-1, -1};
int Ray_Pipe_Draw[2] = {-1, -1};
int (*Ray_Pipe_Compute)[2] = nullptr;
Plat_Thread* Ray_Thread_Compute = nullptr;
Plat_Thread Ray_Handle_Ctrl;
Plat_Thread Ray_Handle_Draw;
int Ray_Pipe_Made = 0;
int Ray_Thread_Started = 0;

unsigned long long Ray_Thread_Busy = 0;
int Ray_Thread_Next[RAY_SLOTS];
int Ray_Thread_Left[RAY_SLOTS];
std::atomic<int> Ray_Thread_Flight[RAY_SLOTS];

Ray_Dim Ray_Thread_Dim[RAY_SLOTS];
int Ray_Thread_Level_Nb[RAY_SLOTS];
int* Ray_Thread_I[RAY_SLOTS];
int* Ray_Thread_J[RAY_SLOTS];
int* Ray_Thread_W[RAY_SLOTS];
int* Ray_Thread_H[RAY_SLOTS];
int* Ray_Thread_Seminal_Val[RAY_SLOTS];
unsigned char* Ray_Thread_Stamp[RAY_SLOTS];

std::atomic<Ray_Pixel_Fn> Ray_Dispatch_Pixel{&Ray_Pixel_View};

/*
 * Which threads are running, for the writers that wait for room in a pipe:
 * waiting only makes sense while the reader is there to empty it.  Each
 * flag is set before its thread starts and cleared by the thread as it ends.
 */
static std::atomic<int> ctrl_alive{0};
static std::atomic<int> draw_alive{0};
static std::atomic<int> worker_alive[RAY_MAX_WORKERS];
/* Set by Ray_CPU_Exit: threads stop waiting for room in a pipe. */
static std::atomic<int> pipeline_closing{0};
/*
 * Bytes written to each worker pipe and not yet read: the worker's
 * non-blocking test between two tasks reads this count instead of asking
 * the kernel.  Writers add after a write, the worker subtracts after a
 * read, so a positive count always means bytes wait in the pipe.
 */
static std::atomic<int> worker_pending[RAY_MAX_WORKERS];
/*
 * Start records written to the control pipe, and start records the
 * control thread has handled: a stop first lets every record posted
 * before it be handled, so that it stops what they started.
 */
static std::atomic<unsigned> ctrl_posted{0};
static std::atomic<unsigned> ctrl_handled{0};
/*
 * Per slot, redraws asked for (a level completed under the lock) and not
 * yet made by the draw thread: a stop waits for them, so that no redraw
 * of the slot follows its return.
 */
static std::atomic<int> draw_owed[RAY_SLOTS];

/* ------------------------------------------------------------ small tools */

static const wchar_t k_err_pipe[] = L"\xF1" L"\x04" L"ERROR:" L"\x02" L"\t Unable to create raytracing pipe!";
static const wchar_t k_err_ctrl[] = L"\xF1" L"\x04" L"ERROR:" L"\x02" L" Unable to start Ray-tracing Ctrl thread";
static const wchar_t k_err_draw[] = L"\xF1" L"\x04" L"ERROR:" L"\x02" L" Unable to start Ray-tracing Draw thread";
static const wchar_t k_err_ray[] = L"\xF1" L"\x04" L"ERROR:" L"\x02" L" Unable to start Ray-tracing thread";
static const wchar_t k_err_write[] = L"\xF1" L"\x04" L"ERROR:" L"\x02" L"\t fail in \"_write\"";
static const wchar_t k_err_close[] = L"\xF1" L"\x04" L"ERROR:" L"\x02" L"\t fail in \"_close\"";
static const wchar_t k_errno_pipe[] = L"\xF1" L"\x02" L"\t\t %ls"; /* pipes, writes, closes */
static const wchar_t k_errno_thread[] = L"\xF1" L"\t %ls";         /* thread starts */

/*
 * The three lines of a failed system call: where, what, and the errno text
 * (copied into Quil_Err_Str, the host's buffer for it).
 */
static void report_failure(unsigned int where_flags, int line, const wchar_t* what, const wchar_t* errno_fmt,
                           int err)
{
    Ray_Trace(where_flags, "file:%hs line:%d", SRC_NAME, line);
    Ray_Trace(RAY_TR_ERROR, what);
    const wchar_t* text = Error_Perror(err);
    size_t cap = sizeof Quil_Err_Str / sizeof Quil_Err_Str[0];
    wcsncpy(Quil_Err_Str, text ? text : L"", cap - 1);
    Quil_Err_Str[cap - 1] = 0;
    Ray_Trace(RAY_TR_ERROR, errno_fmt, Quil_Err_Str);
}

/*
 * Writes a whole record to a non-blocking write end.  While the pipe is
 * full and *reader says its reader still runs, waits 1 ms and tries again;
 * the caller holds no lock, so the reader is free to empty the pipe.
 * Returns what the last write returned.
 */
static int write_patient(int fd, const void* rec, unsigned n, const std::atomic<int>* reader, bool stop_on_close)
{
    for (;;) {
        int r = Plat_Write(fd, rec, n);
        if (r == static_cast<int>(n) || r >= 0 || errno != EAGAIN) return r;
        if (!reader->load() || (stop_on_close && pipeline_closing.load())) return r;
        Plat_Sleep(1);
    }
}

/*
 * Writes one byte to worker i's pipe, waiting for room (while the worker
 * runs) when patient; returns what the write returned, errno kept.
 */
static int worker_write(int i, unsigned char byte, bool patient, bool stop_on_close)
{
    int fd = Ray_Pipe_Compute[i][1];
    int r = patient ? write_patient(fd, &byte, 1, &worker_alive[i], stop_on_close) : Plat_Write(fd, &byte, 1);
    if (r > 0) worker_pending[i].fetch_add(r, std::memory_order_release);
    return r;
}

/* Reads worker i's pipe (blocking); the count of bytes read is taken off the pending count. */
static int worker_read(int i, unsigned char* buf)
{
    int n = Plat_Read(Ray_Pipe_Compute[i][0], buf, RAY_READ_SIZE);
    if (n > 0) worker_pending[i].fetch_sub(n, std::memory_order_relaxed);
    return n;
}

/* Makes a pipe whose write end never blocks; -1 on failure, errno kept. */
static int make_pipe(int fds[2])
{
    if (Plat_Pipe(fds, RAY_PIPE_SIZE) != 0) {
        fds[0] = fds[1] = -1;
        return -1;
    }
    (void)Plat_Pipe_Nonblocking_Write(fds[1]);
    return 0;
}

/* ------------------------------------------------------------ pure pieces */

int Ray_Layout_Levels(int n) { return Voxelune_Level_Count(n, 1); }

void Ray_Layout_Thresholds(int w, int h, int levels, int* thr)
{
    long long n = static_cast<long long>(w) * h;
    thr[0] = 0;
    for (int k = 1; k < levels; k++) {
        long long s = 1LL << k;
        thr[k] = static_cast<int>(n - ((s - 1 + h) / s) * ((s - 1 + w) / s));
    }
}

void Ray_Layout_Fill(int w, int h, int levels, int* ti, int* tj, int* tw, int* th)
{
    long long t = static_cast<long long>(w) * h - 1;
    for (int k = levels - 1; k >= 0; k--) {
        long long s = 1LL << k;
        long long s2 = s << 1;
        for (long long y = 0; y < h; y += s) {
            for (long long x = 0; x < w; x += s) {
                /* the origin of a block of a coarser level was cast there */
                if (k < levels - 1 && ((x | y) & (s2 - 1)) == 0) continue;
                ti[t] = static_cast<int>(x);
                tj[t] = static_cast<int>(y);
                tw[t] = static_cast<int>(s < w - x ? s : w - x);
                th[t] = static_cast<int>(s < h - y ? s : h - y);
                t--;
            }
        }
    }
}

Ray_Byte_Verdict Ray_Byte_Waiting(const unsigned char* buf, int n)
{
    for (int k = n - 1; k >= 0; k--) {
        if (buf[k] == RAY_BYTE_LEAVE) return RAY_VERDICT_LEAVE;
        if (buf[k] >= 0x80) return RAY_VERDICT_STOP;
    }
    return RAY_VERDICT_WORK;
}

Ray_Byte_Verdict Ray_Byte_Working(const unsigned char* buf, int n)
{
    for (int k = 0; k < n; k++) {
        if (buf[k] == RAY_BYTE_LEAVE) return RAY_VERDICT_LEAVE;
        if (buf[k] >= 0x80) return RAY_VERDICT_STOP;
    }
    return RAY_VERDICT_WORK;
}

int Ray_Choose_Slot(const int* next, int* value)
{
    int best = 0;
    int best_val = RAY_SLOT_FLOOR;
    for (int s = 0; s < RAY_SLOTS; s++) {
        if (next[s] > best_val) {
            best_val = next[s];
            best = s;
        }
    }
    *value = best_val;
    return best;
}

void Ray_Record_Encode(unsigned char* rec, int slot, int code)
{
    unsigned int v = (static_cast<unsigned int>(slot) << 8) | (static_cast<unsigned int>(code) & 0xFFu);
    rec[0] = static_cast<unsigned char>(v);
    rec[1] = static_cast<unsigned char>(v >> 8);
    rec[2] = static_cast<unsigned char>(v >> 16);
    rec[3] = static_cast<unsigned char>(v >> 24);
}

void Ray_Record_Decode(const unsigned char* rec, int* slot, int* code)
{
    unsigned int v = rec[0] | (static_cast<unsigned int>(rec[1]) << 8) | (static_cast<unsigned int>(rec[2]) << 16) |
                     (static_cast<unsigned int>(rec[3]) << 24);
    *code = static_cast<int>(v & 0xFFu);
    *slot = static_cast<int>(v >> 8);
}

/* ---------------------------------------------------------- control thread */

/* Releases a slot's layout and forgets its size; call under the lock or alone. */
static void layout_release(int s)
{
    Ray_Thread_Dim[s].w = 0;
    Ray_Thread_Dim[s].h = 0;
    Ray_Thread_Level_Nb[s] = 0;
    free(Ray_Thread_I[s]);
    free(Ray_Thread_J[s]);
    free(Ray_Thread_W[s]);
    free(Ray_Thread_H[s]);
    free(Ray_Thread_Seminal_Val[s]);
    free(Ray_Thread_Stamp[s]);
    Ray_Thread_I[s] = Ray_Thread_J[s] = Ray_Thread_W[s] = Ray_Thread_H[s] = nullptr;
    Ray_Thread_Seminal_Val[s] = nullptr;
    Ray_Thread_Stamp[s] = nullptr;
}

/* Resizes one task table to n entries; false (table unchanged) on failure, line being the caller's. */
static bool table_resize(int** table, int n, const char* name, int line)
{
    int* p = static_cast<int*>(Ray_Realloc(*table, static_cast<size_t>(n) * sizeof(int), line, SRC_NAME, name, n, 4));
    if (!p) return false;
    Plat_Prefault(p, static_cast<size_t>(n) * sizeof(int));   /* filled right away, entry by entry */
    *table = p;
    return true;
}

/*
 * Builds slot s's layout for a w x h box (n pixels).  False on an
 * allocation failure, whose line has been written.  Called under the lock.
 */
static bool layout_build(int s, int w, int h, int n)
{
    Ray_Thread_Dim[s].w = w;
    Ray_Thread_Dim[s].h = h;
    int levels = Ray_Layout_Levels(n);
    Ray_Thread_Level_Nb[s] = levels;

    free(Ray_Thread_Seminal_Val[s]);
    Ray_Thread_Seminal_Val[s] = static_cast<int*>(Ray_Malloc(static_cast<size_t>(levels) * sizeof(int), __LINE__,
                                                             SRC_NAME, "Ray_Thread_Seminal_Val[vol_id]", levels, 4));
    if (!Ray_Thread_Seminal_Val[s]) {
        Ray_Thread_Level_Nb[s] = 0;
        return false;
    }
    Ray_Layout_Thresholds(w, h, levels, Ray_Thread_Seminal_Val[s]);

    if (n < 1) {
        free(Ray_Thread_I[s]);
        free(Ray_Thread_J[s]);
        free(Ray_Thread_W[s]);
        free(Ray_Thread_H[s]);
        Ray_Thread_I[s] = Ray_Thread_J[s] = Ray_Thread_W[s] = Ray_Thread_H[s] = nullptr;
    } else {
        if (!table_resize(&Ray_Thread_I[s], n, "Ray_Thread_I[vol_id]", __LINE__) ||
            !table_resize(&Ray_Thread_J[s], n, "Ray_Thread_J[vol_id]", __LINE__) ||
            !table_resize(&Ray_Thread_W[s], n, "Ray_Thread_W[vol_id]", __LINE__) ||
            !table_resize(&Ray_Thread_H[s], n, "Ray_Thread_H[vol_id]", __LINE__)) {
            /* the tables no longer match any size: forget it */
            Ray_Thread_Dim[s].w = Ray_Thread_Dim[s].h = 0;
            Ray_Thread_Level_Nb[s] = 0;
            return false;
        }
        Ray_Layout_Fill(w, h, levels, Ray_Thread_I[s], Ray_Thread_J[s], Ray_Thread_W[s], Ray_Thread_H[s]);
        /* the level stamps are a refinement: without them blocks are filled whole */
        void* stamp = realloc(Ray_Thread_Stamp[s], static_cast<size_t>(n));
        if (stamp) {
            Plat_Prefault(stamp, static_cast<size_t>(n));   /* cleared at every start */
            Ray_Thread_Stamp[s] = static_cast<unsigned char*>(stamp);
        } else {
            free(Ray_Thread_Stamp[s]);
            Ray_Thread_Stamp[s] = nullptr;
        }
    }
    if (n < 1) {
        free(Ray_Thread_Stamp[s]);
        Ray_Thread_Stamp[s] = nullptr;
    }
    Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ctrl(): Dim changed %dx%d", static_cast<int>(Ray_Volume.box_w[s]),
              static_cast<int>(Ray_Volume.box_h[s]));
    return true;
}

/*
 * Handles one start request for slot s, under the lock.  Sets owed[i] for
 * each worker whose pipe was full; those start bytes are written after the
 * lock is left.  False when the thread must end (allocation failure).
 */
static bool ctrl_start(int s, bool* owed)
{
    Boxs* box = __atomic_load_n(&Ray_Volume.box[s], __ATOMIC_RELAXED);
    if (!box) {
        Ray_Trace(RAY_TR_ERROR, "-> Ray_Thread_Ctrl(): no box for slot %d, request ignored", s);
        return true;
    }
    int w = box->width;
    int h = box->height;
    /* a negative side makes an empty box, never a positive product */
    long long n64 = (w < 0 || h < 0) ? 0 : static_cast<long long>(w) * h;
    if (n64 > 0x7FFFFFFF) {
        Ray_Trace(RAY_TR_ERROR, "-> Ray_Thread_Ctrl(): box of slot %d too large (%dx%d), request ignored", s, w, h);
        return true;
    }
    int n = static_cast<int>(n64);

    if (w != Ray_Thread_Dim[s].w || h != Ray_Thread_Dim[s].h) {
        if (!layout_build(s, w, h, n)) {
            Ray_Thread_Next[s] = -1;
            Ray_Thread_Left[s] = -1;
            return false;
        }
    }
    Ray_Thread_Run.store(1, std::memory_order_release);
    Ray_Thread_Next[s] = n - 1;
    Ray_Thread_Left[s] = n - 1;
    if (Ray_Thread_Stamp[s] && n > 0) memset(Ray_Thread_Stamp[s], 0xFF, static_cast<size_t>(n));
    Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ctrl(): Start ray id:%d, res:%dx%d", s,
              static_cast<int>(Ray_Volume.box_w[s]), static_cast<int>(Ray_Volume.box_h[s]));

    for (int i = 0; i < Ray_Thread_Started; i++) {
        int r = worker_write(i, RAY_BYTE_START, false, false);
        if (r == 1) continue;
        if (r < 0 && errno == EAGAIN)
            owed[i] = true;   /* the pipe is full: written once the lock is left */
        else
            Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ctrl(): write to pipe failed! (ret=%d)", r);
    }
    return true;
}

/*
 * The start bytes that found their pipe full, written now that the lock is
 * free: the worker empties its pipe between two tasks.  A late start byte
 * is harmless, a worker that finds no task simply waits again.
 */
static void ctrl_pay_owed(bool* owed)
{
    for (int i = 0; i < Ray_Thread_Started; i++) {
        if (!owed[i]) continue;
        owed[i] = false;
        int r = worker_write(i, RAY_BYTE_START, true, true);
        if (r != 1) Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ctrl(): write to pipe failed! (ret=%d)", r);
    }
}

/* Releases every slot's layout; nobody may take a task from them afterwards. */
static void layout_release_all()
{
    for (int s = 0; s < RAY_SLOTS; s++) {
        layout_release(s);
        Ray_Thread_Next[s] = -1;
    }
}

/* The control thread ends: its own flag, then the thread's exit code. */
static unsigned ctrl_end()
{
    ctrl_alive.store(0);
    return 1;
}

unsigned Ray_Thread_Ctrl(void*)
{
    unsigned char buf[RAY_READ_SIZE] = {0};
    bool owed[RAY_MAX_WORKERS] = {false};
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_Thread_Ctrl()");
    for (;;) {
        int n = Plat_Read(Ray_Pipe_Ctrl[0], buf, sizeof buf);
        int err = errno;
        Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ctrl(): Received \"%d\"", static_cast<int>(static_cast<signed char>(buf[0])));
        if (n < 1) {
            /* No writer is left (end of file) or the pipe is gone: nothing
             * can ever arrive, so leave instead of reading in a loop. */
            if (n == 0 || err == EBADF) break;
            Plat_Sleep(10);
            continue;
        }
        for (int off = 0; off < n; off += 4) {
            if (buf[off] == RAY_CTRL_LEAVE) goto leave;
            if (off + 4 > n) break;   /* a torn record: the pipe delivers 4 bytes whole */
            int slot, code;
            Ray_Record_Decode(buf + off, &slot, &code);
            if (slot < 0 || slot >= RAY_SLOTS) {
                Ray_Trace(RAY_TR_ERROR, "-> Ray_Thread_Ctrl(): bad slot %d, request ignored", slot);
                ctrl_handled.fetch_add(1, std::memory_order_release);
                continue;
            }
            Critical_Ray_In("Ray_Thread_Ctrl");
            bool ok = ctrl_start(slot, owed);
            Critical_Ray_Out("Ray_Thread_Ctrl");
            if (!ok) return ctrl_end();   /* allocation failure: no exit line */
            ctrl_pay_owed(owed);
            ctrl_handled.fetch_add(1, std::memory_order_release);
        }
    }
leave:
    /* Workers may still be casting: release the layouts under the lock. */
    Critical_Ray_In("Ray_Thread_Ctrl");
    layout_release_all();
    Critical_Ray_Out("Ray_Thread_Ctrl");
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_Thread_Ctrl(exit)");
    return ctrl_end();
}

/* ------------------------------------------------------------- ray worker */

/*
 * Writes colour into the w x h block at (x, y) of slot s's image, clipped
 * to the box the slot is bound to now: a request with a new box size may
 * have rebound the slot while this block's task was in flight.
 */
static void block_fill(int s, int x, int y, int w, int h, unsigned int colour, int level)
{
    Boxs* box = Ray_Volume.box[s];
    int bw = static_cast<int>(Ray_Volume.box_w[s]);
    int bh = static_cast<int>(Ray_Volume.box_h[s]);
    if (!box || !box->Graph_Normal || x < 0 || y < 0 || x >= bw || y >= bh) return;
    int x_end = w < bw - x ? x + w : bw;
    int y_end = h < bh - y ? y + h : bh;
    /*
     * Each pixel remembers the level that last wrote it in this frame.  A
     * block of a coarse level whose worker was held up must not cover the
     * pixels that finer tasks, finished meanwhile, have already written.
     */
    unsigned char* stamp = Ray_Thread_Stamp[s];
    if (Ray_Thread_Dim[s].w != bw || Ray_Thread_Dim[s].h != bh) stamp = nullptr;
    for (int r = y; r < y_end; r++) {
        size_t at = static_cast<size_t>(r) * static_cast<size_t>(bw);
        unsigned int* row = box->Graph_Normal + at;
        if (!stamp) {
            for (int c = x; c < x_end; c++) row[c] = colour;
            continue;
        }
        unsigned char* lv = stamp + at;
        for (int c = x; c < x_end; c++)
            if (lv[c] >= level) {
                row[c] = colour;
                lv[c] = static_cast<unsigned char>(level);
            }
    }
}

/* The refinement level of task t of slot s: the finest level whose threshold t reaches. */
static int task_level(int s, int t)
{
    int k = Ray_Thread_Level_Nb[s] - 1;
    while (k > 0 && t < Ray_Thread_Seminal_Val[s][k]) k--;
    return k < 0 ? 0 : k;
}

/* Clears worker i's busy bit under the lock (a stop byte). */
static void worker_idle(int i, const char* tag)
{
    Critical_Ray_In(tag);
    Ray_Thread_Busy &= ~(1ull << i);
    Critical_Ray_Out(tag);
}

/*
 * The working phase: takes and casts tasks until no slot has one left
 * (RAY_VERDICT_WORK), a stop byte arrives (RAY_VERDICT_STOP) or a leave
 * byte (RAY_VERDICT_LEAVE).
 */
static Ray_Byte_Verdict worker_run(int i, const char* tag, unsigned char* buf)
{
    unsigned long long bit = 1ull << i;
    Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ray(%d): Start", i);
    for (;;) {
        /* Poll the pipe without blocking: are bytes waiting? */
        if (worker_pending[i].load(std::memory_order_acquire) > 0) {
            int n = worker_read(i, buf);
            if (n == 0) return RAY_VERDICT_LEAVE;   /* every writer is gone */
            Ray_Byte_Verdict v = Ray_Byte_Working(buf, n);
            if (v == RAY_VERDICT_LEAVE) return v;
            if (v == RAY_VERDICT_STOP) {
                worker_idle(i, tag);
                return v;
            }
        }

        /*
         * Choose the slot with most tasks left and take its next task; with
         * the library's own pixel and no trace sink listening, its next
         * tasks of the slot up to a batch, walked together in packets.
         */
        Ray_Pixel_Fn pixel = Ray_Dispatch_Pixel.load(std::memory_order_relaxed);
        int batch_max = (pixel == &Ray_Pixel_View && Corekit_Trace_Listening() == 0) ? RAY_BATCH : 1;
        Critical_Ray_In(tag);
        int next;
        int s = Ray_Choose_Slot(Ray_Thread_Next, &next);
        Ray_Thread_Busy |= bit;
        if (next < 0) {
            Ray_Thread_Busy &= ~bit;
            Critical_Ray_Out(tag);
            Ray_Trace(RAY_TR_RENDER, "-> Ray_Thread_Ray(%d): Finish", i);
            return RAY_VERDICT_WORK;
        }
        int nb = next + 1 < batch_max ? next + 1 : batch_max;
        int x[RAY_BATCH], y[RAY_BATCH], w[RAY_BATCH], h[RAY_BATCH];
        int level[RAY_BATCH];
        int lv = task_level(s, next);
        for (int k = 0; k < nb; k++) {
            int t = next - k;
            x[k] = Ray_Thread_I[s][t];
            y[k] = Ray_Thread_J[s][t];
            w[k] = Ray_Thread_W[s][t];
            h[k] = Ray_Thread_H[s][t];
            /* task_level(s, t), from the level of t + 1: the thresholds rise with the level */
            while (lv > 0 && t < Ray_Thread_Seminal_Val[s][lv]) lv--;
            level[k] = lv;
        }
        Ray_Thread_Next[s] = next - nb;
        /* the binding as one unit: Ray_Start rewrites it under this lock */
        Ray_View view;
        Ray_View_Of(s, static_cast<int>(Ray_Volume.box_w[s]), static_cast<int>(Ray_Volume.box_h[s]), &view);
        Ray_Thread_Flight[s].fetch_add(nb, std::memory_order_relaxed);
        Critical_Ray_Out(tag);

        /* Cast, without the lock. */
        unsigned int colour[RAY_BATCH];
        if (nb == 1)
            colour[0] = pixel(s, view, x[0], y[0]);
        else
            Ray_Pixels_View(s, view, nb, x, y, colour);

        /* Count the tasks, write their blocks, note the levels they complete. */
        int levels[32];
        int nb_levels = 0;
        Critical_Ray_In(tag);
        /* Whether some level is completed by one of the counts top, top - 1, ..., top - nb + 1. */
        int top = Ray_Thread_Left[s];
        bool completes = false;
        for (int v = Ray_Thread_Level_Nb[s]; v >= 1; v--) {
            int at = Ray_Thread_Seminal_Val[s][v - 1];
            completes = completes || (at <= top && at > top - nb);
        }
        for (int k = 0; k < nb; k++) {
            int old = Ray_Thread_Left[s]--;
            block_fill(s, x[k], y[k], w[k], h[k], colour[k], level[k]);
            for (int v = Ray_Thread_Level_Nb[s]; completes && v >= 1 && nb_levels < 32; v--)
                if (old == Ray_Thread_Seminal_Val[s][v - 1]) levels[nb_levels++] = v;
        }
        draw_owed[s].fetch_add(nb_levels, std::memory_order_relaxed);
        Ray_Thread_Flight[s].fetch_sub(nb, std::memory_order_release);
        Critical_Ray_Out(tag);

        /* One draw record per completed level, coarsest first. */
        for (int k = 0; k < nb_levels; k++) {
            unsigned char rec[4];
            Ray_Record_Encode(rec, s, levels[k]);
            if (write_patient(Ray_Pipe_Draw[1], rec, 4, &draw_alive, true) != 4)
                draw_owed[s].fetch_sub(1, std::memory_order_relaxed);   /* no redraw will come */
        }
    }
}

unsigned Ray_Thread_Ray(void* arg)
{
    int i = static_cast<int>(reinterpret_cast<uintptr_t>(arg));
    unsigned char buf[RAY_READ_SIZE];
    char tag[32];
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_Thread_Ray(%d)", i);
    snprintf(tag, sizeof tag, "Ray_Thread_Ray[%d]", i);
    for (;;) {
        /* waiting: a blocking read of the worker's own pipe */
        int n = worker_read(i, buf);
        if (n == 0 || (n < 0 && errno == EBADF)) break;   /* nothing can arrive any more */
        if (n < 0) {
            Plat_Sleep(10);   /* a wake-up without command, but never a busy loop */
            n = 0;
        }
        Ray_Byte_Verdict v = Ray_Byte_Waiting(buf, n);
        if (v == RAY_VERDICT_LEAVE) break;
        if (v == RAY_VERDICT_STOP) continue;
        if (worker_run(i, tag, buf) == RAY_VERDICT_LEAVE) break;
    }
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_Thread_Ray(exit)");
    worker_alive[i].store(0);
    return 1;
}

/* ------------------------------------------------------------ draw thread */

unsigned Ray_Thread_Draw(void*)
{
    unsigned char buf[RAY_READ_SIZE];
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_Thread_Draw()");
    for (;;) {
        int n = Plat_Read(Ray_Pipe_Draw[0], buf, sizeof buf);
        if (n < 1) {
            if (n == 0 || errno == EBADF) break;   /* no writer left */
            Plat_Sleep(10);
            continue;
        }
        for (int off = 0; off + 4 <= n; off += 4) {
            int slot, level;
            Ray_Record_Decode(buf + off, &slot, &level);
            if (level == 0) goto leave;
            if (slot < 0 || slot >= RAY_SLOTS) continue;
            /* Ray_Start may rebind the box meanwhile; the pointer is read whole. */
            Boxs* box = __atomic_load_n(&Ray_Volume.box[slot], __ATOMIC_RELAXED);
            if (box) box->Draw();
            draw_owed[slot].fetch_sub(1, std::memory_order_release);
        }
    }
leave:
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_Thread_Draw(exit)");
    draw_alive.store(0);
    return 1;
}

/* ------------------------------------------------------ host-side requests */

/* A pipe of Ray_CPU_Init that could not be made (the call on line): its lines; returns 0. */
static int init_pipe_failed(unsigned int flags, int line)
{
    report_failure(flags, line, k_err_pipe, k_errno_pipe, errno);
    Ray_Trace(flags, "<<< out Voxelune: Ray_CPU_Init(! pipe)");
    return 0;
}

/*
 * Starts a pipeline thread, its running flag set first; on failure writes
 * the lines of a thread that could not be started (the call on line) and
 * returns false.
 */
static bool start_thread(Plat_Thread* handle, Plat_Thread_Fn fn, void* arg, std::atomic<int>* alive, int line,
                         unsigned int flags, const wchar_t* what)
{
    alive->store(1);
    if (Plat_Thread_Start(handle, fn, arg) == 0) return true;
    int err = errno;
    alive->store(0);
    report_failure(flags, line, what, k_errno_thread, err);
    Ray_Trace(flags, "<<< out Voxelune: Ray_CPU_Init(! thread)");
    return false;
}

int Ray_CPU_Init(unsigned short n)
{
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_CPU_Init()");
    if (n < 1 || n > RAY_MAX_WORKERS) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_CPU_Init(%d): from 1 to %d ray workers", static_cast<int>(n),
                  RAY_MAX_WORKERS);
        return 0;
    }
    if (Ray_Pipe_Ctrl[0] >= 0 || Ray_Pipe_Draw[0] >= 0 || Ray_Pipe_Compute) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_CPU_Init(): the pipeline is already started");
        return 0;
    }
    Ray_Thread_Nb = n;
    for (int s = 0; s < RAY_SLOTS; s++) {
        Ray_Thread_Next[s] = -1;
        draw_owed[s].store(0);
    }
    pipeline_closing.store(0);
    ctrl_posted.store(0);
    ctrl_handled.store(0);

    if (make_pipe(Ray_Pipe_Ctrl) != 0) return init_pipe_failed(RAY_TR_RENDER, __LINE__);
    if (make_pipe(Ray_Pipe_Draw) != 0) return init_pipe_failed(RAY_TR_RENDER, __LINE__);

    Ray_Trace(RAY_TR_RENDER, "Starting ray-tracing ctrl thread");
    if (!start_thread(&Ray_Handle_Ctrl, &Ray_Thread_Ctrl, nullptr, &ctrl_alive, __LINE__, RAY_TR_RENDER, k_err_ctrl))
        return 0;
    Ray_Trace(RAY_TR_RENDER, " Success starting ray-tracing ctrl thread");

    Ray_Trace(RAY_TR_RENDER, "Starting ray-tracing draw thread");
    if (!start_thread(&Ray_Handle_Draw, &Ray_Thread_Draw, nullptr, &draw_alive, __LINE__, RAY_TR_RENDER, k_err_draw))
        return 0;

    Ray_Pipe_Compute = static_cast<int(*)[2]>(
        Ray_Calloc(n, sizeof *Ray_Pipe_Compute, __LINE__, SRC_NAME, "Ray_Pipe_Compute", static_cast<int>(n), 8));
    if (!Ray_Pipe_Compute) return 0;
    Ray_Thread_Compute = static_cast<Plat_Thread*>(
        Ray_Calloc(n, sizeof *Ray_Thread_Compute, __LINE__, SRC_NAME, "Ray_Thread_Compute", static_cast<int>(n), 8));
    if (!Ray_Thread_Compute) return 0;

    for (int i = 0; i < n; i++) {
        worker_pending[i].store(0);
        if (make_pipe(Ray_Pipe_Compute[i]) != 0) return init_pipe_failed(RAY_TR_EXPORT, __LINE__);
        Ray_Pipe_Made = i + 1;
        Ray_Trace(RAY_TR_EXPORT, "[%02d] Starting ray-tracing thread", i);
        void* arg = reinterpret_cast<void*>(static_cast<uintptr_t>(i));
        if (!start_thread(&Ray_Thread_Compute[i], &Ray_Thread_Ray, arg, &worker_alive[i], __LINE__, RAY_TR_EXPORT,
                          k_err_ray))
            return 0;
        Ray_Thread_Started = i + 1;
        Ray_Trace(RAY_TR_EXPORT, "[%02d] Success starting ray-tracing thread", i);
    }
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_CPU_Init(done)");
    return 1;
}

/*
 * Writes a control or draw record to a write end whose reader is *reader,
 * waiting for room while the reader runs; a short write is reported with
 * line, the caller's.  Returns what the write returned.
 */
static int post_record(int fd, const unsigned char* rec, const std::atomic<int>* reader, int line)
{
    errno = 0;
    int r = write_patient(fd, rec, 4, reader, false);
    if (r < 4) report_failure(RAY_TR_RENDER, line, k_err_write, k_errno_pipe, r < 0 ? errno : EAGAIN);
    return r;
}

int Ray_CPU_Start(unsigned short slot)
{
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_CPU_Start()");
    unsigned char rec[4];
    Ray_Record_Encode(rec, slot, RAY_CTRL_START);
    /* A full control pipe empties as long as the control thread runs. */
    if (post_record(Ray_Pipe_Ctrl[1], rec, &ctrl_alive, __LINE__) == 4) ctrl_posted.fetch_add(1);
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_CPU_Start(done)");
    return 1;
}

void Wait_For_Threads()
{
    for (int k = 0; k < 100; k++) {
        Critical_Ray_In("Wait_For_Threads");
        unsigned long long busy = Ray_Thread_Busy;
        Critical_Ray_Out("Wait_For_Threads");
        if (busy == 0) return;
        Plat_Sleep(2);
    }
}

/*
 * Lets the control thread handle every start record posted so far, so
 * that a stop stops what they start instead of being overtaken by them.
 * Takes no lock: the control thread needs it to handle them.
 */
static void settle_requests()
{
    unsigned posted = ctrl_posted.load();
    while (ctrl_alive.load() && static_cast<int>(ctrl_handled.load(std::memory_order_acquire) - posted) < 0)
        Plat_Sleep(1);
}

/* Redraws a stop waits for at most, in 1 ms steps: the host's Draw is not ours to wait for without end. */
#define RAY_STOP_DRAW_WAIT_MS 2000

/*
 * After a stop of slots first to last: waits until no ray of them is in
 * flight (their pixels written) and their redraws asked for are made.
 * Afterwards no ray of these slots runs and no level of them completes.
 */
static void settle_slots(int first, int last)
{
    for (int s = first; s <= last; s++)
        while (Ray_Thread_Flight[s].load(std::memory_order_acquire) > 0) Plat_Sleep(1);
    for (int s = first, k = 0; s <= last; s++)
        while (draw_alive.load() && draw_owed[s].load(std::memory_order_acquire) > 0 && k++ < RAY_STOP_DRAW_WAIT_MS)
            Plat_Sleep(1);
}

int Ray_CPU_Stop(unsigned short slot)
{
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_CPU_Stop()");
    if (slot >= 1 && slot < RAY_SLOTS) {
        settle_requests();
        Critical_Ray_In("Ray_CPU_Stop");
        Ray_Thread_Next[slot] = -1;
        Ray_Thread_Left[slot] = -1;
        Critical_Ray_Out("Ray_CPU_Stop");
        Plat_Sleep(100);
        settle_slots(slot, slot);
    } else if (slot == 0) {
        if (!Ray_Pipe_Compute) {
            Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_CPU_Stop(done)");
            return 1;
        }
        settle_requests();
        Critical_Ray_In("Ray_CPU_Stop");
        for (int s = 0; s < RAY_SLOTS; s++) Ray_Thread_Next[s] = -1;
        Ray_Thread_Run.store(0, std::memory_order_release);
        /*
         * A stop byte that finds its pipe full is dropped: the worker has
         * bytes enough to read, and with every counter at -1 it finds no
         * task after its current one whatever those bytes say.
         */
        for (int i = 0; i < Ray_Thread_Started; i++) (void)worker_write(i, RAY_BYTE_STOP, false, false);
        Critical_Ray_Out("Ray_CPU_Stop");
        Wait_For_Threads();
        Plat_Sleep(100);
        settle_slots(0, RAY_SLOTS - 1);
    } else {
        Plat_Sleep(100);
    }
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_CPU_Stop(done)");
    return 1;
}

/* Closes one end of a pipe if it exists; a failure is reported. */
static void close_end(int* fd, int line)
{
    if (*fd < 0) return;
    if (Plat_Close(*fd) != 0) report_failure(RAY_TR_RENDER, line, k_err_close, k_errno_pipe, errno);
    *fd = -1;
}

int Ray_CPU_Exit()
{
    static const unsigned char leave_rec[4] = {0, 0, 0, 0};
    Ray_Trace(RAY_TR_RENDER, ">>> in  Voxelune: Ray_CPU_Exit()");
    Ray_CPU_Stop(0xFFFF);
    pipeline_closing.store(1);

    /* Leave records, to the threads that run; each waits for room while its reader runs. */
    if (Ray_Handle_Ctrl.handle) (void)post_record(Ray_Pipe_Ctrl[1], leave_rec, &ctrl_alive, __LINE__);
    for (int i = 0; i < Ray_Thread_Started; i++) (void)worker_write(i, RAY_BYTE_LEAVE, true, false);
    if (Ray_Handle_Draw.handle) (void)post_record(Ray_Pipe_Draw[1], leave_rec, &draw_alive, __LINE__);
    Plat_Sleep(100);

    /* Every thread has ended before a pipe is closed or a table released. */
    for (int i = 0; i < Ray_Thread_Started; i++) Plat_Thread_Join(&Ray_Thread_Compute[i]);
    Plat_Thread_Join(&Ray_Handle_Ctrl);
    Plat_Thread_Join(&Ray_Handle_Draw);

    for (int i = 0; i < Ray_Pipe_Made; i++) {
        close_end(&Ray_Pipe_Compute[i][0], __LINE__);
        close_end(&Ray_Pipe_Compute[i][1], __LINE__);
    }
    close_end(&Ray_Pipe_Draw[0], __LINE__);
    close_end(&Ray_Pipe_Draw[1], __LINE__);
    close_end(&Ray_Pipe_Ctrl[0], __LINE__);
    close_end(&Ray_Pipe_Ctrl[1], __LINE__);

    Critical_Ray_In("Vol_Ray_Exit");
    for (int s = 0; s < RAY_SLOTS; s++) {
        Ray_Thread_Next[s] = -1;
        Ray_Thread_Left[s] = -1;
        Ray_Thread_Flight[s].store(0);
        draw_owed[s].store(0);
        /* the control thread released them, unless it ended early */
        layout_release(s);
    }
    Ray_Thread_Busy = 0;
    Critical_Ray_Out("Vol_Ray_Exit");

    free(Ray_Thread_Compute);
    free(Ray_Pipe_Compute);
    Ray_Thread_Compute = nullptr;
    Ray_Pipe_Compute = nullptr;
    Ray_Pipe_Made = 0;
    Ray_Thread_Started = 0;
    Ray_Trace(RAY_TR_RENDER, "<<< out Voxelune: Ray_CPU_Exit(done)");
    return 1;
}
