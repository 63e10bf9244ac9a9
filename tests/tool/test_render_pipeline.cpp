/*
 * voxelune-render from end to end: small volumes rendered by the
 * library's CPU pipeline into PNG files that decode to the asked size
 * and show a volume, not a blank or uniform image.
 */
#include "render_png.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <set>

struct Decoded {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
    unsigned int at(int x, int y) const
    {
        size_t i = 3 * ((size_t)y * width + x);
        return (unsigned)rgb[i] << 16 | (unsigned)rgb[i + 1] << 8 | rgb[i + 2];
    }
    /* pixels other than the background, and the number of distinct colours */
    std::pair<int, size_t> census(unsigned int background) const
    {
        std::set<unsigned int> seen;
        int foreground = 0;
        for (int y = 0; y < height; y++)
            for (int x = 0; x < width; x++) {
                seen.insert(at(x, y));
                foreground += at(x, y) != background;
            }
        return {foreground, seen.size()};
    }
};

static Decoded decode(const std::string& path)
{
    Decoded d;
    std::string error;
    EXPECT_EQ(1, Render_Read_Png(path, &d.width, &d.height, &d.rgb, &error)) << error;
    return d;
}

/* A small phantom, two workers, no jitter, and the given options. */
static Tool_Result run_small(std::vector<std::string> more, const Scratch_Dir& dir)
{
    std::vector<std::string> args = {"--phantom-size", "32", "--workers", "2", "--no-jitter"};
    args.insert(args.end(), more.begin(), more.end());
    return Run_Tool(args, dir.path);
}

TEST(RenderPipeline, PhantomRendersToAPngOfTheAskedSize)
{
    Scratch_Dir dir;
    Tool_Result help = Run_Tool({"--help"}, dir.path);
    EXPECT_EQ(0, help.status);
    EXPECT_NE(std::string::npos, help.out.find("Usage: voxelune-render"));
    Tool_Result r = run_small({"--size", "96x64", "--background", "2040FF"}, dir);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("wrote voxelune.png (96x64)")) << r.out;
    /* 96 x 64 = 6144 pixels: two levels, the frame time at the end */
    EXPECT_NE(std::string::npos, r.err.find("level 2 of 2")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("done in")) << r.err;
    Decoded d = decode(dir / "voxelune.png");
    ASSERT_EQ(96, d.width);
    ASSERT_EQ(64, d.height);
    auto seen = d.census(0x2040FF);
    EXPECT_GT(seen.first, 96 * 64 / 10) << "the volume covers too little of the image";
    EXPECT_LT(seen.first, 96 * 64) << "no background left around the volume";
    EXPECT_GT(seen.second, 20u) << "a shaded volume shows many colours";
    EXPECT_EQ(0x2040FFu, d.at(0, 0));
    EXPECT_EQ(1u, List_Dir(dir.path).size());
}

TEST(RenderPipeline, ProgressiveLevelsAndTurntableFrames)
{
    Scratch_Dir dir;
    /* 128 x 128 = 16384 pixels: three levels */
    Tool_Result r = run_small({"--size", "128", "--progressive", "lv", "--timing", "--quiet",
                               "--turntable", "2", "-o", "t.png"}, dir);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("timing: frame 1")) << r.out;
    EXPECT_EQ(6u, List_Dir(dir / "lv").size());
    Decoded first = decode(dir / "lv/t_000_level1.png");
    Decoded last = decode(dir / "lv/t_001_level3.png");
    Decoded f0 = decode(dir / "t_000.png"), f1 = decode(dir / "t_001.png");
    ASSERT_EQ(128, first.height);
    EXPECT_EQ(f1.rgb, last.rgb) << "the last level is the finished frame";
    EXPECT_NE(f0.rgb, f1.rgb) << "the frames turn";
    /* the first level is a complete coarse image; workers may have refined parts of it */
    EXPECT_GT(first.census(0).first, 128 * 128 / 10);
}

TEST(RenderPipeline, RawVolumeWithTagsAndColours)
{
    Scratch_Dir dir;
    /* a 24^3 ball of grey 200 in a 0 background; its left half tagged 3 */
    const int n = 24;
    std::string grey(n * n * n, '\0'), tags(n * n * n, '\0');
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++) {
                float dx = x + 0.5f - n / 2.0f, dy = y + 0.5f - n / 2.0f, dz = z + 0.5f - n / 2.0f;
                bool in = dx * dx + dy * dy + dz * dz < 8.0f * 8.0f;
                grey[(z * n + y) * n + x] = in ? (char)200 : 0;
                tags[(z * n + y) * n + x] = in && x < n / 2 ? 3 : 0;
            }
    Write_Bytes(dir / "ball.raw", grey);
    Write_Bytes(dir / "ball.tag", tags);
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

TEST(RenderPipeline, SameImageWithoutJitterAndClippingChangesIt)
{
    Scratch_Dir dir;
    ASSERT_EQ(0, run_small({"--size", "40", "-o", "a.png"}, dir).status);
    ASSERT_EQ(0, run_small({"--size", "40", "-o", "b.png", "--workers", "1"}, dir).status);
    ASSERT_EQ(0, run_small({"--size", "40", "-o", "c.png", "--clip-box", "0,0.5,0,1,0,1",
                            "--depth-clip", "0.2"}, dir).status);
    EXPECT_EQ(decode(dir / "a.png").rgb, decode(dir / "b.png").rgb);
    EXPECT_NE(decode(dir / "a.png").rgb, decode(dir / "c.png").rgb);
}

TEST(RenderPipeline, TraceGpuRequestAndTimeout)
{
    Scratch_Dir dir;
    Tool_Result r = run_small({"--size", "32", "--gpu", "--trace"}, dir);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find(">>> in  Voxelune: Ray_Init()")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("<<< out Voxelune: Ray_Exit(done)")) << r.err;
    bool on_gpu = r.err.find("rendered on the GPU") != std::string::npos;
    bool warned = r.err.find("rendering on the CPU") != std::string::npos;
    EXPECT_NE(on_gpu, warned) << r.err;

    Scratch_Dir late;
    r = Run_Tool({"--phantom-size", "64", "--size", "1024", "--workers", "1", "--timeout", "0.001",
                  "--cpu"}, late.path);
    EXPECT_EQ(1, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("did not finish within 0.001 s")) << r.err;
    EXPECT_TRUE(List_Dir(late.path).empty());
}
