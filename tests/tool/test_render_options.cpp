/*
 * Option parsing of voxelune-render: defaults, every value form, and the
 * refusals that must happen before any file is read or written.
 */
#include "render_options.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

/* Parses "voxelune-render <args>"; returns the parser's result. */
static int parse(std::initializer_list<const char*> args, Render_Options* opt, std::string* error)
{
    std::vector<const char*> argv = {"voxelune-render"};
    argv.insert(argv.end(), args.begin(), args.end());
    return Render_Parse_Options((int)argv.size(), argv.data(), opt, error);
}

/* Expects the arguments to be refused; returns the message. */
static std::string refused(std::initializer_list<const char*> args)
{
    Render_Options opt;
    std::string error;
    EXPECT_EQ(0, parse(args, &opt, &error));
    EXPECT_FALSE(error.empty());
    return error;
}

static Render_Options accepted(std::initializer_list<const char*> args)
{
    Render_Options opt;
    std::string error;
    EXPECT_EQ(1, parse(args, &opt, &error)) << error;
    return opt;
}

TEST(RenderOptions, NoArgumentsRendersThePhantomToVoxelunePng)
{
    Render_Options opt = accepted({});
    EXPECT_TRUE(opt.input.empty());
    EXPECT_EQ("voxelune.png", opt.output);
    EXPECT_EQ(512, opt.width);
    EXPECT_EQ(512, opt.height);
    EXPECT_EQ(128, opt.phantom_size);
    EXPECT_EQ(RENDER_DEVICE_AUTO, opt.device);
    EXPECT_FALSE(opt.window_set);
}

TEST(RenderOptions, ValuesTakeBothSeparateAndInlineForms)
{
    Render_Options opt = accepted({"--size=640x480", "-o", "out.png", "vol.nii", "--workers", "3"});
    EXPECT_EQ(640, opt.width);
    EXPECT_EQ(480, opt.height);
    EXPECT_EQ("out.png", opt.output);
    EXPECT_EQ("vol.nii", opt.input);
    EXPECT_EQ(3, opt.workers);
    EXPECT_EQ(200, accepted({"--size", "200"}).height);
}

TEST(RenderOptions, SizeOfZeroOrOutOfRangeIsRefused)
{
    for (const char* v : {"0", "0x10", "10x0", "8193", "3x", "x3", "-4", "4x4x4", "", "12a"})
        EXPECT_NE(std::string::npos, refused({"--size", v}).find("--size")) << v;
}

TEST(RenderOptions, WindowWithEqualEndsIsRefusedAndNegativeEndsParse)
{
    EXPECT_NE(std::string::npos, refused({"--window", "5:5"}).find("equal"));
    EXPECT_NE(std::string::npos, refused({"--window", "0.5,0.5"}).find("equal"));
    refused({"--window", "1"});
    refused({"--window", "a:b"});
    refused({"--window", "1:inf"});
    Render_Options opt = accepted({"--window", "-1000:3000"});
    EXPECT_TRUE(opt.window_set);
    EXPECT_EQ(-1000.0, opt.window_low);
    EXPECT_EQ(3000.0, opt.window_high);
    opt = accepted({"--window=300,-100"});  /* inverted: allowed */
    EXPECT_EQ(300.0, opt.window_low);
}

TEST(RenderOptions, UnknownOptionsMissingValuesAndStrayValuesAreRefused)
{
    EXPECT_NE(std::string::npos, refused({"--colour", "1"}).find("unknown option"));
    EXPECT_NE(std::string::npos, refused({"--threshold"}).find("needs a value"));
    EXPECT_NE(std::string::npos, refused({"--cpu=1"}).find("takes no value"));
    EXPECT_NE(std::string::npos, refused({"a.nii", "b.nii"}).find("only one"));
    refused({"--cpu", "--gpu"});
}

TEST(RenderOptions, RawLayoutIsParsedAndChecked)
{
    Render_Options opt = accepted({"--raw", "64x32x16:u16", "--endian", "big", "--offset", "352",
                                   "data.img"});
    EXPECT_TRUE(opt.raw);
    EXPECT_EQ(64, opt.raw_layout.dim[0]);
    EXPECT_EQ(32, opt.raw_layout.dim[1]);
    EXPECT_EQ(16, opt.raw_layout.dim[2]);
    EXPECT_EQ(VOXEL_U16, opt.raw_layout.type);
    EXPECT_TRUE(opt.raw_layout.big_endian);
    EXPECT_EQ(352, opt.raw_layout.offset);

    refused({"--raw", "64x32:u16", "a"});
    refused({"--raw", "0x4x4:u8", "a"});
    refused({"--raw", "4x4x4:u12", "a"});
    refused({"--raw", "4x4x4", "a"});
    refused({"--raw", "2000x2000x2000:u8", "a"});  /* above 2^31-1 voxels */
    refused({"--raw", "4x4x4:u8"});                /* no input */
    refused({"--endian", "middle"});
    refused({"--offset", "8", "a.nii"});            /* not raw */
    refused({"--offset", "-1", "--raw", "1x1x1:u8", "a"});
}

