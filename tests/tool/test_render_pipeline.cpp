/*
 * voxelune-render from end to end: small volumes rendered by the
 * library's CPU pipeline into PNG files that decode to the asked size
 * and show a volume, not a blank or uniform image.
 */
#include "render_png.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <set>

struct Decoded {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
    unsigned int at(int x, int y) const
    {
        size_t i = 3 * ((size_t)y * width + x);
        return (unsigned)rgb[i] << 16 | (unsigned)rgb[i + 1] << 8 | rgb[i + 2];
    }
};

static Decoded decode(const std::string& path)
{
    Decoded d;
    std::string error;
    EXPECT_EQ(1, Render_Read_Png(path, &d.width, &d.height, &d.rgb, &error)) << error;
    return d;
}

/* Pixels that differ from the background, and the number of distinct colours. */
static void census(const Decoded& d, unsigned int background, int* foreground, size_t* colours)
{
    std::set<unsigned int> seen;
    *foreground = 0;
    for (int y = 0; y < d.height; y++)
        for (int x = 0; x < d.width; x++) {
            unsigned int c = d.at(x, y);
            seen.insert(c);
            if (c != background)
                (*foreground)++;
        }
    *colours = seen.size();
}

/* Common options: a small phantom, few workers, no jitter, no progress line. */
static std::vector<std::string> small(std::vector<std::string> more)
{
    std::vector<std::string> args = {"--phantom-size", "32", "--workers", "2", "--no-jitter"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

TEST(RenderPipeline, PhantomRendersToAPngOfTheAskedSize)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool(small({"--size", "96x64", "-o", "p.png"}), dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("wrote p.png (96x64)")) << r.out;
    /* 96 x 64 = 6144 pixels: two levels, the frame time at the end */
    EXPECT_NE(std::string::npos, r.err.find("level 2 of 2")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("done in")) << r.err;

    Decoded d = decode(dir / "p.png");
    ASSERT_EQ(96, d.width);
    ASSERT_EQ(64, d.height);
    int foreground;
    size_t colours;
    census(d, 0x000000, &foreground, &colours);
    EXPECT_GT(foreground, 96 * 64 / 10) << "the volume covers too little of the image";
    EXPECT_LT(foreground, 96 * 64) << "no background left around the volume";
    EXPECT_GT(colours, 20u) << "a shaded volume shows many colours";
    /* the corners look past the phantom's shell */
    EXPECT_EQ(0x000000u, d.at(0, 0));
    EXPECT_EQ(0x000000u, d.at(95, 63));
}

TEST(RenderPipeline, BackgroundColourFillsMissedRays)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool(small({"--size", "40", "--background", "2040FF", "--quiet"}), dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;  /* --quiet */
    Decoded d = decode(dir / "voxelune.png");  /* the default name */
    ASSERT_EQ(40, d.width);
    EXPECT_EQ(0x2040FFu, d.at(0, 0));
    int foreground;
    size_t colours;
    census(d, 0x2040FF, &foreground, &colours);
    EXPECT_GT(foreground, 100);
}

TEST(RenderPipeline, ProgressiveWritesOneImagePerLevel)
{
    Scratch_Dir dir;
    /* 128 x 128 = 16384 pixels: three levels */
    Tool_Result r = Run_Tool(small({"--size", "128", "--progressive", "levels", "--timing"}),
                             dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    for (int k = 1; k <= 3; k++)
        EXPECT_NE(std::string::npos, r.err.find("level " + std::to_string(k) + " of 3")) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("timing: frame 0")) << r.out;
    Decoded first = decode(dir / "levels/voxelune_level1.png");
    Decoded last = decode(dir / "levels/voxelune_level3.png");
    Decoded final_image = decode(dir / "voxelune.png");
    ASSERT_EQ(128, first.width);
    ASSERT_EQ(128, first.height);
    EXPECT_TRUE(File_Exists(dir / "levels/voxelune_level2.png"));
    EXPECT_FALSE(File_Exists(dir / "levels/voxelune_level4.png"));
    EXPECT_EQ(final_image.rgb, last.rgb) << "the last level is the finished frame";
    /*
     * The first level is a complete coarse image (the workers may already
     * have refined parts of it when it was copied, so no finer test holds).
     */
    int foreground;
    size_t colours;
    census(first, 0x000000, &foreground, &colours);
    EXPECT_GT(foreground, 128 * 128 / 10);
}

TEST(RenderPipeline, TurntableWritesNumberedFramesThatDiffer)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool(small({"--size", "48", "--turntable", "3", "-o", "t.png"}), dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    Decoded f0 = decode(dir / "t_000.png");
    Decoded f1 = decode(dir / "t_001.png");
    Decoded f2 = decode(dir / "t_002.png");
    EXPECT_FALSE(File_Exists(dir / "t.png"));
    ASSERT_EQ(48, f2.height);
    EXPECT_NE(f0.rgb, f1.rgb);
    EXPECT_NE(f1.rgb, f2.rgb);
}

TEST(RenderPipeline, RawVolumeWithTagsAndColours)
{
    Scratch_Dir dir;
    /* a 24^3 ball of grey 200 in a 0 background; its left half tagged 3 */
    const int n = 24;
    std::vector<uint8_t> grey(n * n * n), tags(n * n * n);
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                float dx = x + 0.5f - n / 2.0f, dy = y + 0.5f - n / 2.0f, dz = z + 0.5f - n / 2.0f;
                bool in = dx * dx + dy * dy + dz * dz < 8.0f * 8.0f;
                grey[(z * n + y) * n + x] = in ? 200 : 0;
                tags[(z * n + y) * n + x] = in && x < n / 2 ? 3 : 0;
            }
    Write_Bytes(dir / "ball.raw", grey.data(), grey.size());
    Write_Bytes(dir / "ball.tag", tags.data(), tags.size());
    Tool_Result r = Run_Tool({"--raw", "24x24x24:u8", "ball.raw", "--tags", "ball.tag",
                              "--tag-color", "3=FF0000", "--view", "0,0,0", "--size", "64",
                              "--workers", "2", "--no-jitter", "--light", "0:FFFFFF",
                              "--light", "1:off", "--light", "2:off", "-o", "ball.png"},
                             dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    Decoded d = decode(dir / "ball.png");
    ASSERT_EQ(64, d.width);
    /* with a white ambient light alone: the tagged half is red, the other white-grey */
    unsigned int left = d.at(26, 32), right = d.at(38, 32);
    EXPECT_GT(left >> 16 & 0xFF, 100u) << std::hex << left;
    EXPECT_LT(left >> 8 & 0xFF, 40u) << std::hex << left;
    EXPECT_GT(right >> 8 & 0xFF, 100u) << std::hex << right;
    EXPECT_EQ(0u, d.at(2, 2));
}

TEST(RenderPipeline, ClipBoxOpensTheVolume)
{
    Scratch_Dir dir;
    Tool_Result full = Run_Tool(small({"--size", "48", "-o", "a.png"}), dir.path);
    Tool_Result clipped = Run_Tool(small({"--size", "48", "-o", "b.png", "--clip-box",
                                          "0,0.5,0,1,0,1", "--depth-clip", "0.2"}), dir.path);
    ASSERT_EQ(0, full.status) << full.err;
    ASSERT_EQ(0, clipped.status) << clipped.err;
    EXPECT_NE(decode(dir / "a.png").rgb, decode(dir / "b.png").rgb);
}

TEST(RenderPipeline, TraceSendsLibraryLinesToStandardError)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool(small({"--size", "16", "--trace", "--cpu"}), dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find(">>> in  Voxelune: Ray_Init()")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("<<< out Voxelune: Ray_Exit(done)")) << r.err;
}

