/* The library frame: lock lines and recursion, version text, Ray_Free. */
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "support.h"

namespace {

/* A lock line: the marker, "0", four markers, " Ray ", 39 markers, the quoted tag. */
std::string lock_line(bool in, const std::string& who)
{
    const std::string m = in ? "\xE2\x96\xBC" : "\xE2\x96\xB2";
    std::string r = m + "0";
    for (int i = 0; i < 43; i++) r += (i == 4 ? " Ray " : "") + m;
    return r + " \"" + who + "\"";
}

}  // namespace

TEST(Lock, LinesRecursionAndExclusion)
{
    Trace_Capture cap;
    Critical_Ray_Create();
    Critical_Ray_In("A"), Critical_Ray_In("B");
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 2u);
    Critical_Ray_Out("B"), Critical_Ray_Out("A");
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 0u);
    Critical_Ray_Cleanup();
    const std::vector<std::string> want = {">>> in  Voxelune: Critical_Ray_Create()", "<<< out Voxelune: Critical_Ray_Create()",
                                           lock_line(true, "A"), lock_line(true, "B"), lock_line(false, "B"), lock_line(false, "A"),
                                           ">>> in  Voxelune: Critical_Ray_Cleanup()", "<<< out Voxelune: Critical_Ray_Cleanup()"};
    EXPECT_EQ(cap.texts(), want);
    for (auto& l : cap.lines()) EXPECT_EQ(l.flags, 0x90004006u);

    /* four threads, recursion inside: no increment lost */
    Corekit_Set_Trace_Sink(nullptr, nullptr);
    Critical_Ray_Create();
    int counter = 0;
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++)
        ts.emplace_back([&] {
            for (int i = 0; i < 20000; i++)
                Critical_Ray_In("w"), Critical_Ray_In("w"), counter++, Critical_Ray_Out("w"), Critical_Ray_Out("w");
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(counter, 80000);
}

/* Leaving a lock one does not hold: an error line, and the lock as it was. */
TEST(Lock, UnmatchedOrForeignOutIsRefused)
{
    Critical_Ray_Create();
    Critical_Ray_In("main");
    Trace_Capture cap;
    std::thread other([] { Critical_Ray_Out("other"); });
    other.join();
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 1u);
    Critical_Ray_Out("main"), Critical_Ray_Out("X"), Critical_Ray_Out(nullptr);
    auto t = cap.texts();
    ASSERT_EQ(t.size(), 4u);
    for (int k : {0, 2, 3})
        EXPECT_EQ(t[k], std::string("ERROR: called Critical_Ray_Out(") + (k ? k == 2 ? "X" : "---" : "other") +
                            ") while not in a critical section!");
    std::thread([] { Critical_Ray_In("T"), Critical_Ray_Out("T"); }).join();   /* still free for another thread */
}

/* "<base name>.dll 1.0 (rev-a)" for no text or "1.0", in one buffer; null for any other text.  Ray_Free
 * frees and clears, twice is harmless, no pointer is an error.  The flag that asks for the discrete GPU. */
TEST(Frame, VersionTextAndRayFree)
{
    char* a = Get_Version_Ray(nullptr);
    std::string text = a ? a : "";
    EXPECT_TRUE(text.size() > 16 && text.find('/') == std::string::npos) << text;
    EXPECT_EQ(text.substr(text.size() - std::min<size_t>(16, text.size())), ".dll 1.0 (rev-a)");
    char v10[] = "1.0", empty[] = "", v11[] = "1.1", longer[] = "1.0x", shorter[] = "1";
    for (char* t : {v10, empty, v11, longer, shorter}) EXPECT_EQ(Get_Version_Ray(t), t == v10 ? a : nullptr) << t;
    char* p = static_cast<char*>(std::malloc(16));
    Trace_Capture cap;
    Ray_Free(&p), Ray_Free(&p), Ray_Free(nullptr), Ray_Cleanup();
    EXPECT_TRUE(p == nullptr && cap.lines().size() == 1u && cap.lines()[0].flags == 2u);
    EXPECT_EQ(NvOptimusEnablementCuda, 1u);
}
