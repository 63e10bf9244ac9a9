/*
 * Output side of voxelune-render: pixel words composited over the
 * background, PNG files, file names of frames and levels, the level
 * count of a progressive frame and the checks made before writing.
 */
#include "render_frame.h"
#include "render_png.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

TEST(RenderComposite, MissedAndEmptyRaysShowTheBackground)
{
    EXPECT_EQ(0x336699u, Render_Composite(0x00000000u, 0x336699));  /* missed the volume */
    EXPECT_EQ(0x336699u, Render_Composite(0xFF000000u, 0x336699));  /* crossed, nothing seen */
    EXPECT_EQ(0x000000u, Render_Composite(0xFF000000u, 0x000000));
}

TEST(RenderComposite, ByteTwoIsRedAndTransparencyLetsTheBackgroundThrough)
{
    /* opaque: bytes 2, 1, 0 become R, G, B unchanged */
    EXPECT_EQ(0x102030u, Render_Composite(0x00102030u, 0xFFFFFF));
    /* transparency 51/255 = 0.2 of a white background added to each channel */
    EXPECT_EQ(0x435363u, Render_Composite(0x33102030u, 0xFFFFFF));
    /* only the background's own channels are added, and sums saturate */
    EXPECT_EQ(0xFF2030u, Render_Composite(0xFFF02030u, 0xFF0000));
}

TEST(RenderComposite, WordsBecomeRgbTriples)
{
    const unsigned int words[2] = {0x00AABBCCu, 0};
    unsigned char rgb[6];
    Render_Words_To_Rgb(words, 2, 0x010203, rgb);
    EXPECT_EQ(0xAA, rgb[0]);
    EXPECT_EQ(0xBB, rgb[1]);
    EXPECT_EQ(0xCC, rgb[2]);
    EXPECT_EQ(0x01, rgb[3]);
    EXPECT_EQ(0x03, rgb[5]);
}

TEST(RenderPng, WritesWhatItReadsBack)
{
    Scratch_Dir dir;
    std::vector<unsigned char> rgb(5 * 3 * 3);
    for (size_t i = 0; i < rgb.size(); i++)
        rgb[i] = (unsigned char)(i * 17);
    std::string error;
    ASSERT_EQ(1, Render_Write_Png(dir / "a.png", 5, 3, rgb.data(), &error)) << error;
    int w = 0, h = 0;
    std::vector<unsigned char> back;
    ASSERT_EQ(1, Render_Read_Png(dir / "a.png", &w, &h, &back, &error)) << error;
    EXPECT_EQ(5, w);
    EXPECT_EQ(3, h);
    EXPECT_EQ(rgb, back);
}

TEST(RenderPng, AFailedWriteLeavesNoFile)
{
    Scratch_Dir dir;
    unsigned char rgb[3] = {};
    std::string error;
    EXPECT_EQ(0, Render_Write_Png(dir / "missing/a.png", 1, 1, rgb, &error));
    EXPECT_TRUE(List_Dir(dir.path).empty());
    int w, h;
    std::vector<unsigned char> back;
    Write_Bytes(dir / "b.png", "not a png", 9);
    EXPECT_EQ(0, Render_Read_Png(dir / "b.png", &w, &h, &back, &error));
}

TEST(RenderLevels, OneLevelPerFourfoldPixelCount)
{
    EXPECT_EQ(1, Render_Level_Count(1, 1));
    EXPECT_EQ(1, Render_Level_Count(60, 60));     /* 3600 */
    EXPECT_EQ(1, Render_Level_Count(3999, 1));
    EXPECT_EQ(2, Render_Level_Count(200, 20));    /* 4000 */
    EXPECT_EQ(2, Render_Level_Count(100, 100));
    EXPECT_EQ(3, Render_Level_Count(160, 100));   /* 16000 */
    EXPECT_EQ(5, Render_Level_Count(640, 480));
    EXPECT_EQ(5, Render_Level_Count(1000, 300));
    EXPECT_EQ(5, Render_Level_Count(512, 512));
    EXPECT_EQ(6, Render_Level_Count(1280, 800));  /* 1024000 */
    EXPECT_EQ(9, Render_Level_Count(8192, 8192));  /* 67108864 */
}

TEST(RenderNames, FramesCarryTheirIndexBeforeTheExtension)
{
    EXPECT_EQ("out/v.png", Render_Frame_Name("out/v.png", 0, 1));
    EXPECT_EQ("out/v_007.png", Render_Frame_Name("out/v.png", 7, 12));
    EXPECT_EQ("a.b/v_000", Render_Frame_Name("a.b/v", 0, 2));
    EXPECT_EQ(".hidden_001", Render_Frame_Name(".hidden", 1, 2));
    EXPECT_EQ("v_0999.png", Render_Frame_Name("v.png", 999, 1001));
    EXPECT_EQ("v_999.png", Render_Frame_Name("v.png", 999, 1000));
}

TEST(RenderNames, LevelImagesGoIntoTheirDirectory)
{
    EXPECT_EQ("p/v_level2.png", Render_Level_Name("p", "out/v.png", 0, 1, 2));
    EXPECT_EQ("p/v_003_level1.png", Render_Level_Name("p/", "v.png", 3, 10, 1));
}

TEST(RenderOutputs, EveryTargetIsCheckedBeforeWriting)
{
    Scratch_Dir dir;
    Render_Options opt;
    std::string error;
    opt.output = dir / "a.png";
    EXPECT_EQ(1, Render_Check_Outputs(opt, &error)) << error;

    opt.output = dir / "no/a.png";
    EXPECT_EQ(0, Render_Check_Outputs(opt, &error));
    EXPECT_NE(std::string::npos, error.find("does not exist")) << error;

    /* an output that is a directory, also as one frame of a turntable */
    opt.output = dir.path;
    EXPECT_EQ(0, Render_Check_Outputs(opt, &error));
    mkdir((dir / "t_001.png").c_str(), 0777);
    opt.output = dir / "t.png";
    opt.turntable = 3;
    EXPECT_EQ(0, Render_Check_Outputs(opt, &error));
    opt.turntable = 0;

    opt.progressive_dir = dir / "new";  /* created later: its parent exists */
    EXPECT_EQ(1, Render_Check_Outputs(opt, &error)) << error;
    opt.progressive_dir = dir / "no/new";
    EXPECT_EQ(0, Render_Check_Outputs(opt, &error));
    opt.progressive_dir = dir / "a.txt";
    Write_Bytes(opt.progressive_dir, "x", 1);
    EXPECT_EQ(0, Render_Check_Outputs(opt, &error));
    EXPECT_FALSE(File_Exists(dir / "new"));
}
