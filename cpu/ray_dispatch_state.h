/*
 * ray_dispatch_state.h - the CPU pipeline's shared state and the small
 * pure pieces of its scheduling, for the pipeline itself and its tests.
 *
 * Everything here is global, one instance per library.  The counters,
 * the busy mask and the per-slot task tables are guarded by the library
 * lock (Ray_Critical); the pipe and thread tables are written only by the
 * host's thread in Ray_CPU_Init and Ray_CPU_Exit.
 */
#ifndef VOXELUNE_CPU_RAY_DISPATCH_STATE_H
#define VOXELUNE_CPU_RAY_DISPATCH_STATE_H

#include <atomic>

#include "core/platform.h"
#include "core/ray_state.h"
#include "cpu/ray_pixel.h"

#define RAY_MAX_WORKERS 64
#define RAY_PIPE_SIZE 128     /* requested buffer of every pipe */
#define RAY_READ_SIZE 1024    /* read buffer of every pipeline thread */
#define RAY_SLOT_FLOOR (-10000)

/* Commands of the control record (byte 0). */
#define RAY_CTRL_LEAVE 0x00
#define RAY_CTRL_START 0x01

/* Worker bytes as they are written. */
#define RAY_BYTE_LEAVE 0x00
#define RAY_BYTE_START 0x01
#define RAY_BYTE_STOP 0xFF

/* ---- pipes and threads ---- */

extern unsigned short Ray_Thread_Nb;
extern int Ray_Pipe_Ctrl[2];            /* read end, write end; -1 when absent */
extern int Ray_Pipe_Draw[2];
extern int (*Ray_Pipe_Compute)[2];      /* Ray_Thread_Nb pairs, or null */
extern Plat_Thread* Ray_Thread_Compute; /* Ray_Thread_Nb handles, or null */
extern Plat_Thread Ray_Handle_Ctrl;
extern Plat_Thread Ray_Handle_Draw;

/* How far a partly failed Ray_CPU_Init got: worker pipes made, workers started. */
extern int Ray_Pipe_Made;
extern int Ray_Thread_Started;

/* ---- scheduling state (under the lock) ---- */

extern unsigned long long Ray_Thread_Busy;   /* bit i: worker i is working */
extern int Ray_Thread_Next[RAY_SLOTS];       /* next task to hand out; < 0: none */
extern int Ray_Thread_Left[RAY_SLOTS];       /* count-down of finished tasks */
/* Tasks of each slot handed out and not yet written back. */
extern std::atomic<int> Ray_Thread_Flight[RAY_SLOTS];

/* ---- per-slot task layout (written by the control thread, under the lock) ---- */

struct Ray_Dim {
    int w, h;
};
extern Ray_Dim Ray_Thread_Dim[RAY_SLOTS];
extern int Ray_Thread_Level_Nb[RAY_SLOTS];
extern int* Ray_Thread_I[RAY_SLOTS];
extern int* Ray_Thread_J[RAY_SLOTS];
extern int* Ray_Thread_W[RAY_SLOTS];
extern int* Ray_Thread_H[RAY_SLOTS];
extern int* Ray_Thread_Seminal_Val[RAY_SLOTS];
/* Per pixel, the finest level that has written it in the current frame. */
extern unsigned char* Ray_Thread_Stamp[RAY_SLOTS];

/* ---- thread entries ---- */

unsigned Ray_Thread_Ctrl(void* unused);
unsigned Ray_Thread_Ray(void* index);   /* the worker index, as an integer */
unsigned Ray_Thread_Draw(void* unused);

/* ---- pure pieces ---- */

/* Number of refinement levels of a box of n pixels (1 below 4000 pixels). */
int Ray_Layout_Levels(int n);

/* thr[k], k = 0..levels-1: pixels left when level k and the coarser ones are done. */
void Ray_Layout_Thresholds(int w, int h, int levels, int* thr);

/*
 * Fills the w*h tasks of a box, coarse to fine, from index w*h-1 down to 0:
 * block origin (ti, tj) and block size (tw, th).
 */
void Ray_Layout_Fill(int w, int h, int levels, int* ti, int* tj, int* tw, int* th);

/* What a worker does with a batch of bytes read from its pipe. */
enum Ray_Byte_Verdict {
    RAY_VERDICT_WORK = 0,   /* start (waiting) or go on (working) */
    RAY_VERDICT_STOP = 1,   /* keep waiting (waiting) or stop (working) */
    RAY_VERDICT_LEAVE = 2,  /* the thread ends */
};
/* A waiting worker: the last byte that is not a start byte decides. */
Ray_Byte_Verdict Ray_Byte_Waiting(const unsigned char* buf, int n);
/* A working worker: the first byte that is not a start byte decides. */
Ray_Byte_Verdict Ray_Byte_Working(const unsigned char* buf, int n);

/*
 * The slot with the highest next[] from a floor of -10000, the lowest slot
 * on ties, slot 0 when none rises above the floor; *value gets the choice's
 * value (the floor in that last case).
 */
int Ray_Choose_Slot(const int* next, int* value);

/* The 4-byte little-endian record (slot << 8) | code, and back. */
void Ray_Record_Encode(unsigned char* rec, int slot, int code);
void Ray_Record_Decode(const unsigned char* rec, int* slot, int* code);

/* ---- hooks for tests and benchmarks ---- */

/* The ray a worker casts; Ray_Pixel_View unless a test installs another. */
typedef unsigned int (*Ray_Pixel_Fn)(int slot, const Ray_View& view, int i, int j);
extern std::atomic<Ray_Pixel_Fn> Ray_Dispatch_Pixel;

#endif
