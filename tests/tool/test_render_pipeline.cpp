/* voxelune-render from end to end: small volumes rendered into PNG files that decode to the asked
 * size and show a volume, not a blank or uniform image. */
#include "render_png.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <set>

struct Image {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;
    explicit Image(const std::string& path)
    {
        std::string error;
        EXPECT_EQ(1, Render_Read_Png(path, &width, &height, &rgb, &error)) << error;
    }
    unsigned int at(int i) const { return rgb[3 * i] << 16 | rgb[3 * i + 1] << 8 | rgb[3 * i + 2]; }
    unsigned int at(int x, int y) const { return at(y * width + x); }
    int foreground(unsigned int background) const
    {
        int n = 0;
        for (int i = 0; i < width * height; i++) n += at(i) != background;
        return n;
    }
};

/* A small phantom, two workers, no jitter, and the given options. */
static Tool_Result run_small(std::vector<std::string> more, const Scratch_Dir& dir)
{
    std::vector<std::string> args = {"--phantom-size", "32", "--workers", "2", "--no-jitter"};
    args.insert(args.end(), more.begin(), more.end());
    return Run_Tool(args, dir.path);
}

TEST(RenderPipeline, PhantomRendersToAPngOfTheAskedSizeOrFailsInTime)
{
    Scratch_Dir dir;
    Tool_Result r = run_small({"--size", "96x64", "--background", "2040FF"}, dir);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("wrote voxelune.png (96x64)")) << r.out;
    /* 96 x 64 = 6144 pixels: two levels; 128 x 128 below: three */
    EXPECT_NE(std::string::npos, r.err.find("level 2 of 2")) << r.err;
    Image d(dir / "voxelune.png");
    ASSERT_TRUE(d.width == 96 && d.height == 64);
    EXPECT_GT(d.foreground(0x2040FF), 96 * 64 / 10) << "the volume covers too little of the image";
    std::set<unsigned int> colours;
    for (int i = 0; i < 96 * 64; i++) colours.insert(d.at(i));
    EXPECT_GT(colours.size(), 20u) << "a shaded volume shows many colours";
    EXPECT_EQ(0x2040FFu, d.at(0, 0));
    EXPECT_EQ(1u, List_Dir(dir.path).size());
    Scratch_Dir late;
    r = Run_Tool({"--size", "1024", "--workers", "1", "--timeout", "0.001"}, late.path);
    EXPECT_EQ(1, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("did not finish within 0.001 s")) << r.err;
    EXPECT_TRUE(List_Dir(late.path).empty());
}

TEST(RenderPipeline, ProgressiveLevelsTurntableFramesAndClipping)
{
    Scratch_Dir dir;
    Tool_Result r = run_small({"--size", "128", "--progressive", "lv", "--timing", "--quiet",
                               "--turntable", "2", "-o", "t.png"}, dir);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(r.err.empty()) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("timing: frame 1")) << r.out;
    EXPECT_EQ(6u, List_Dir(dir / "lv").size());
    Image first(dir / "lv/t_000_level1.png"), last(dir / "lv/t_001_level3.png");
    Image f0(dir / "t_000.png"), f1(dir / "t_001.png");
    ASSERT_EQ(128, first.height);
    EXPECT_EQ(f1.rgb, last.rgb) << "the last level is the finished frame";
    EXPECT_NE(f0.rgb, f1.rgb) << "the frames turn";
    /* the first level is a complete coarse image; workers may have refined parts of it */
    EXPECT_GT(first.foreground(0), 128 * 128 / 10);
    /* without jitter the image does not depend on the workers; clipping changes it */
    ASSERT_EQ(0, run_small({"--size", "128", "-o", "a.png", "--workers", "1"}, dir).status);
    ASSERT_EQ(0, run_small({"--size", "128", "-o", "c.png", "--clip-box", "0,0.5,0,1,0,1",
                            "--depth-clip", "0.2"}, dir).status);
    EXPECT_EQ(f0.rgb, Image(dir / "a.png").rgb);
    EXPECT_NE(f0.rgb, Image(dir / "c.png").rgb);
}

TEST(RenderPipeline, RawVolumeWithTagsAndColoursOnTheAskedDevice)
{
    Scratch_Dir dir;
    /* a 24^3 ball of grey 200 in a 0 background; its left half tagged 3 */
    const int n = 24;
    std::string grey(n * n * n, '\0'), tags(n * n * n, '\0');
    for (int i = 0; i < n * n * n; i++) {
        float x = i % n + 0.5f - n / 2.0f, y = i / n % n + 0.5f - n / 2.0f, z = i / (n * n) + 0.5f - n / 2.0f;
        bool in = x * x + y * y + z * z < 8.0f * 8.0f;
        grey[i] = in ? (char)200 : 0;
        tags[i] = in && x < 0 ? 3 : 0;
    }
    Write_Bytes(dir / "ball.raw", grey), Write_Bytes(dir / "ball.tag", tags);
    Tool_Result r = Run_Tool({"--raw", "24x24x24:u8", "ball.raw", "--tags", "ball.tag",
                              "--tag-color", "3=FF0000", "--view", "0,0,0", "--size", "64",
                              "--workers", "2", "--no-jitter", "--light", "0:FFFFFF",
                              "--light", "1:off", "--light", "2:off", "-o", "ball.png", "--gpu", "--trace"},
                             dir.path);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(r.err.find(">>> in  Voxelune: Ray_Init()") != std::string::npos &&
                r.err.find("<<< out Voxelune: Ray_Exit(done)") != std::string::npos) << r.err;
    bool on_gpu = r.err.find("rendered on the GPU") != std::string::npos;
    EXPECT_NE(on_gpu, r.err.find("rendering on the CPU") != std::string::npos) << r.err;
    Image d(dir / "ball.png");
    ASSERT_EQ(64, d.width);
    /* with a white ambient light alone: the tagged half is red, the other white-grey */
    unsigned int left = d.at(26, 32), right = d.at(38, 32);
    EXPECT_TRUE((left >> 16 & 0xFF) > 100u && (left >> 8 & 0xFF) < 40u) << std::hex << left;
    EXPECT_TRUE((right >> 8 & 0xFF) > 100u && d.at(2, 2) == 0u) << std::hex << right;
}

