/*
 * ray_cuda_check.cpp - a failed CUDA call is fatal: message box, the
 * host's crash callback, exit(0).
 */
#include "ray_cuda_check.h"

#include <cstdlib>
#include <cwchar>

#include "core/ray_state.h"

uint64_t (*Ray_Gpu_Free_Memory_Hook)() = nullptr;

uint64_t Ray_Gpu_Free_Memory()
{
    if (Ray_Gpu_Free_Memory_Hook) return Ray_Gpu_Free_Memory_Hook();
    size_t free_bytes = 0, total_bytes = 0;
    if (cudaMemGetInfo(&free_bytes, &total_bytes) != cudaSuccess) {
        (void)cudaGetLastError();   /* its code is not examined: leave nothing pending */
        return 0;
    }
    return free_bytes;
}

int Ray_Gpu_Room(uint64_t need)
{
    if (Test_Cuda(3, 0) == 0) return 0;
    return Ray_Gpu_Free_Memory() > need ? 1 : 0;
}

unsigned int Ray_Cuda_Block()
{
    unsigned int block = Cuda_Thread_Block;
    return block >= 1 && block <= RAY_CUDA_MAX_BLOCK ? block : 0;
}

/*
 * Eight lines: the CUDA error text between the markers 0xF1 and 0xF0, the
 * label, source and line each between 0x01 and 0x02.  The three texts are
 * narrow strings: "%hs" in either printf family.
 */
static const wchar_t k_fatal[] =
    L"Sorry, but I can not recover from this:\n"
    L"\"\u00F1%hs\u00F0\"\n"
    L" \n"
    L"In    \u0001%hs\u0002\n"
    L"file: \u0001%hs\u0002\n"
    L"line: \u0001%d\u0002\n"
    L" \n"
    L"\u00F1Please contact Quillmark for more assistance";

void Ray_Cuda_Check(cudaError_t code, const char* label, const char* source, int line)
{
    if (code == cudaSuccess) {
        if ((static_cast<unsigned char>(Flag_Trace) & 15u) >= 8u)
            Error_Fct(hwnd, RAY_TR_CUDA, "-> %hs", label);
        return;
    }
    std::swprintf(Quil_Err_Cuda, 1024, k_fatal, cudaGetErrorString(code), label, source, line);
    PopUp_Message(L"ERROR!", L"CUDA Error", Quil_Err_Cuda, 550, 220, nullptr);
    Util_Cuda_Crash();
    std::exit(0);
}
