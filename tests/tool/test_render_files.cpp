/* voxelune-render's files: malformed inputs refused with exit status 2 and one line, good files read
 * as stored, output paths checked before rendering, writes that fail or are interrupted. */
#include "render_file.h"
#include "render_volume.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <csignal>
#include <cmath>
#include <cstring>

/* A NIfTI-1 single file: header, 4 bytes of extension flags, data (already in the file's order). */
static std::string nifti(std::vector<short> dims, short datatype, float vox_offset, const std::string& data,
                         const char* magic = "n+1", bool big = false, float slope = 0, float inter = 0)
{
    std::string h(352, '\0');
    auto put = [&](size_t at, const void* p, size_t n) {
        for (size_t i = 0; i < n; i++) h[at + i] = ((const char*)p)[big ? n - 1 - i : i];
    };
    short dim[8] = {(short)dims.size(), 1, 1, 1, 1, 1, 1, 1};
    std::copy(dims.begin(), dims.end(), dim + 1);
    int size = 348;
    put(0, &size, 4), put(70, &datatype, 2), put(108, &vox_offset, 4), put(112, &slope, 4), put(116, &inter, 4);
    for (int k = 0; k < 8; k++) put(40 + 2 * k, &dim[k], 2);
    std::memcpy(&h[344], magic, 4);
    return h + data;
}

/* data in gzip format, its last `cut` bytes dropped. */
static std::string gzip(const std::string& data, size_t cut = 0)
{
    char name[] = "/tmp/voxelune-gz-XXXXXX";
    close(mkstemp(name));
    gzFile g = gzopen(name, "wb");
    gzwrite(g, data.data(), (unsigned)data.size());
    gzclose(g);
    std::string out = Read_Text(name);
    unlink(name);
    return out.substr(0, out.size() - cut);
}

static const float special[8] = {0, 1, NAN, INFINITY, -INFINITY, 2, 3, 4};
static const std::string floats((const char*)special, sizeof special);