TEST(RenderOptions, TagColoursAndMaps)
{
    Render_Options opt = accepted({"--tag-color", "3=FF8000", "--map", "2:1,3-5,4", "--map", "7:9"});
    ASSERT_EQ(1u, opt.tag_colors.size());
    EXPECT_EQ(3, opt.tag_colors[0].first);
    EXPECT_EQ(0xFF8000u, opt.tag_colors[0].second);
    ASSERT_EQ(2u, opt.maps.size());
    EXPECT_EQ(2, opt.maps[0].color_index);
    EXPECT_EQ((std::vector<unsigned char>{1, 3, 4, 5}), opt.maps[0].values);  /* 4 once */
    EXPECT_EQ(7, opt.maps[1].color_index);

    refused({"--tag-color", "256=000000"});
    refused({"--tag-color", "3=GG0000"});
    refused({"--tag-color", "3=FFF"});
    EXPECT_EQ(0x00FF00u, accepted({"--tag-color", "9=#00ff00"}).tag_colors[0].second);
    refused({"--map", "2:5-3"});
    refused({"--map", "2:"});
    refused({"--map", "256:1"});
    refused({"--map", "0:0-255"});  /* 256 values: a map counts them in a byte */
}

TEST(RenderOptions, LightsNeedADirectionExceptTheAmbientOne)
{
    Render_Options opt = accepted({"--light", "0:404040", "--light", "2:FFFFFF:0,0,1",
                                   "--light", "1:off"});
    EXPECT_TRUE(opt.lights[0].on);
    EXPECT_EQ(0x404040u, opt.lights[0].color);
    EXPECT_TRUE(opt.lights[2].on);
    EXPECT_EQ(1.0f, opt.lights[2].dir[2]);
    EXPECT_TRUE(opt.lights[1].set);
    EXPECT_FALSE(opt.lights[1].on);
    EXPECT_FALSE(opt.lights[3].set);

    refused({"--light", "1:FFFFFF"});
    refused({"--light", "5:off"});
    refused({"--light", "1:FFFFFF:0,0,0"});
    refused({"--light", "1:FFFFFF:1,2"});
}

TEST(RenderOptions, ClipValuesAreFractions)
{
    Render_Options opt = accepted({"--clip-box", "0,1,0.25,0.75,0.5,1", "--depth-clip", "0.3"});
    EXPECT_TRUE(opt.clip_box_set);
    EXPECT_EQ(0.25f, opt.clip_box[2]);
    EXPECT_EQ(0.3f, opt.depth_clip);
    refused({"--clip-box", "0.5,0.4,0,1,0,1"});
    refused({"--clip-box", "0,1.2,0,1,0,1"});
    refused({"--clip-box", "0,1,0,1,0"});
    refused({"--depth-clip", "1.5"});
    refused({"--depth-clip", "-0.1"});
}

TEST(RenderOptions, NumbersOutOfRangeAreRefused)
{
    refused({"--workers", "0"});
    refused({"--workers", "65"});
    EXPECT_EQ(64, accepted({"--workers", "64"}).workers);
    refused({"--turntable", "0"});
    refused({"--zoom", "0"});
    refused({"--zoom", "11"});
    EXPECT_EQ(2.5f, accepted({"--zoom", "2.5"}).zoom);
    refused({"--threshold", "nan"});
    refused({"--threshold", "1e39"});
    refused({"--threshold", "0.5x"});
    refused({"--timeout", "0"});
    refused({"--phantom-size", "7"});
    refused({"--background", "12345"});
    refused({"--view", "10,20"});
    refused({"--scheme", "5"});
    EXPECT_EQ(4, accepted({"--scheme", "mixed"}).scheme);
    EXPECT_EQ(2, accepted({"--scheme", "2"}).scheme);
}

TEST(RenderOptions, TagsNeedAnInputVolume)
{
    refused({"--tags", "labels.nii"});
    EXPECT_EQ("labels.nii", accepted({"--tags", "labels.nii", "grey.nii"}).tags);
}

TEST(RenderOptions, HelpDocumentsEveryOption)
{
    Render_Options opt = accepted({"--output", "x.png", "--help"});
    EXPECT_TRUE(opt.help);
    std::string help = Render_Help_Text();
    for (const char* name :
         {"--input", "--raw", "--endian", "--offset", "--tags", "--tag-type", "--window",
          "--phantom-size", "--output", "--size", "--background", "--progressive", "--view",
          "--turntable", "--zoom", "--threshold", "--scheme", "--tag-color", "--map", "--light",
          "--clip-box", "--depth-clip", "--no-jitter", "--workers", "--cpu", "--gpu",
          "--timeout", "--timing", "--trace", "--quiet", "--help"})
        EXPECT_NE(std::string::npos, help.find(name)) << name;
}