TEST(RenderPipeline, WithoutJitterTwoRunsGiveTheSameImage)
{
    Scratch_Dir dir;
    ASSERT_EQ(0, Run_Tool(small({"--size", "40", "-o", "a.png"}), dir.path).status);
    ASSERT_EQ(0, Run_Tool(small({"--size", "40", "-o", "b.png", "--workers", "1"}), dir.path).status);
    EXPECT_EQ(decode(dir / "a.png").rgb, decode(dir / "b.png").rgb);
}

TEST(RenderPipeline, AFrameThatMissesItsTimeoutFailsWithoutAnImage)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool({"--phantom-size", "64", "--size", "1024", "--workers", "1",
                              "--timeout", "0.001"}, dir.path);
    EXPECT_EQ(1, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("did not finish")) << r.err;
    EXPECT_TRUE(List_Dir(dir.path).empty());
}

TEST(RenderPipeline, GpuRequestRendersOnTheDeviceOrWarnsAndFallsBack)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool(small({"--size", "32", "--gpu"}), dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    bool on_gpu = r.err.find("rendered on the GPU") != std::string::npos;
    bool warned = r.err.find("rendering on the CPU") != std::string::npos;
    EXPECT_NE(on_gpu, warned) << r.err;
    EXPECT_EQ(32, decode(dir / "voxelune.png").width);
}
