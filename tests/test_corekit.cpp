/* The host stand-ins as the library uses them: matrices, trace lines, paths, random draws, boxes. */
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <thread>

#include <corekit/corekit.h>
#include <panelkit/panelkit.h>

#include "support.h"

namespace {

void expect_identity(const Matrix_4x4& a, const Matrix_4x4& b)
{
    for (int i = 0; i < 16; i++) {
        double s = 0;
        for (int k = 0; k < 4; k++) s += a[i / 4][k] * b[k][i % 4];
        EXPECT_NEAR(s, i % 5 == 0 ? 1.0 : 0.0, 1e-9) << i;
    }
}

int g_arg_reads = 0;
const char* counted() { return g_arg_reads++, "x"; }

} // namespace

TEST(Matrix, InverseOfAffineAndSwappedMatricesAndZeroForSingular)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> ang(-3.1f, 3.1f), sc(0.2f, 4.0f), tr(-50.0f, 50.0f);
    for (int n = 0; n < 100; n++) {
        Matrix_4x4 m;
        m.rot_x(ang(rng), combine_after), m.rot_y(ang(rng), combine_after);
        m.scale(sc(rng), sc(rng), sc(rng), combine_after), m.rot_z(ang(rng), combine_after);
        m.translate(tr(rng), tr(rng), tr(rng), combine_after);
        expect_identity(!m, m), expect_identity(m, !m);
    }
    Matrix_4x4 swap, flat; /* a zero on the diagonal needs a row exchange */
    swap[0][0] = swap[1][1] = 0;
    swap[0][1] = swap[1][0] = 1;
    expect_identity(!swap, swap);
    flat.scale(0.0f, 1.0f, 1.0f);
    for (int i = 0; i < 16; i++) EXPECT_EQ((!flat)[i / 4][i % 4], 0.0);
}

TEST(Matrix, CombineOrderRowVectorsAndFloatCopy)
{
    Matrix_4x4 after, before;
    after.scale(2, 2, 2, combine_after), after.translate(10, 0, 0, combine_after); /* scale, then translate */
    before.scale(2, 2, 2), before.translate(10, 0, 0); /* the default, combine_before: translate, then scale */
    Vector_4 p(1, 1, 1, 1), q = p, dir(1, 1, 1, 0); /* row vectors; a direction ignores translation */
    p *= after, q *= before, dir *= after;
    EXPECT_EQ(std::vector<float>({p.x, q.x, dir.x, p.y}), std::vector<float>({12, 22, 2, 2}));
    Vector_4 n = Vector_4(3, 0, 4, 7).normalise();
    EXPECT_TRUE(n.x == 0.6f && n.z == 0.8f && n.w == 7.0f);
    std::array<float, 16> f = after.to_float();
    EXPECT_TRUE(f[12] == 10.0f && f[3] == 0.0f); /* row by row: the translation is the last row */
}

TEST(ErrorFct, FormatsAndDeliversUtf8FromBothOverloads)
{
    Trace_Capture cap;
    EXPECT_GT(Error_Fct(hwnd, 5, "%hs %ls %d|%-4d|%02d|%.2f|%x", "nar", L"wide", -3, 7, 5, 1.005, 255u), 0);
    Error_Fct(hwnd, 6, L"a %hs b %ls c %d %s", "nar", L"wide", 42, L"w");
    Error_Fct(hwnd, 1, L"\u25BC%ls\u00F1", L"\u25B2");
    Error_Fct(hwnd, 1, "%s \xF1x", "caf\xC3\xA9"); /* UTF-8 passes, a lone markup byte is a character */
    Error_Fct(hwnd, 1, "line %-4d of %hs \nmemory error in new\n", 12, "ray_gradient");
    EXPECT_EQ(cap.texts(), (std::vector<std::string>{
                               "nar wide -3|7   |05|1.00|ff", "a nar b wide c 42 w",
                               "\xE2\x96\xBC\xE2\x96\xB2\xC3\xB1", "caf\xC3\xA9 \xC3\xB1x",
                               "line 12   of ray_gradient \nmemory error in new"})); /* the last break goes */
    EXPECT_EQ(cap.lines()[0].flags, 5u);
}

