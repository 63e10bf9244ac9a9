/* The host stand-ins: matrix algebra, the trace formatter, paths, random draws. */
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <thread>

#include <corekit/corekit.h>
#include <panelkit/panelkit.h>

#include "support.h"

namespace {

Matrix_4x4 random_affine(std::mt19937& rng)
{
    std::uniform_real_distribution<float> ang(-3.1f, 3.1f), sc(0.2f, 4.0f), tr(-50.0f, 50.0f);
    Matrix_4x4 m;
    m.rot_x(ang(rng), combine_after);
    m.rot_y(ang(rng), combine_after);
    m.scale(sc(rng), sc(rng), sc(rng), combine_after);
    m.rot_z(ang(rng), combine_after);
    m.translate(tr(rng), tr(rng), tr(rng), combine_after);
    return m;
}

Matrix_4x4 product(const Matrix_4x4& a, const Matrix_4x4& b)
{
    Matrix_4x4 r;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) {
            double s = 0;
            for (int k = 0; k < 4; k++) s += a[i][k] * b[k][j];
            r[i][j] = s;
        }
    return r;
}

/* p * M for a point (w = 1). */
void map_point(const Matrix_4x4& m, const double p[3], double out[3])
{
    for (int c = 0; c < 3; c++) out[c] = p[0] * m[0][c] + p[1] * m[1][c] + p[2] * m[2][c] + m[3][c];
}

} // namespace

TEST(Matrix, InverseOfRandomAffineMatricesGivesIdentity)
{
    std::mt19937 rng(7);
    for (int n = 0; n < 200; n++) {
        Matrix_4x4 m = random_affine(rng);
        Matrix_4x4 inv = !m;
        Matrix_4x4 left = product(inv, m), right = product(m, inv);
        for (int i = 0; i < 4; i++)
            for (int j = 0; j < 4; j++) {
                EXPECT_NEAR(left[i][j], i == j ? 1.0 : 0.0, 1e-9);
                EXPECT_NEAR(right[i][j], i == j ? 1.0 : 0.0, 1e-9);
            }
    }
}

TEST(Matrix, InverseNeedsPivoting)
{
    /* a zero on the diagonal: elimination without row swaps would fail */
    Matrix_4x4 m;
    m[0][0] = 0; m[0][1] = 1;
    m[1][0] = 1; m[1][1] = 0;
    Matrix_4x4 r = product(!m, m);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_DOUBLE_EQ(r[i][j], i == j ? 1.0 : 0.0);
}

TEST(Matrix, SingularInverseIsZero)
{
    Matrix_4x4 m;
    m.scale(0.0f, 1.0f, 1.0f);
    Matrix_4x4 inv = !m;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_EQ(inv[i][j], 0.0);
}

TEST(Matrix, TransposeSwapsRowsAndColumns)
{
    Matrix_4x4 m;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) m[i][j] = i * 4 + j;
    Matrix_4x4 t = ~m;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_EQ(t[i][j], j * 4 + i);
}

TEST(Matrix, CombineAfterAppliesTheNewTransformLast)
{
    /* scale then translate (after): p -> p*2 + (10, 0, 0) */
    Matrix_4x4 m;
    m.scale(2, 2, 2, combine_after);
    m.translate(10, 0, 0, combine_after);
    double p[3] = {1, 1, 1}, q[3];
    map_point(m, p, q);
    EXPECT_DOUBLE_EQ(q[0], 12.0);
    EXPECT_DOUBLE_EQ(q[1], 2.0);

    /* the same calls with combine_before: translate first, then scale */
    Matrix_4x4 b;
    b.scale(2, 2, 2, combine_before);
    b.translate(10, 0, 0, combine_before);
    map_point(b, p, q);
    EXPECT_DOUBLE_EQ(q[0], 22.0);
    EXPECT_DOUBLE_EQ(q[1], 2.0);
}

TEST(Matrix, DefaultCombineIsBefore)
{
    Matrix_4x4 a, b;
    a.translate(1, 2, 3);
    a.scale(2, 3, 4);
    b.translate(1, 2, 3, combine_before);
    b.scale(2, 3, 4, combine_before);
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_EQ(a[i][j], b[i][j]);
}

