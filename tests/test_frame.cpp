/* The library frame: lock lines, Phong table, version text, Ray_Free. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include <voxelune/voxelune.h>

#include "core/ray_state.h"
#include "support.h"

namespace {

std::string repeat(const std::string& s, int n)
{
    std::string r;
    for (int i = 0; i < n; i++) r += s;
    return r;
}

const std::string down = "\xE2\x96\xBC", up = "\xE2\x96\xB2";

std::string lock_line(const std::string& m, const std::string& who)
{
    return m + "0" + repeat(m, 4) + " Ray " + repeat(m, 39) + " \"" + who + "\"";
}

} // namespace

TEST(Lock, LinesAndRecursion)
{
    Trace_Capture cap;
    Critical_Ray_Create();
    Critical_Ray_In("A");
    Critical_Ray_In("B");
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 2u);
    Critical_Ray_Out("B");
    Critical_Ray_Out("A");
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 0u);
    Critical_Ray_Cleanup();
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 8u);
    for (auto& l : lines) EXPECT_EQ(l.flags, 0x90004006u);
    EXPECT_EQ(lines[0].text, ">>> in  Voxelune: Critical_Ray_Create()");
    EXPECT_EQ(lines[1].text, "<<< out Voxelune: Critical_Ray_Create()");
    EXPECT_EQ(lines[2].text, lock_line(down, "A"));
    EXPECT_EQ(lines[3].text, lock_line(down, "B"));
    EXPECT_EQ(lines[4].text, lock_line(up, "B"));
    EXPECT_EQ(lines[5].text, lock_line(up, "A"));
    EXPECT_EQ(lines[6].text, ">>> in  Voxelune: Critical_Ray_Cleanup()");
    EXPECT_EQ(lines[7].text, "<<< out Voxelune: Critical_Ray_Cleanup()");
}

TEST(Lock, UnmatchedOutWritesErrorAndLeavesLockAlone)
{
    Critical_Ray_Create();
    Trace_Capture cap;
    Critical_Ray_In("X");
    Critical_Ray_Out("X");
    Critical_Ray_Out("X");
    Critical_Ray_Out(nullptr);
    auto t = cap.texts();
    ASSERT_EQ(t.size(), 4u);
    EXPECT_EQ(t[2], "ERROR: called Critical_Ray_Out(X) while not in a critical section!");
    EXPECT_EQ(t[3], "ERROR: called Critical_Ray_Out(---) while not in a critical section!");
    /* the lock still works for another thread */
    std::thread other([] {
        Critical_Ray_In("T");
        Critical_Ray_Out("T");
    });
    other.join();
}

TEST(Lock, ExcludesOtherThreads)
{
    Critical_Ray_Create();
    int counter = 0;
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++)
        ts.emplace_back([&] {
            for (int i = 0; i < 20000; i++) {
                Critical_Ray_In("w");
                Critical_Ray_In("w"); /* recursion inside */
                counter++;
                Critical_Ray_Out("w");
                Critical_Ray_Out("w");
            }
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(counter, 80000);
}

TEST(Lock, OutFromNonHolderIsRefused)
{
    Critical_Ray_Create();
    Critical_Ray_In("main");
    Trace_Capture cap;
    std::thread other([] { Critical_Ray_Out("other"); });
    other.join();
    EXPECT_EQ(Plat_Rlock_Count(&Ray_Critical), 1u);
    EXPECT_TRUE(cap.has("ERROR: called Critical_Ray_Out(other) while not in a critical section!"));
    Critical_Ray_Out("main");
}

TEST(Phong, TableValues)
{
    unsigned int t[RAY_PHONG_SIZE];
    Ray_Phong_Build(t);
    for (int i = 0; i < 852; i++) ASSERT_EQ(t[i], 0u) << i;
    EXPECT_EQ(t[852], 1u);
    EXPECT_EQ(t[900], 5u);
    EXPECT_EQ(t[960], 36u);
    EXPECT_EQ(t[1000], 125u);
    EXPECT_EQ(t[1023], 247u);
    for (int i = 1; i < RAY_PHONG_SIZE; i++) ASSERT_GE(t[i], t[i - 1]);
}

TEST(Version, AcceptsNullAndOneZero)
{
    char* a = Get_Version_Ray(nullptr);
    ASSERT_NE(a, nullptr);
    std::string text = a;
    char v10[] = "1.0";
    EXPECT_EQ(Get_Version_Ray(v10), a);
    EXPECT_EQ(text, std::string(a));
    /* "<base name>.dll 1.0 (rev-a)" */
    ASSERT_GE(text.size(), 16u);
    EXPECT_EQ(text.substr(text.size() - 16), ".dll 1.0 (rev-a)");
    EXPECT_EQ(text.find('/'), std::string::npos);
}

TEST(Version, RejectsOtherTexts)
{
    char empty[] = "", v11[] = "1.1", longer[] = "1.0x", shorter[] = "1";
    EXPECT_EQ(Get_Version_Ray(empty), nullptr);
    EXPECT_EQ(Get_Version_Ray(v11), nullptr);
    EXPECT_EQ(Get_Version_Ray(longer), nullptr);
    EXPECT_EQ(Get_Version_Ray(shorter), nullptr);
}

TEST(Frame, RayFreeReleasesAndClears)
{
    char* p = static_cast<char*>(std::malloc(16));
    Ray_Free(&p);
    EXPECT_EQ(p, nullptr);
    Ray_Free(&p); /* null stays null */
    EXPECT_EQ(p, nullptr);
    Trace_Capture cap;
    Ray_Free(nullptr);
    ASSERT_EQ(cap.lines().size(), 1u);
    EXPECT_EQ(cap.lines()[0].flags, 2u);
    Ray_Cleanup();
    EXPECT_EQ(NvOptimusEnablementCuda, 1u);
}
