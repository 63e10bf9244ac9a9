/*
 * voxelune-render's pieces in process: the option parser, pixel
 * compositing, file names, the grey-level window, tags, raw element
 * types and the phantom.
 */
#include "render_frame.h"
#include "render_options.h"
#include "render_png.h"
#include "render_volume.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

static int parse(const std::vector<const char*>& args, Render_Options* opt, std::string* error)
{
    std::vector<const char*> argv = {"voxelune-render"};
    argv.insert(argv.end(), args.begin(), args.end());
    return Render_Parse_Options((int)argv.size(), argv.data(), opt, error);
}

TEST(RenderOptions, BadValuesAreRefusedNamingTheProblem)
{
    /* message: a part of the error line; null means the option's own name */
    const struct { std::vector<const char*> args; const char* message; } cases[] = {
        {{"--size", "0"}, nullptr}, {{"--size", "10x0"}, nullptr}, {{"--size", "8193"}, nullptr},
        {{"--size", "4x4x4"}, nullptr}, {{"--size", "12a"}, nullptr},
        {{"--window", "5:5"}, "equal"}, {{"--window", "1"}, nullptr}, {{"--window", "1:inf"}, nullptr},
        {{"--colour", "1"}, "unknown option"}, {{"--threshold"}, "needs a value"},
        {{"--cpu=1"}, "takes no value"}, {{"a.nii", "b.nii"}, "only one"},
        {{"--cpu", "--gpu"}, "--cpu and --gpu exclude each other"},
        {{"--raw", "64x32:u16", "a"}, nullptr}, {{"--raw", "0x4x4:u8", "a"}, nullptr},
        {{"--raw", "4x4x4:u12", "a"}, nullptr}, {{"--raw", "2000x2000x2000:u8", "a"}, nullptr},
        {{"--raw", "4x4x4:u8"}, "needs an input"}, {{"--endian", "middle"}, nullptr},
        {{"--offset", "8", "a.nii"}, "only to a raw"}, {{"--offset", "-1"}, nullptr},
        {{"--tag-color", "256=000000"}, nullptr}, {{"--tag-color", "3=GG0000"}, nullptr},
        {{"--map", "2:5-3"}, nullptr}, {{"--map", "2:"}, nullptr}, {{"--map", "0:0-255"}, nullptr},
        {{"--light", "1:FFFFFF"}, nullptr}, {{"--light", "5:off"}, nullptr},
        {{"--light", "1:FFFFFF:0,0,0"}, nullptr}, {{"--clip-box", "0.5,0.4,0,1,0,1"}, nullptr},
        {{"--clip-box", "0,1.2,0,1,0,1"}, nullptr}, {{"--depth-clip", "1.5"}, nullptr},
        {{"--workers", "0"}, nullptr}, {{"--workers", "65"}, nullptr}, {{"--turntable", "0"}, nullptr},
        {{"--zoom", "11"}, nullptr}, {{"--threshold", "nan"}, nullptr}, {{"--threshold", "1e39"}, nullptr},
        {{"--timeout", "0"}, nullptr}, {{"--phantom-size", "7"}, nullptr},
        {{"--background", "12345"}, nullptr}, {{"--view", "10,20"}, nullptr}, {{"--scheme", "5"}, nullptr},
        {{"--tags", "labels.nii"}, "needs an input volume"},
    };
    for (const auto& c : cases) {
        Render_Options opt;
        std::string error;
        EXPECT_EQ(0, parse(c.args, &opt, &error)) << c.args[0];
        EXPECT_NE(std::string::npos, error.find(c.message ? c.message : c.args[0])) << error;
        EXPECT_EQ(std::string::npos, error.find("''")) << error;
    }
}

