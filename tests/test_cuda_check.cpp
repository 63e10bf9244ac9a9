// The check after every CUDA call and after a launch: trace on success, fatal exit on failure.
#include <gtest/gtest.h>

#include <cstdio>

#include "core/ray_state.h"
#include "gpu/ray_cuda_check.h"
#include "support.h"

TEST(CudaCheck, SuccessTracesOnlyAtLevelEight)
{
    Trace_Capture cap;
    for (int level : {7, 0x18, 0xF7, 0x8F})   /* only the low four bits count */
        Flag_Trace = static_cast<signed char>(level), Ray_Cuda_Check(cudaSuccess, "cudaFree[cuda_img]", "ray_cuda", 1);
    Flag_Trace = 0;
    auto l = cap.lines();
    ASSERT_EQ(l.size(), 2u);
    EXPECT_TRUE(l[0].text == "-> cudaFree[cuda_img]" && l[0].flags == 0x80082008u);
}

// The default message box writes title, caption and text to stderr, markup kept.
TEST(CudaCheckDeathTest, FailureShowsMessageCallsCrashAndExitsZero)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* expected = "ERROR!\nCUDA Error\nSorry, but I can not recover from this:\n"
                           "\"\xC3\xB1no CUDA-capable device is detected\xC3\xB0\"\n \n"
                           "In    \x01" "cudaMalloc\\[Ray_Cuda_GLI\\]\x02\nfile: \x01ray_init\x02\n"
                           "line: \x01" "123\x02\n \n\xC3\xB1Please contact Quillmark for more assistance\n"
                           "\\{crash callback\\}$";
    Util_Cuda_Crash = [] { std::fprintf(stderr, "{crash callback}"); };
    EXPECT_EXIT(Ray_Cuda_Check(static_cast<cudaError_t>(100), "cudaMalloc[Ray_Cuda_GLI]", "ray_init", 123),
                testing::ExitedWithCode(0), expected);
}

#if defined(VOXELUNE_WITH_CUDA)
// A launch is judged by the error it leaves, not by one that an earlier,
// unchecked call left (a failing runtime call stands in for a refused
// launch).  Without a device every call fails: only the fatal half runs.
TEST(CudaCheckDeathTest, LaunchCheckedUnderItsOwnLabel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto failing_call = [] { (void)cudaFree(reinterpret_cast<void*>(1)); };
    int devices = 0;
    if (cudaGetDeviceCount(&devices) == cudaSuccess && devices > 0) {
        failing_call();
        Trace_Capture cap;
        Flag_Trace = 8;
        Ray_Cuda_Launch([] {}, "cudaLaunchKernel[Ray_Individual]", "ray_cuda", 1);
        Flag_Trace = 0;
        EXPECT_TRUE(cap.lines().empty());   /* a launch that succeeds writes nothing */
    }
    EXPECT_EXIT(Ray_Cuda_Launch(failing_call, "cudaLaunchKernel[Cuda_Filter]", "ray_gradient", 2),
                testing::ExitedWithCode(0), "cudaLaunchKernel\\[Cuda_Filter\\]");
}
#endif
