/*
 * ray_state.cpp - definitions of the global state, the library lock with
 * its traced enter and leave, and the Phong table rule.
 */
#include "ray_state.h"

#include <cmath>
#include <cstdlib>

#include "ray_core.h"

Ray_Params_Table Ray_Params;
Ray_Volume_Table Ray_Volume;

float* Ray_Cuda_GLI[RAY_SLOTS];
unsigned char* Ray_Cuda_TAG[RAY_SLOTS];
float* Ray_Cuda_Grad_A[RAY_SLOTS];
float* Ray_Cuda_Grad_X[RAY_SLOTS];
float* Ray_Cuda_Grad_Y[RAY_SLOTS];
float* Ray_Cuda_Grad_Z[RAY_SLOTS];

unsigned int* Phong_table = nullptr;
float Phong_exponent = 30.0f;
std::atomic<int> Ray_Thread_Run{0};
int Ray_Init_Done = 0;

Plat_Rlock Ray_Critical;

void Ray_Trace_Alloc(int line, const char* file, const char* call, const char* var, int d1, int d2)
{
    Ray_Trace(RAY_TR_ALLOC, "line %-4d of %hs \nmemory error in %hs (var=%hs, dim=%dx%d)", line, file, call, var, d1,
              d2);
}

std::atomic<int> Ray_Fail_Alloc_At{0};

/* Buffers of this size and more are read all over by the renderers: 2 MiB pages spare the TLB. */
#define RAY_LARGE_BYTES (size_t(4) << 20)

void* Ray_Malloc(size_t bytes, int line, const char* file, const char* var, int d1, int d2)
{
    void* p = Plat_Injected_Failure(Ray_Fail_Alloc_At) ? nullptr
              : bytes >= RAY_LARGE_BYTES                ? Plat_Alloc_Large(bytes)
                                                        : malloc(bytes);
    if (!p) Ray_Trace_Alloc(line, file, "malloc", var, d1, d2);
    return p;
}

void* Ray_Calloc(size_t n, size_t size, int line, const char* file, const char* var, int d1, int d2)
{
    void* p = Plat_Injected_Failure(Ray_Fail_Alloc_At) ? nullptr : calloc(n, size);
    if (!p) Ray_Trace_Alloc(line, file, "calloc", var, d1, d2);
    return p;
}

void* Ray_Realloc(void* old, size_t bytes, int line, const char* file, const char* var, int d1, int d2)
{
    void* p = Plat_Injected_Failure(Ray_Fail_Alloc_At) ? nullptr : realloc(old, bytes);
    if (!p) Ray_Trace_Alloc(line, file, "realloc", var, d1, d2);
    return p;
}

void Ray_Phong_Build(unsigned int* table)
{
    for (int i = 0; i < RAY_PHONG_SIZE; i++) {
        float p = powf(static_cast<float>(i) * 0.0009765625f, Phong_exponent);
        if (p > 1.0f) p = 1.0f;
        table[i] = static_cast<unsigned int>(p * 255.0f);
    }
}

void Ray_Clip_Box(int s, int box[6])
{
    const int dim[3] = {Ray_Volume.dim_x[s], Ray_Volume.dim_y[s], Ray_Volume.dim_z[s]};
    const float* frac[3] = {Ray_Volume.clip_frac_x[s], Ray_Volume.clip_frac_y[s], Ray_Volume.clip_frac_z[s]};
    for (int a = 0; a < 3; a++)
        for (int k = 0; k < 2; k++) box[2 * a + k] = Ray_F2I<RAY_CPU>(static_cast<float>(dim[a]) * frac[a][k]);
}

float Ray_Diagonal(int dim_x, int dim_y, int dim_z)
{
    float sum = static_cast<float>(Ray_Mul32(dim_x, dim_x)) + static_cast<float>(Ray_Mul32(dim_y, dim_y)) +
                static_cast<float>(Ray_Mul32(dim_z, dim_z));
    return sqrtf(sum);
}

/*
 * The lock lines: a marker, "0", four markers, " Ray ", 39 markers, then
 * the caller's tag in double quotes.  U+25BC on entry, U+25B2 on leave.
 */
#define M4(c) c c c c
#define M39(c) M4(c) M4(c) M4(c) M4(c) M4(c) M4(c) M4(c) M4(c) M4(c) c c c
static const wchar_t k_line_in[] =
    L"\u25BC" L"0" M4(L"\u25BC") L" Ray " M39(L"\u25BC") L" \"%hs\"";
static const wchar_t k_line_out[] =
    L"\u25B2" L"0" M4(L"\u25B2") L" Ray " M39(L"\u25B2") L" \"%hs\"";

void Critical_Ray_Create()
{
    Ray_Trace(RAY_TR_LOCK, ">>> in  Voxelune: Critical_Ray_Create()");
    /* The lock itself is static; creating it resets its owner. */
    Plat_Rlock_Reset(&Ray_Critical);
    Ray_Trace(RAY_TR_LOCK, "<<< out Voxelune: Critical_Ray_Create()");
}

void Critical_Ray_Cleanup()
{
    Ray_Trace(RAY_TR_LOCK, ">>> in  Voxelune: Critical_Ray_Cleanup()");
    Ray_Trace(RAY_TR_LOCK, "<<< out Voxelune: Critical_Ray_Cleanup()");
}

void Critical_Ray_In(const char* who)
{
    Plat_Rlock_Enter(&Ray_Critical);
    Ray_Trace(RAY_TR_LOCK, k_line_in, who);
}

void Critical_Ray_Out(const char* who)
{
    if (Plat_Rlock_Count(&Ray_Critical) > 0) {
        Ray_Trace(RAY_TR_LOCK, k_line_out, who);
        Plat_Rlock_Leave(&Ray_Critical);
    } else {
        Ray_Trace(RAY_TR_LOCK, "ERROR: called Critical_Ray_Out(%hs) while not in a critical section!",
                  who ? who : "---");
    }
}