TEST(RenderOptions, EveryValueFormParses)
{
    Render_Options opt;
    std::string error;
    ASSERT_EQ(1, parse({}, &opt, &error));
    EXPECT_TRUE(opt.input.empty());
    EXPECT_EQ("voxelune.png", opt.output);
    EXPECT_EQ(512, opt.height);
    ASSERT_EQ(1, parse({"--size=640x480", "-o", "out.png", "v.raw", "--raw", "64x32x16:u16",
                        "--endian", "big", "--offset", "352", "--window=300,-100", "--tag-color",
                        "3=#FF8000", "--map", "2:1,3-5,4", "--light", "2:FFFFFF:0,0,1", "--light",
                        "1:off", "--clip-box", "0,1,0.25,0.75,0.5,1", "--scheme", "mixed",
                        "--timeout", "0.5"}, &opt, &error)) << error;
    EXPECT_EQ(640, opt.width);
    EXPECT_EQ(480, opt.height);
    EXPECT_EQ("v.raw", opt.input);
    EXPECT_EQ(16, opt.raw_layout.dim[2]);
    EXPECT_EQ(VOXEL_U16, opt.raw_layout.type);
    EXPECT_TRUE(opt.raw_layout.big_endian);
    EXPECT_EQ(352, opt.raw_layout.offset);
    EXPECT_EQ(300.0, opt.window_low);  /* inverted: allowed */
    EXPECT_EQ(0xFF8000u, opt.tag_colors.at(0).second);
    EXPECT_EQ((std::vector<unsigned char>{1, 3, 4, 5}), opt.maps.at(0).values);
    EXPECT_EQ(1.0f, opt.lights[2].dir[2]);
    EXPECT_TRUE(opt.lights[1].set && !opt.lights[1].on);
    EXPECT_EQ(0.25f, opt.clip_box[2]);
    EXPECT_EQ(4, opt.scheme);
    EXPECT_EQ(0.5, opt.timeout);
}

TEST(RenderPixels, CompositeOverTheBackground)
{
    const struct { unsigned int word, background, rgb; } cases[] = {
        {0x00000000u, 0x336699, 0x336699},  /* missed the volume */
        {0xFF000000u, 0x336699, 0x336699},  /* crossed, nothing seen */
        {0x00102030u, 0xFFFFFF, 0x102030},  /* opaque: byte 2 is red */
        {0x33102030u, 0xFFFFFF, 0x435363},  /* 51/255 of the background added */
        {0xFFF02030u, 0xFF0000, 0xFF2030},  /* sums saturate */
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.rgb, Render_Composite(c.word, c.background)) << std::hex << c.word;
    unsigned int words[1] = {0x00AABBCCu};
    unsigned char rgb[3];
    Render_Words_To_Rgb(words, 1, 0, rgb);
    EXPECT_EQ(0, std::memcmp(rgb, "\xAA\xBB\xCC", 3));
}

TEST(RenderNames, FramesAndLevelsCarryTheirIndex)
{
    EXPECT_EQ("out/v.png", Render_Frame_Name("out/v.png", 0, 1));
    EXPECT_EQ("out/v_007.png", Render_Frame_Name("out/v.png", 7, 12));
    EXPECT_EQ("a.b/v_000", Render_Frame_Name("a.b/v", 0, 2));
    EXPECT_EQ(".hidden_001", Render_Frame_Name(".hidden", 1, 2));
    EXPECT_EQ("v_0999.png", Render_Frame_Name("v.png", 999, 1001));
    EXPECT_EQ("p/v_level2.png", Render_Level_Name("p", "out/v.png", 0, 1, 2));
    EXPECT_EQ("p/v_003_level1.png", Render_Level_Name("p/", "v.png", 3, 10, 1));
    EXPECT_EQ(FORMAT_NIFTI, Volume_Format_Of("B.NII.GZ"));
    EXPECT_EQ(FORMAT_NRRD, Volume_Format_Of("x.nhdr"));
    EXPECT_EQ(FORMAT_UNKNOWN, Volume_Format_Of("x.gz"));
}