TEST(ErrorFct, ListeningOnlyWhileASinkIsInstalledAndNoFormattingWithout)
{
    EXPECT_EQ(Corekit_Trace_Listening(), 0);
    std::unique_ptr<Trace_Capture> cap(new Trace_Capture);
    EXPECT_NE(Corekit_Trace_Listening(), 0);
    cap.reset();
    EXPECT_EQ(Corekit_Trace_Listening(), 0);
    /* a format that would crash if formatted: %ls given a bad pointer */
    EXPECT_EQ(Error_Fct(hwnd, 1, "%ls %hs", reinterpret_cast<const wchar_t*>(1), counted()), 0);
    EXPECT_EQ(g_arg_reads, 1);
}

TEST(ErrorFct, CallsFromManyThreadsAreSerialised)
{
    static std::atomic<int> inside{0}, overlap{0}, total{0};
    auto sink = [](unsigned, const char*, void*) {
        overlap += inside.fetch_add(1) != 0;
        std::this_thread::yield();
        inside--, total++;
    };
    Corekit_Set_Trace_Sink(sink, nullptr);
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++)
        ts.emplace_back([] {
            for (int i = 0; i < 500; i++) Error_Fct(hwnd, 1, "%d", i);
        });
    for (auto& t : ts) t.join();
    Corekit_Set_Trace_Sink(nullptr, nullptr);
    EXPECT_EQ(total * 10 + overlap, 20000); /* every line, never two at once */
}

TEST(Corekit, PathsRandomDrawsAndErrnoText)
{
    char path[] = "C:\\dir/sub\\libvoxelune.so.1", plain[] = "name", dir[64], name[64], ext[64];
    Get_Generic_Name(path, dir, name, ext);
    EXPECT_EQ(std::string(dir) + "|" + name + "|" + ext, "C:\\dir/sub\\|libvoxelune.so|.1");
    Get_Generic_Name(plain, nullptr, name, ext);
    EXPECT_EQ(std::string(name) + "|" + ext, "name|");
    float lo = 1, hi = -1;
    for (int i = 0; i < 100000; i++) {
        float r = Fct_Random_Float();
        ASSERT_TRUE(r >= -1.0f && r < 1.0f) << r;
        lo = std::min(lo, r), hi = std::max(hi, r);
    }
    EXPECT_TRUE(lo < -0.99f && hi > 0.99f);
    Corekit_Set_Random([] { return 0.25f; });
    EXPECT_EQ(Fct_Random_Float(), 0.25f);
    Corekit_Set_Random(nullptr);
    EXPECT_NE(Fct_Random_Float(), Fct_Random_Float());   /* the library's own draws again */
    EXPECT_NE(std::wstring(Error_Perror(ENOENT)).find(L"No such file"), std::wstring::npos);
}

TEST(Panelkit, BoxBufferDrawAndMessageWithoutHandler)
{
    Boxs box(3, 2);
    ASSERT_NE(box.Graph_Normal, nullptr);
    EXPECT_EQ(std::vector<unsigned>(box.Graph_Normal, box.Graph_Normal + 6), std::vector<unsigned>(6, 0u));
    int calls = 0;
    box.draw_context = &calls;
    box.draw_handler = [](Boxs*, void* c) { (*static_cast<int*>(c))++; };
    box.Draw(), Boxs().Draw(); /* the second has no handler: nothing happens */
    EXPECT_EQ(calls, 1);
    /* with a handler installed: CudaCheckDeathTest */
    testing::internal::CaptureStderr();
    EXPECT_EQ(PopUp_Message(L"T", L"C", L"\u00F1X\u25B2", 1, 2, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "T\nC\n\xC3\xB1X\xE2\x96\xB2\n");
}
