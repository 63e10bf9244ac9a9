/* The check after every CUDA call and after a launch: trace on success, fatal exit on failure. */
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "core/ray_state.h"
#include "gpu/ray_cuda_check.h"
#include "support.h"

namespace {

std::string utf8(const wchar_t* s)
{
    std::string out;
    for (; *s; s++) {
        unsigned c = static_cast<unsigned>(*s);
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

int print_message(const wchar_t* title, const wchar_t* caption, const wchar_t* text, void*)
{
    std::fprintf(stderr, "[%s|%s|%s]", utf8(title).c_str(), utf8(caption).c_str(), utf8(text).c_str());
    return 0;
}

void crash() { std::fprintf(stderr, "{crash callback}"); }

} // namespace

TEST(CudaCheck, SuccessTracesOnlyAtLevelEight)
{
    Trace_Capture cap;
    /* only the low four bits count */
    for (int level : {7, 0x18, 0xF7, 0x8F}) {
        Flag_Trace = static_cast<signed char>(level);
        Ray_Cuda_Check(cudaSuccess, level == 0x18 ? "cudaMalloc[cuda_gli]" : "cudaFree[cuda_img]", "ray_cuda", 10);
    }
    Flag_Trace = 0;
    auto l = cap.lines();
    ASSERT_EQ(l.size(), 2u);
    EXPECT_TRUE(l[0].text == "-> cudaMalloc[cuda_gli]" && l[0].flags == 0x80082008u);
    EXPECT_EQ(l[1].text, "-> cudaFree[cuda_img]");
}

TEST(CudaCheckDeathTest, FailureShowsMessageCallsCrashAndExitsZero)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string expected = "\\[ERROR!\\|CUDA Error\\|Sorry, but I can not recover from this:\n"
                                 "\"\xC3\xB1no CUDA-capable device is detected\xC3\xB0\"\n"
                                 " \n"
                                 "In    \x01" "cudaMalloc\\[Ray_Cuda_GLI\\]\x02\n"
                                 "file: \x01ray_init\x02\n"
                                 "line: \x01" "123\x02\n"
                                 " \n"
                                 "\xC3\xB1Please contact Quillmark for more assistance\\]\\{crash callback\\}";
    EXPECT_EXIT(
        {
            Panelkit_Set_Message_Handler(print_message, nullptr);
            Util_Cuda_Crash = crash;
            Ray_Cuda_Check(static_cast<cudaError_t>(100), "cudaMalloc[Ray_Cuda_GLI]", "ray_init", 123);
            std::fprintf(stderr, "returned");
        },
        testing::ExitedWithCode(0), expected);
}

#if defined(VOXELUNE_WITH_CUDA)
/*
 * A launch is judged by the error it leaves, not by one that an earlier,
 * unchecked call left (a failing runtime call stands in for a refused
 * launch).  Without a device every call fails: only the fatal half runs.
 */
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