TEST(RenderWindow, MapsFiniteRangeKeepsNanAndRefusesNoRange)
{
    const float inf = INFINITY;
    std::vector<float> v = {10, 20, 15, NAN, 30, inf, -inf};
    std::string error;
    ASSERT_EQ(1, Render_Apply_Window(&v, false, 0, 0, &error)) << error;
    EXPECT_EQ((std::vector<float>{0, 0.5f, 0.25f}), std::vector<float>(v.begin(), v.begin() + 3));
    EXPECT_TRUE(std::isnan(v[3]));
    EXPECT_EQ((std::vector<float>{1, 1, 0}), std::vector<float>(v.begin() + 4, v.end()));
    v = {0, 25, 100, 200};
    ASSERT_EQ(1, Render_Apply_Window(&v, true, 100, 0, &error));
    EXPECT_EQ((std::vector<float>{1, 0.75f, 0, 0}), v);
    for (std::vector<float> bad : {std::vector<float>{3, inf, 3}, {NAN, inf, -inf}}) {
        EXPECT_EQ(0, Render_Apply_Window(&bad, false, 0, 0, &error));
        EXPECT_NE(std::string::npos, error.find("--window")) << error;
        EXPECT_EQ(3u, bad.size());
    }
    EXPECT_EQ(0, Render_Apply_Window(&v, true, 7, 7, &error));
    std::vector<unsigned char> t;
    EXPECT_EQ(1, Render_Make_Tags({0, 1, 255}, &t, &error));
    for (float tag : {256.0f, -1.0f, 1.5f, NAN})
        EXPECT_EQ(0, Render_Make_Tags({tag}, &t, &error)) << tag;
}

TEST(RenderRaw, EveryTypeAndByteOrder)
{
    Scratch_Dir dir;
    const struct { std::string bytes; Voxel_Type type; bool big; int offset; float first, last; } cases[] = {
        {std::string("\xFD\xFF\x00\x80", 4), VOXEL_I16, false, 0, -3, -32768},
        {std::string("\x80\x7F", 2), VOXEL_I8, false, 0, -128, 127},
        {std::string("\x80\x7F", 2), VOXEL_U8, false, 0, 128, 127},
        {std::string("\x00\x28\x6B\xEE\x01\x00\x00\x00", 8), VOXEL_U32, false, 0, 4000000000.0f, 1},
        {std::string("\x09\x09\x01\x02\xFF\x00", 6), VOXEL_U16, true, 2, 258, 65280},
        {std::string("\x3F\xC0\x00\x00\x7F\xC0\x00\x00", 8), VOXEL_F32, true, 0, 1.5f, NAN},
        {std::string("\0\0\0\0\0\0\xD0\x3F\0\0\0\0\0\0\xF0\x7F", 16), VOXEL_F64, false, 0, 0.25f, INFINITY},
    };
    for (const auto& c : cases) {
        Write_Bytes(dir / "v.raw", c.bytes);
        Raw_Layout l;
        l.dim[0] = 2;
        l.dim[1] = l.dim[2] = 1;
        l.type = c.type;
        l.big_endian = c.big;
        l.offset = c.offset;
        Voxel_Data v;
        std::string error;
        ASSERT_EQ(1, Render_Read_Raw(dir / "v.raw", l, &v, &error)) << error;
        EXPECT_EQ(c.first, v.values.at(0)) << c.type;
        EXPECT_TRUE(v.values.at(1) == c.last || (std::isnan(c.last) && std::isnan(v.values[1])))
            << c.type;
    }
}

TEST(RenderPhantom, HoldsEveryStructure)
{
    Render_Volume vol;
    Render_Phantom(48, &vol);
    ASSERT_EQ(48u * 48u * 48u, vol.tag.size());
    int count[PHANTOM_TAGS + 1] = {};
    for (size_t i = 0; i < vol.gli.size(); i++) {
        ASSERT_TRUE(vol.gli[i] >= 0.0f && vol.gli[i] <= 1.0f);
        ASSERT_EQ(vol.tag[i] != 0, vol.gli[i] > 0.0f) << i;
        count[vol.tag[i]]++;
    }
    for (int k = 0; k <= PHANTOM_TAGS; k++)
        EXPECT_GT(count[k], 50) << "structure " << k;
}
