/* voxelune-render's pieces in process: options, compositing, file names, grey-level window, tags, raw types. */
#include "render_frame.h"
#include "render_options.h"
#include "render_png.h"
#include "render_volume.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <cmath>

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
        {{"--size", "0"}, 0}, {{"--size", "10x0"}, 0}, {{"--size", "4x4x4"}, 0}, {{"--size", "12a"}, 0},
        {{"--window", "5:5"}, "equal"}, {{"--window", "1:inf"}, 0}, {{"--colour", "1"}, "unknown option"},
        {{"--threshold"}, "needs a value"}, {{"--cpu=1"}, "takes no value"}, {{"a.nii", "b.nii"}, "only one"},
        {{"--cpu", "--gpu"}, "--cpu and --gpu exclude each other"}, {{"--raw", "64x32:u16", "a"}, 0},
        {{"--raw", "0x4x4:u8", "a"}, 0}, {{"--raw", "4x4x4:u12", "a"}, 0},
        {{"--raw", "2000x2000x2000:u8", "a"}, 0}, {{"--raw", "4x4x4:u8"}, "needs an input"},
        {{"--endian", "middle"}, 0}, {{"--offset", "8", "a.nii"}, "only to a raw"}, {{"--offset", "-1"}, 0},
        {{"--tag-color", "256=000000"}, 0}, {{"--tag-color", "3=GG0000"}, 0}, {{"--map", "2:5-3"}, 0},
        {{"--map", "2:"}, 0}, {{"--map", "0:0-255"}, 0}, {{"--light", "1:FFFFFF"}, 0},
        {{"--light", "5:off"}, 0}, {{"--light", "1:FFFFFF:0,0,0"}, 0}, {{"--clip-box", "0.5,0.4,0,1,0,1"}, 0},
        {{"--clip-box", "0,1.2,0,1,0,1"}, 0}, {{"--depth-clip", "1.5"}, 0}, {{"--workers", "65"}, 0},
        {{"--turntable", "0"}, 0}, {{"--zoom", "11"}, 0}, {{"--threshold", "nan"}, 0},
        {{"--threshold", "1e39"}, 0}, {{"--timeout", "0"}, 0}, {{"--phantom-size", "7"}, 0},
        {{"--background", "12345"}, 0}, {{"--view", "10,20"}, 0}, {{"--scheme", "5"}, 0},
        {{"--tags", "l.nii"}, "needs an input"},
    };
    for (const auto& c : cases) {
        Render_Options opt;
        std::string error;
        EXPECT_EQ(0, parse(c.args, &opt, &error)) << c.args[0];
        EXPECT_NE(std::string::npos, error.find(c.message ? c.message : c.args[0])) << error;
        EXPECT_EQ(std::string::npos, error.find("''")) << error;
    }
}

TEST(RenderOptions, ValuesNoEndToEndRunShows)
{
    Render_Options opt;
    std::string error;
    ASSERT_EQ(1, parse({"--size=640x480", "v.raw", "--raw", "64x32x16:u16", "--endian", "big",
                        "--window=300,-100", "--map", "2:1,3-5,4", "--scheme", "mixed"}, &opt, &error))
        << error;
    EXPECT_TRUE(opt.height == 480 && opt.raw_layout.big_endian && opt.scheme == 4);
    EXPECT_EQ(300.0, opt.window_low);  /* inverted: allowed */
    EXPECT_EQ((std::vector<unsigned char>{1, 3, 4, 5}), opt.maps.at(0).values);
}

TEST(RenderPixels, CompositeOverTheBackground)
{
    /* missed, crossed with nothing seen, opaque, 51/255 of the background added, saturated */
    const unsigned int cases[][3] = {{0x00000000u, 0x336699, 0x336699}, {0xFF000000u, 0x336699, 0x336699},
                                     {0x00102030u, 0xFFFFFF, 0x102030}, {0x33102030u, 0xFFFFFF, 0x435363},
                                     {0xFFF02030u, 0xFF0000, 0xFF2030}};
    for (const auto& c : cases) EXPECT_EQ(c[2], Render_Composite(c[0], c[1])) << std::hex << c[0];
}

TEST(RenderNames, FramesAndLevelsCarryTheirIndex)
{
    EXPECT_EQ((std::vector<std::string>{Render_Frame_Name("out/v.png", 0, 1), Render_Frame_Name("out/v.png", 7, 12),
                                        Render_Frame_Name("a.b/v", 0, 2), Render_Frame_Name(".hidden", 1, 2),
                                        Render_Frame_Name("v.png", 999, 1001), Render_Level_Name("p", "out/v.png", 0, 1, 2),
                                        Render_Level_Name("p/", "v.png", 3, 10, 1)}),
              (std::vector<std::string>{"out/v.png", "out/v_007.png", "a.b/v_000", ".hidden_001", "v_0999.png",
                                        "p/v_level2.png", "p/v_003_level1.png"}));
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
    }
    EXPECT_EQ(0, Render_Apply_Window(&v, true, 7, 7, &error));
    std::vector<unsigned char> t;
    EXPECT_EQ(1, Render_Make_Tags({0, 1, 255}, &t, &error));
    for (float tag : {256.0f, -1.0f, 1.5f, NAN}) EXPECT_EQ(0, Render_Make_Tags({tag}, &t, &error)) << tag;
}

TEST(RenderRaw, EveryTypeAndByteOrder)
{
    Scratch_Dir dir;
    const std::string bytes("\x80\xFF\x7F\x3F\x00\x00\xF0\x7F", 8);
    const struct { Voxel_Type type; bool big; int offset; float value; } cases[] = {
        {VOXEL_I8, false, 0, -128}, {VOXEL_U8, false, 0, 128}, {VOXEL_I16, false, 0, -128},
        {VOXEL_U16, true, 0, 33023}, {VOXEL_U16, false, 2, 16255}, {VOXEL_I32, false, 0, 1065353088},
        {VOXEL_U32, true, 0, (float)2164227903u}, {VOXEL_F32, false, 0, 0.99999237060546875f},
        {VOXEL_I64, false, 0, (float)9218868438644473728LL}, {VOXEL_F64, false, 0, NAN},
    };
    for (const auto& c : cases) {
        Write_Bytes(dir / "v.raw", bytes.substr(0, c.offset + Voxel_Type_Size(c.type)));
        Raw_Layout l{{1, 1, 1}, c.type, c.big, c.offset};
        Voxel_Data v;
        std::string error;
        ASSERT_EQ(1, Render_Read_Raw(dir / "v.raw", l, &v, &error)) << error;
        EXPECT_TRUE(std::isnan(c.value) ? std::isnan(v.values.at(0)) : v.values.at(0) == c.value)
            << c.type << ": " << v.values[0];
    }
}