TEST(RenderFiles, MalformedInputsAreRefusedBeforeAnyDataIsRead)
{
    std::string corrupt = gzip(nifti({2, 2, 2}, 16, 352, floats));
    corrupt[corrupt.size() - 12] ^= 0x55;  /* in the data, after the header */
    const std::string nrrd = "NRRD0004\ntype: uchar\ndimension: 3\n";
    const struct { std::vector<std::pair<std::string, std::string>> files;
                   std::vector<std::string> args; const char* message; } cases[] = {
        {{}, {"missing.nii"}, "No such file"},
        {{{"d.nrrd", "<dir>"}}, {"d.nrrd"}, "not a regular file"},
        {{{"v.nii", "not a volume header, just words"}}, {"v.nii"}, "NIfTI"},
        {{{"v.dat", "12345678"}}, {"v.dat"}, "unknown volume format"},
        {{{"v.raw", std::string(128, '\1')}}, {"--raw", "4x4x4:u16", "--offset", "2", "v.raw"}, "not match"},
        {{{"v.raw", std::string(127, '\1') + '\2'}, {"t.lbl", std::string(48, '\0')}},
         {"--raw", "4x4x4:u16", "v.raw", "--tags", "t.lbl"}, "t.lbl"},
        {{{"c.raw", std::string(32, '\x40')}}, {"--raw", "2x2x2:f32", "c.raw"}, "--window"},
        {{{"i.raw", floats.substr(8, 12) + floats.substr(8, 12) + std::string(8, '\xFF')}},
         {"--raw", "2x2x2:f32", "i.raw"}, "no finite grey level"},
        {{{"o.nii", nifti({2, 2, 2}, 16, -100, floats)}}, {"o.nii"}, "vox_offset -100"},
        {{{"o.nii", nifti({2, 2, 2}, 16, NAN, floats)}}, {"o.nii"}, "vox_offset nan"},
        {{{"o.nii", nifti({2, 2, 2}, 16, 3e38f, floats)}}, {"o.nii"}, "vox_offset 3e+38"},
        {{{"s.nii", nifti({2, 2, 2}, 16, 352, floats.substr(0, 20))}}, {"s.nii"}, "shorter than its header"},
        {{{"t.nii", nifti({2, 2, 2, 3}, 16, 352, floats)}}, {"t.nii"}, "only 3-D"},
        {{{"c.nii", nifti({2, 2, 2}, 128, 352, floats)}}, {"c.nii"}, "data type RGB24"},
        {{{"h.nii", nifti({30000, 30000, 30000}, 16, 352, floats)}}, {"h.nii"}, "more than 2^31-1 voxels"},
        {{{"m.nii", nifti({2, 2, 2}, 16, 352, floats, "ni1")}}, {"m.nii"}, "n+1"},
        {{{"g.nii.gz", gzip(nifti({2, 2, 2}, 16, 352, floats), 8)}}, {"g.nii.gz"}, "gzip trailer"},
        {{{"g.nii.gz", corrupt}}, {"g.nii.gz"}, "corrupt compressed data"},
        {{{"h.nrrd", nrrd + "sizes: 100000 100000 100000\nencoding: raw\n\n" + std::string(999, '\0')}},
         {"h.nrrd"}, "more than 2^31-1 voxels"},
        {{{"z.nhdr", nrrd + "sizes: 1300 1300 1300\nencoding: raw\ndata file: /dev/zero\n"}},
         {"z.nhdr"}, "'/dev/zero' is not a regular file"},
        {{{"z.nhdr", nrrd + "sizes: 2 2 2\nencoding: raw\nline skip: 1\ndata file: /dev/zero\n"}},
         {"z.nhdr"}, "'/dev/zero' is not a regular file"},
        {{{"n.nhdr", nrrd + "sizes: 2 2 2\nencoding: raw\ndata file: n.raw\n"}}, {"n.nhdr"}, "couldn't open"},
        {{{"t.nrrd", "NRRD0004\ntype: nonsense\ndimension: 3\nsizes: 2 2 2\nencoding: raw\n\n12345678"}},
         {"t.nrrd"}, "couldn't parse type \"nonsense\""},
        {{{"f.nrrd", "NRRD0004\ntype: uchar\ndimension: 4\nsizes: 2 2 2 2\nencoding: raw\n\n"}},
         {"f.nrrd"}, "only 3-D"},
        {{{"s.nrrd", nrrd + "sizes: 100 100 100\nencoding: raw\n\n" + std::string(32, '\0')}},
         {"s.nrrd"}, "shorter than its header says"},
        {{{"g.nrrd", nrrd + "sizes: 2 2 2\nencoding: gzip\n\n" + corrupt}}, {"g.nrrd"}, "corrupt compressed"},
        {{{"g.nrrd", nrrd + "sizes: 2 2 2\nencoding: gzip\n\n" + gzip("12345678", 8)}}, {"g.nrrd"}, "cut"},
        {{{"b.nrrd", nrrd + "sizes: 2 2 2\nencoding: bzip2\n\n12345678"}}, {"b.nrrd"}, "not supported"},
    };
    for (const auto& c : cases) {
        std::string name = c.args.back();
        Volume_Format format = Volume_Format_Of(name);
        if ((format == FORMAT_NIFTI && !Render_Have_Nifti()) || (format == FORMAT_NRRD && !Render_Have_Nrrd())) continue;
        Scratch_Dir dir;
        for (const auto& f : c.files)
            f.second == "<dir>" ? (void)mkdir((dir / f.first).c_str(), 0777) : Write_Bytes(dir / f.first, f.second);
        std::vector<std::string> before = List_Dir(dir.path);
        Tool_Result r = Run_Tool(c.args, dir.path);
        EXPECT_EQ(2, r.status) << name << ": " << r.err;
        EXPECT_NE(std::string::npos, r.err.find(c.message)) << "wanted '" << c.message << "' in: " << r.err;
        EXPECT_EQ(1, std::count(r.err.begin(), r.err.end(), '\n')) << r.err;
        EXPECT_EQ(before, List_Dir(dir.path)) << name << ": the tool wrote a file";
        EXPECT_TRUE(r.out.empty()) << r.out;
    }
}

