/*
 * The built voxelune-render refusing bad input: every refusal ends with
 * exit status 2, a message on standard error, and no file written.  These
 * runs end before the library starts its threads.
 */
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <cstdint>

/*
 * Runs the tool in a scratch directory that holds only the given input
 * files, and expects status 2, a message containing `message`, and the
 * directory unchanged afterwards.
 */
static void expect_refused(const std::vector<std::string>& args, const std::string& message,
                           const Scratch_Dir& dir)
{
    std::vector<std::string> before = List_Dir(dir.path);
    Tool_Result r = Run_Tool(args, dir.path);
    EXPECT_EQ(2, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("voxelune-render: ")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find(message)) << "wanted '" << message << "' in: " << r.err;
    EXPECT_EQ(before, List_Dir(dir.path)) << "the tool wrote a file";
    EXPECT_TRUE(r.out.empty()) << r.out;
}

TEST(RenderCli, HelpPrintsUsageAndWritesNothing)
{
    Scratch_Dir dir;
    Tool_Result r = Run_Tool({"--help"}, dir.path);
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("Usage: voxelune-render"));
    EXPECT_TRUE(List_Dir(dir.path).empty());
}

TEST(RenderCli, MissingOrUnreadableInput)
{
    Scratch_Dir dir;
    expect_refused({"missing.nii"}, "No such file", dir);
    expect_refused({"--raw", "2x2x2:u8", "missing.raw"}, "No such file", dir);
    mkdir((dir / "d.nrrd").c_str(), 0777);
    expect_refused({"d.nrrd"}, "not a regular file", dir);
}

TEST(RenderCli, UnreadableFormats)
{
    Scratch_Dir dir;
    const char junk[] = "definitely not a volume header, just some words to fill the file up";
    Write_Bytes(dir / "v.nii", junk, sizeof junk);
    Write_Bytes(dir / "v.nrrd", junk, sizeof junk);
    Write_Bytes(dir / "v.dat", junk, sizeof junk);
    expect_refused({"v.nii"}, "NIfTI", dir);
    expect_refused({"v.nrrd"}, "NRRD", dir);
    expect_refused({"v.dat"}, "unknown volume format", dir);
}

TEST(RenderCli, DimensionsThatDoNotMatchTheFile)
{
    Scratch_Dir dir;
    std::vector<uint16_t> v(4 * 4 * 4, 7);
    v[5] = 1000;
    Write_Bytes(dir / "v.raw", v.data(), v.size() * 2);
    expect_refused({"--raw", "4x4x5:u16", "v.raw"}, "do not match the file size", dir);
    expect_refused({"--raw", "4x4x4:u8", "v.raw"}, "do not match the file size", dir);
    expect_refused({"--raw", "4x4x4:u16", "--offset", "2", "v.raw"}, "do not match", dir);
    std::vector<unsigned char> t(4 * 4 * 3);
    Write_Bytes(dir / "t.lbl", t.data(), t.size());
    expect_refused({"--raw", "4x4x4:u16", "v.raw", "--tags", "t.lbl"}, "t.lbl", dir);
}

TEST(RenderCli, WindowWithEqualEnds)
{
    Scratch_Dir dir;
    expect_refused({"--window", "0.3:0.3"}, "equal", dir);
    /* a constant volume leaves its own window with equal ends */
    std::vector<float> v(8, 2.5f);
    Write_Bytes(dir / "c.raw", v.data(), v.size() * 4);
    expect_refused({"--raw", "2x2x2:f32", "c.raw"}, "equal", dir);
}

TEST(RenderCli, SizeOfZero)
{
    Scratch_Dir dir;
    expect_refused({"--size", "0"}, "--size", dir);
    expect_refused({"--size", "64x0"}, "--size", dir);
}

TEST(RenderCli, BadOptionValues)
{
    Scratch_Dir dir;
    expect_refused({"--workers", "0"}, "--workers", dir);
    expect_refused({"--scheme", "purple"}, "--scheme", dir);
    expect_refused({"--light", "7:FFFFFF:0,0,1"}, "--light", dir);
    expect_refused({"--clip-box", "0.6,0.4,0,1,0,1"}, "--clip-box", dir);
    expect_refused({"--tag-color", "1=red"}, "--tag-color", dir);
    expect_refused({"--turntable", "-2"}, "--turntable", dir);
    expect_refused({"--no-such-option"}, "unknown option", dir);
    expect_refused({"--cpu", "--gpu"}, "exclude", dir);
}

TEST(RenderCli, OutputThatCannotBeWritten)
{
    Scratch_Dir dir;
    expect_refused({"-o", "no/such/dir/x.png", "--size", "8"}, "does not exist", dir);
    mkdir((dir / "sub").c_str(), 0777);
    expect_refused({"-o", "sub", "--size", "8"}, "is a directory", dir);
    expect_refused({"--progressive", "no/such/dir", "--size", "8"}, "does not exist", dir);
}