TEST(Matrix, RotationEntriesForAnglesReadBack)
{
    const float a = 0.3f, b = -0.7f, c = 1.1f;
    Matrix_4x4 m;
    m.init();
    m.rot_x(a, combine_after);
    m.rot_y(b, combine_after);
    m.rot_z(c, combine_after);
    double sa = std::sin(double(a)), ca = std::cos(double(a));
    double sb = std::sin(double(b)), cb = std::cos(double(b));
    double sc = std::sin(double(c)), cc = std::cos(double(c));
    EXPECT_NEAR(m[0][2], -sb, 1e-15);
    EXPECT_NEAR(m[1][2], sa * cb, 1e-15);
    EXPECT_NEAR(m[2][2], ca * cb, 1e-15);
    EXPECT_NEAR(m[0][1], cb * sc, 1e-15);
    EXPECT_NEAR(m[0][0], cb * cc, 1e-15);
}

TEST(Matrix, RotXTurnsYTowardZ)
{
    Matrix_4x4 m;
    m.rot_x(static_cast<float>(M_PI / 2));
    double p[3] = {0, 1, 0}, q[3];
    map_point(m, p, q);
    EXPECT_NEAR(q[1], 0.0, 1e-7);
    EXPECT_NEAR(q[2], 1.0, 1e-7);
}

TEST(Matrix, ToFloatIsRowByRow)
{
    Matrix_4x4 m;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) m[i][j] = i * 10 + j + 0.5;
    std::array<float, 16> f = m.to_float();
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) EXPECT_EQ(f[i * 4 + j], static_cast<float>(i * 10 + j + 0.5));
}

TEST(Vector, TimesMatrixIsRowVectorProduct)
{
    Matrix_4x4 m;
    m.translate(1, 2, 3);
    Vector_4 point(1, 1, 1, 1), dir(1, 1, 1, 0);
    point *= m;
    dir *= m;
    EXPECT_FLOAT_EQ(point.x, 2);
    EXPECT_FLOAT_EQ(point.z, 4);
    EXPECT_FLOAT_EQ(dir.x, 1); /* a direction ignores the translation */
    Vector_4 n = Vector_4(3, 0, 4, 7).normalise();
    EXPECT_FLOAT_EQ(n.x, 0.6f);
    EXPECT_FLOAT_EQ(n.z, 0.8f);
    EXPECT_FLOAT_EQ(n.w, 7.0f);
    float two = 2;
    n *= two;
    EXPECT_FLOAT_EQ(n.x, 1.2f);
}

TEST(ErrorFct, FormatsNarrowAndWideStringsInBothOverloads)
{
    Trace_Capture cap;
    EXPECT_GT(Error_Fct(hwnd, 5, "a %hs b %ls c %d|%-4d|%02d|%.2f|%x", "nar", L"wide", -3, 7, 5, 1.005, 255u), 0);
    Error_Fct(hwnd, 6, L"a %hs b %ls c %d", "nar", L"wide", 42);
    Error_Fct(hwnd, 7, L"plain %s", L"w");
    Error_Fct(hwnd, 8, "plain %s", "n");
    auto lines = cap.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].flags, 5u);
    EXPECT_EQ(lines[0].text, "a nar b wide c -3|7   |05|1.00|ff");
    EXPECT_EQ(lines[1].text, "a nar b wide c 42");
    EXPECT_EQ(lines[2].text, "plain w");
    EXPECT_EQ(lines[3].text, "plain n");
}

TEST(ErrorFct, DeliversUtf8)
{
    Trace_Capture cap;
    Error_Fct(hwnd, 1, L"\u25BC%ls\u00F1", L"\u25B2");
    Error_Fct(hwnd, 1, "%hs", "caf\xC3\xA9");        /* valid UTF-8 passes through */
    Error_Fct(hwnd, 1, "\xF1" "x");                  /* a lone markup byte is one character */
    auto t = cap.texts();
    ASSERT_EQ(t.size(), 3u);
    EXPECT_EQ(t[0], "\xE2\x96\xBC\xE2\x96\xB2\xC3\xB1");
    EXPECT_EQ(t[1], "caf\xC3\xA9");
    EXPECT_EQ(t[2], "\xC3\xB1x");
}

TEST(ErrorFct, StripsTrailingLineBreakAndKeepsInnerOnes)
{
    Trace_Capture cap;
    Error_Fct(hwnd, 1, "line %-4d of %hs \nmemory error in new\n", 12, "ray_gradient");
    ASSERT_EQ(cap.texts().size(), 1u);
    EXPECT_EQ(cap.texts()[0], "line 12   of ray_gradient \nmemory error in new");
}

static int g_arg_reads = 0;
static const char* counted() { g_arg_reads++; return "x"; }