TEST(RenderFiles, ReadersKeepNanAndInfAndTheFileOrder)
{
    Scratch_Dir dir;
    std::string swapped = floats;
    std::string head = "NRRD0004\ntype: float\ndimension: 3\nsizes: 2 2 2\nendian: little\nencoding: ";
    for (size_t i = 0; i < swapped.size(); i += 4) std::reverse(swapped.begin() + i, swapped.begin() + i + 4);
    const short ints[4] = {0, 1, 2, 100};
    const std::pair<const char*, std::string> files[] = {
        {"a.nii", nifti({2, 2, 2}, 16, 352, floats)}, {"b.nii.gz", gzip(nifti({2, 2, 2}, 16, 352, floats))},
        {"c.nii", nifti({2, 2, 2}, 16, 352, swapped, "n+1", true)}, {"a.nrrd", head + "raw\n\n" + floats},
        {"b.nrrd", head + "gzip\n\n" + gzip(floats)}, {"c.nhdr", head + "raw\ndata file: a.raw\n"},
        {"s.nii", nifti({4, 1, 1}, 4, 352, std::string((const char*)ints, 8), "n+1", false, 0.5f, -10.0f)},
    };
    Write_Bytes(dir / "a.raw", floats);
    for (const auto& f : files) {
        bool nii = Volume_Format_Of(f.first) == FORMAT_NIFTI;
        if (!(nii ? Render_Have_Nifti() : Render_Have_Nrrd())) continue;
        Write_Bytes(dir / f.first, f.second);
        Voxel_Data v;
        std::string error;
        ASSERT_EQ(1, (nii ? Render_Read_Nifti : Render_Read_Nrrd)(dir / f.first, &v, &error)) << error;
        const std::vector<float> want = f.first[0] == 's' ? std::vector<float>{-10, -9.5f, -9, 40}
                                                          : std::vector<float>(special, special + 8);
        EXPECT_EQ(f.first[0] == 's' ? 4 : 2, v.dim[0]) << f.first;  /* x first */
        EXPECT_TRUE(std::equal(want.begin(), want.end(), v.values.begin(), v.values.end(),
                               [](float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); })) << f.first;
    }
}

TEST(RenderFiles, OutputMustBeARegularFileOrANewName)
{
    const struct { std::vector<std::string> args; int status; const char* message; } cases[] = {
        {{"-o", "new.png"}, 0, "wrote new.png"}, {{"-o", "old.png"}, 0, "wrote old.png"},
        {{"-o", "sub"}, 2, "sub: is a directory"}, {{"-o", "fifo"}, 2, "fifo: not a regular file"},
        {{"-o", "/dev/null"}, 2, "not a regular file"}, {{"-o", "old.png/"}, 2, "names a directory"},
        {{"-o", "no/x.png"}, 2, "'no': No such file"}, {{"-o", "old.png/x"}, 2, "'old.png' is not a dir"},
        {{"-o", "t.png", "--turntable", "3"}, 2, "t_001.png: is a directory"},
        {{"--progressive", "old.png"}, 2, "not a directory"}, {{"--progressive", "no/lv"}, 2, "No such file"},
        {{"--progressive", "lv", "-o", "x.png"}, 2, "x_level1.png: not a regular file"},
    };
    for (const auto& c : cases) {
        Scratch_Dir dir;
        Write_Bytes(dir / "old.png", "old");
        for (const char* sub : {"sub", "t_001.png", "lv"}) mkdir((dir / sub).c_str(), 0777);
        for (const char* fifo : {"fifo", "lv/x_level1.png"}) mkfifo((dir / fifo).c_str(), 0666);
        std::vector<std::string> before = List_Dir(dir.path), args = c.args;
        for (const char* a : {"--size", "8", "--phantom-size", "8", "--workers", "1", "-q"}) args.push_back(a);
        Tool_Result r = Run_Tool(args, dir.path);
        EXPECT_EQ(c.status, r.status) << c.args[1] << ": " << r.err;
        EXPECT_NE(std::string::npos, (r.out + r.err).find(c.message)) << c.message << " in: " << r.err;
        EXPECT_TRUE(c.status == 2 ? before == List_Dir(dir.path) && Read_Text(dir / "old.png") == "old"
                                  : Read_Text(dir / c.args[1]).substr(0, 4) == "\x89PNG" &&
                                        List_Dir(dir.path).size() == before.size() + (c.args[1] == "new.png"))
            << c.args[1];
    }
}

TEST(RenderFiles, AFailedOrInterruptedWriteLeavesTheTargetAsItWas)
{
    Scratch_Dir dir;
    Write_Bytes(dir / "a.png", "old");
    std::string error;
    auto failing = [](FILE* f) { return std::fputs("half", f), std::string("disk full"); };
    EXPECT_EQ(0, Render_Write_File(dir / "a.png", failing, &error));
    EXPECT_NE(std::string::npos, error.find("a.png: disk full")) << error;
    for (int sig : {SIGINT, SIGTERM}) {
        pid_t pid = fork();
        if (pid == 0) {
            Render_Catch_Signals();
            auto interrupted = [sig](FILE* f) { std::fputs("half", f), fflush(f), raise(sig); return ""; };
            Render_Write_File(dir / "a.png", interrupted, &error);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(pid, waitpid(pid, &status, 0));
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == sig) << status;
    }
    EXPECT_EQ("old", Read_Text(dir / "a.png"));
    EXPECT_EQ(1u, List_Dir(dir.path).size()) << "a temporary file was left";
}