TEST(ErrorFct, NoSinkNoFormattingNoResult)
{
    Corekit_Set_Trace_Sink(nullptr, nullptr);
    /* a format that would crash if formatted: %ls given a narrow pointer */
    EXPECT_EQ(Error_Fct(hwnd, 1, "%ls %hs", reinterpret_cast<const wchar_t*>(1), counted()), 0);
    EXPECT_EQ(g_arg_reads, 1); /* arguments are evaluated by the caller, nothing else happens */
}

TEST(ErrorFct, CallsFromManyThreadsAreSerialised)
{
    static std::atomic<int> inside{0}, overlap{0}, total{0};
    Corekit_Set_Trace_Sink(
        [](unsigned, const char*, void*) {
            if (inside.fetch_add(1) != 0) overlap++;
            std::this_thread::yield();
            inside.fetch_sub(1);
            total++;
        },
        nullptr);
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; t++)
        ts.emplace_back([] {
            for (int i = 0; i < 500; i++) Error_Fct(hwnd, 1, "%d", i);
        });
    for (auto& t : ts) t.join();
    Corekit_Set_Trace_Sink(nullptr, nullptr);
    EXPECT_EQ(total.load(), 2000);
    EXPECT_EQ(overlap.load(), 0);
}

TEST(Corekit, GenericNameSplitsBothSeparators)
{
    char path[] = "C:\\dir/sub\\libvoxelune.so.1";
    char dir[64], name[64], ext[64];
    Get_Generic_Name(path, dir, name, ext);
    EXPECT_STREQ(dir, "C:\\dir/sub\\");
    EXPECT_STREQ(name, "libvoxelune.so");
    EXPECT_STREQ(ext, ".1");
    char plain[] = "name";
    Get_Generic_Name(plain, nullptr, name, ext);
    EXPECT_STREQ(name, "name");
    EXPECT_STREQ(ext, "");
}

TEST(Corekit, RandomDefaultIsInRangeAndReplaceable)
{
    float lo = 1, hi = -1;
    for (int i = 0; i < 100000; i++) {
        float r = Fct_Random_Float();
        ASSERT_GE(r, -1.0f);
        ASSERT_LT(r, 1.0f);
        lo = std::min(lo, r);
        hi = std::max(hi, r);
    }
    EXPECT_LT(lo, -0.99f);
    EXPECT_GT(hi, 0.99f);
    Corekit_Set_Random([] { return 0.25f; });
    EXPECT_EQ(Fct_Random_Float(), 0.25f);
    Corekit_Set_Random(nullptr);
    EXPECT_NE(Fct_Random_Float(), Fct_Random_Float());
}

TEST(Corekit, DefaultsAndKnobs)
{
    EXPECT_EQ(hwnd, nullptr);
    EXPECT_EQ(Flag_Trace, 0);
    EXPECT_EQ(Cuda_Thread_Block, 256);
    EXPECT_NE(Util_Cuda_Crash, nullptr);
    EXPECT_EQ(Test_Cuda(3, 0), 1);
    Corekit_Set_Cuda_Permission(0);
    EXPECT_EQ(Test_Cuda(3, 0), 0);
    EXPECT_NE(std::wstring(Error_Perror(ENOENT)).find(L"No such file"), std::wstring::npos);
}

TEST(Panelkit, BoxOwnsItsBufferAndDrawCallsHandler)
{
    Boxs box(3, 2);
    ASSERT_NE(box.Graph_Normal, nullptr);
    for (int i = 0; i < 6; i++) EXPECT_EQ(box.Graph_Normal[i], 0u);
    int calls = 0;
    box.draw_context = &calls;
    box.draw_handler = [](Boxs* b, void* c) {
        EXPECT_EQ(b->width, 3);
        (*static_cast<int*>(c))++;
    };
    box.Draw();
    EXPECT_EQ(calls, 1);
    Boxs none;
    none.Draw(); /* no handler: nothing happens */
}

TEST(Panelkit, PopUpMessageUsesHandler)
{
    static std::wstring seen;
    Panelkit_Set_Message_Handler(
        [](const wchar_t* t, const wchar_t* c, const wchar_t* x, void*) {
            seen = std::wstring(t) + L"|" + c + L"|" + x;
            return 7;
        },
        nullptr);
    EXPECT_EQ(PopUp_Message(L"T", L"C", L"X", 1, 2, nullptr), 7);
    EXPECT_EQ(seen, L"T|C|X");
    Panelkit_Set_Message_Handler(nullptr, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(PopUp_Message(L"T", L"C", L"\u00F1X", 1, 2, nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "T\nC\n\xC3\xB1X\n");
}
