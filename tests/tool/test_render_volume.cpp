/*
 * Volume input of voxelune-render: raw files of every element type and
 * byte order, NIfTI and NRRD files written here with their own libraries,
 * the grey-level window, tag volumes and the phantom.
 */
#include "render_volume.h"
#include "tool_test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#ifdef VOXELUNE_RENDER_NIFTI
#include <nifti1_io.h>
#endif
#ifdef VOXELUNE_RENDER_NRRD
#include <teem/nrrd.h>
#endif

static Raw_Layout layout(int x, int y, int z, Voxel_Type type, bool big = false, long long off = 0)
{
    Raw_Layout l;
    l.dim[0] = x;
    l.dim[1] = y;
    l.dim[2] = z;
    l.type = type;
    l.big_endian = big;
    l.offset = off;
    return l;
}

/* ---- raw ---- */

TEST(RenderRaw, ReadsEveryTypeXFastest)
{
    Scratch_Dir dir;
    const int16_t i16[6] = {-3, 7, 0, 32767, -32768, 12};
    Write_Bytes(dir / "a.raw", i16, sizeof i16);
    Voxel_Data v;
    std::string error;
    ASSERT_EQ(1, Render_Read_Raw(dir / "a.raw", layout(3, 2, 1, VOXEL_I16), &v, &error)) << error;
    EXPECT_EQ(3, v.dim[0]);
    EXPECT_EQ(2, v.dim[1]);
    EXPECT_EQ(1, v.dim[2]);
    EXPECT_EQ((std::vector<float>{-3, 7, 0, 32767, -32768, 12}), v.values);

    const double f64[2] = {0.25, -1e10};
    Write_Bytes(dir / "d.raw", f64, sizeof f64);
    ASSERT_EQ(1, Render_Read_Raw(dir / "d.raw", layout(1, 1, 2, VOXEL_F64), &v, &error));
    EXPECT_EQ(0.25f, v.values[0]);
    EXPECT_EQ((float)-1e10, v.values[1]);

    const uint32_t u32[2] = {4000000000u, 1};
    Write_Bytes(dir / "u.raw", u32, sizeof u32);
    ASSERT_EQ(1, Render_Read_Raw(dir / "u.raw", layout(2, 1, 1, VOXEL_U32), &v, &error));
    EXPECT_EQ(4000000000.0f, v.values[0]);

    const signed char i8[2] = {-128, 127};
    Write_Bytes(dir / "c.raw", i8, 2);
    ASSERT_EQ(1, Render_Read_Raw(dir / "c.raw", layout(2, 1, 1, VOXEL_I8), &v, &error));
    EXPECT_EQ(-128.0f, v.values[0]);
    ASSERT_EQ(1, Render_Read_Raw(dir / "c.raw", layout(2, 1, 1, VOXEL_U8), &v, &error));
    EXPECT_EQ(128.0f, v.values[0]);
}

TEST(RenderRaw, BigEndianAndHeaderOffset)
{
    Scratch_Dir dir;
    /* 5 header bytes, then 0x0102 and 0xFF00 big-endian, then a float 1.5 big-endian */
    const unsigned char bytes[] = {9, 9, 9, 9, 9, 0x01, 0x02, 0xFF, 0x00};
    Write_Bytes(dir / "b.raw", bytes, sizeof bytes);
    Voxel_Data v;
    std::string error;
    ASSERT_EQ(1, Render_Read_Raw(dir / "b.raw", layout(2, 1, 1, VOXEL_U16, true, 5), &v, &error))
        << error;
    EXPECT_EQ(258.0f, v.values[0]);
    EXPECT_EQ(65280.0f, v.values[1]);
    ASSERT_EQ(1, Render_Read_Raw(dir / "b.raw", layout(2, 1, 1, VOXEL_U16, false, 5), &v, &error));
    EXPECT_EQ(513.0f, v.values[0]);

    const unsigned char f[] = {0x3F, 0xC0, 0x00, 0x00};
    Write_Bytes(dir / "f.raw", f, 4);
    ASSERT_EQ(1, Render_Read_Raw(dir / "f.raw", layout(1, 1, 1, VOXEL_F32, true), &v, &error));
    EXPECT_EQ(1.5f, v.values[0]);
}

TEST(RenderRaw, SizeMustMatchExactly)
{
    Scratch_Dir dir;
    std::vector<unsigned char> bytes(2 * 3 * 4 * 2);
    Write_Bytes(dir / "v.raw", bytes.data(), bytes.size());
    Voxel_Data v;
    std::string error;
    EXPECT_EQ(1, Render_Read_Raw(dir / "v.raw", layout(2, 3, 4, VOXEL_U16), &v, &error));
    EXPECT_EQ(0, Render_Read_Raw(dir / "v.raw", layout(2, 3, 5, VOXEL_U16), &v, &error));
    EXPECT_NE(std::string::npos, error.find("do not match the file size")) << error;
    EXPECT_EQ(0, Render_Read_Raw(dir / "v.raw", layout(2, 3, 4, VOXEL_U8), &v, &error));
    EXPECT_EQ(0, Render_Read_Raw(dir / "v.raw", layout(2, 3, 4, VOXEL_U16, false, 1), &v, &error));
}

TEST(RenderRaw, MissingFilesAndDirectoriesAreRefused)
{
    Scratch_Dir dir;
    Voxel_Data v;
    std::string error;
    EXPECT_EQ(0, Render_Read_Raw(dir / "none.raw", layout(1, 1, 1, VOXEL_U8), &v, &error));
    EXPECT_NE(std::string::npos, error.find("No such file")) << error;
    EXPECT_EQ(0, Render_Read_Raw(dir.path, layout(1, 1, 1, VOXEL_U8), &v, &error));
    EXPECT_NE(std::string::npos, error.find("not a regular file")) << error;
}

TEST(RenderFormat, ChosenByFileName)
{
    EXPECT_EQ(FORMAT_NIFTI, Volume_Format_Of("a/b.nii"));
    EXPECT_EQ(FORMAT_NIFTI, Volume_Format_Of("B.NII.GZ"));
    EXPECT_EQ(FORMAT_NRRD, Volume_Format_Of("x.nrrd"));
    EXPECT_EQ(FORMAT_NRRD, Volume_Format_Of("x.nhdr"));
    EXPECT_EQ(FORMAT_UNKNOWN, Volume_Format_Of("x.gz"));
    EXPECT_EQ(FORMAT_UNKNOWN, Volume_Format_Of("nii"));
}

/* ---- NIfTI ---- */

#ifdef VOXELUNE_RENDER_NIFTI
/* Writes an int16 volume nx x ny x nz (x nt) with value 100*z + 10*y + x through niftilib. */
static void write_nifti(const std::string& path, int nx, int ny, int nz, int nt = 1,
                        float slope = 0.0f, float inter = 0.0f)
{
    int dims[8] = {nt > 1 ? 4 : 3, nx, ny, nz, nt, 1, 1, 1};
    nifti_image* nim = nifti_make_new_nim(dims, DT_INT16, 1);
    ASSERT_NE(nullptr, nim);
    short* data = (short*)nim->data;
    for (int t = 0; t < nt; t++)
        for (int z = 0; z < nz; z++)
            for (int y = 0; y < ny; y++)
                for (int x = 0; x < nx; x++)
                    *data++ = (short)(100 * z + 10 * y + x + 1000 * t);
    nim->scl_slope = slope;
    nim->scl_inter = inter;
    ASSERT_EQ(0, nifti_set_filenames(nim, path.c_str(), 0, 1));
    nifti_image_write(nim);
    nifti_image_free(nim);
}

TEST(RenderNifti, ReadsWhatNiftilibWrote)
{
    Scratch_Dir dir;
    for (const char* name : {"v.nii", "v.nii.gz"}) {
        write_nifti(dir / name, 4, 3, 2);
        Voxel_Data v;
        std::string error;
        ASSERT_EQ(1, Render_Read_Nifti(dir / name, &v, &error)) << name << ": " << error;
        EXPECT_EQ(4, v.dim[0]);
        EXPECT_EQ(3, v.dim[1]);
        EXPECT_EQ(2, v.dim[2]);
        ASSERT_EQ(24u, v.values.size());
        EXPECT_EQ(0.0f, v.values[0]);
        EXPECT_EQ(3.0f, v.values[3]);          /* x fastest */
        EXPECT_EQ(10.0f, v.values[4]);         /* then y */
        EXPECT_EQ(123.0f, v.values[23]);       /* z last */
    }
}

TEST(RenderNifti, AppliesTheScaleOfTheHeader)
{
    Scratch_Dir dir;
    write_nifti(dir / "s.nii", 2, 2, 2, 1, 0.5f, -10.0f);
    Voxel_Data v;
    std::string error;
    ASSERT_EQ(1, Render_Read_Nifti(dir / "s.nii", &v, &error)) << error;
    EXPECT_EQ(-10.0f, v.values[0]);
    EXPECT_EQ(0.5f * 111.0f - 10.0f, v.values[7]);
}

TEST(RenderNifti, RefusesTimeSeriesGarbageAndShortFiles)
{
    Scratch_Dir dir;
    Voxel_Data v;
    std::string error;
    write_nifti(dir / "t.nii", 2, 2, 2, 3);
    EXPECT_EQ(0, Render_Read_Nifti(dir / "t.nii", &v, &error));
    EXPECT_NE(std::string::npos, error.find("3-D")) << error;

    const char junk[] = "this is not a NIfTI header, only text that is long enough to read";
    Write_Bytes(dir / "j.nii", junk, sizeof junk);
    EXPECT_EQ(0, Render_Read_Nifti(dir / "j.nii", &v, &error));
    EXPECT_NE(std::string::npos, error.find("NIfTI")) << error;

    /* A valid header whose data was cut short (niftilib alone would pad it with zeros). */
    for (const char* name : {"c.nii", "c.nii.gz"}) {
        write_nifti(dir / name, 8, 8, 8);
        std::string whole = Read_Text(dir / name);
        Write_Bytes(dir / name, whole.data(), whole.size() - 100);
        EXPECT_EQ(0, Render_Read_Nifti(dir / name, &v, &error)) << name;
    }
}
#endif

/* ---- NRRD ---- */

#ifdef VOXELUNE_RENDER_NRRD
static void write_nrrd(const std::string& path, std::vector<unsigned short>* data, size_t x,
                       size_t y, size_t z)
{
    data->resize(x * y * z);
    for (size_t i = 0; i < data->size(); i++)
        (*data)[i] = (unsigned short)(7 * i);
    Nrrd* nrrd = nrrdNew();
    ASSERT_EQ(0, nrrdWrap_va(nrrd, data->data(), nrrdTypeUShort, 3u, x, y, z));
    ASSERT_EQ(0, nrrdSave(path.c_str(), nrrd, nullptr));
    nrrdNix(nrrd);  /* the data stays ours */
}

TEST(RenderNrrd, ReadsWhatTeemWrote)
{
    Scratch_Dir dir;
    std::vector<unsigned short> data;
    write_nrrd(dir / "v.nrrd", &data, 5, 4, 3);
    Voxel_Data v;
    std::string error;
    ASSERT_EQ(1, Render_Read_Nrrd(dir / "v.nrrd", &v, &error)) << error;
    EXPECT_EQ(5, v.dim[0]);
    EXPECT_EQ(4, v.dim[1]);
    EXPECT_EQ(3, v.dim[2]);
    ASSERT_EQ(60u, v.values.size());
    for (size_t i = 0; i < 60; i++)
        ASSERT_EQ((float)data[i], v.values[i]) << i;
}

TEST(RenderNrrd, RefusesGarbageAndFourAxes)
{
    Scratch_Dir dir;
    Voxel_Data v;
    std::string error;
    const char junk[] = "NRRD0004\ntype: nonsense\n\n";
    Write_Bytes(dir / "j.nrrd", junk, sizeof junk - 1);
    EXPECT_EQ(0, Render_Read_Nrrd(dir / "j.nrrd", &v, &error));
    EXPECT_NE(std::string::npos, error.find("not a readable NRRD")) << error;

    std::vector<float> data(16, 1.0f);
    Nrrd* nrrd = nrrdNew();
    ASSERT_EQ(0, nrrdWrap_va(nrrd, data.data(), nrrdTypeFloat, 4u, (size_t)2, (size_t)2,
                             (size_t)2, (size_t)2));
    ASSERT_EQ(0, nrrdSave((dir / "f.nrrd").c_str(), nrrd, nullptr));
    nrrdNix(nrrd);
    EXPECT_EQ(0, Render_Read_Nrrd(dir / "f.nrrd", &v, &error));
    EXPECT_NE(std::string::npos, error.find("3-D")) << error;
}
#endif

/* ---- window ---- */

TEST(RenderWindow, DefaultsToTheRangeOfTheData)
{
    std::vector<float> v = {10, 20, 15, NAN, 30};
    std::string error;
    ASSERT_EQ(1, Render_Apply_Window(&v, false, 0, 0, &error)) << error;
    EXPECT_EQ(0.0f, v[0]);
    EXPECT_EQ(0.5f, v[1]);
    EXPECT_EQ(0.25f, v[2]);
    EXPECT_TRUE(std::isnan(v[3]));
    EXPECT_EQ(1.0f, v[4]);
}

TEST(RenderWindow, ClampsAndInverts)
{
    std::vector<float> v = {-5, 0, 50, 100, 500};
    std::string error;
    ASSERT_EQ(1, Render_Apply_Window(&v, true, 0, 100, &error));
    EXPECT_EQ((std::vector<float>{0, 0, 0.5f, 1, 1}), v);
    v = {0, 25, 100};
    ASSERT_EQ(1, Render_Apply_Window(&v, true, 100, 0, &error));
    EXPECT_EQ((std::vector<float>{1, 0.75f, 0}), v);
}

TEST(RenderWindow, EqualEndsAreRefused)
{
    std::vector<float> v = {3, 3, 3};
    std::string error;
    EXPECT_EQ(0, Render_Apply_Window(&v, false, 0, 0, &error));
    EXPECT_NE(std::string::npos, error.find("equal")) << error;
    EXPECT_EQ(3.0f, v[0]);  /* untouched */
    v = {1, 2};
    EXPECT_EQ(0, Render_Apply_Window(&v, true, 7, 7, &error));
    v = {NAN, NAN};
    EXPECT_EQ(0, Render_Apply_Window(&v, false, 0, 0, &error));
}

/* ---- tags and whole volumes ---- */

TEST(RenderTags, WholeNumbersFrom0To255Only)
{
    std::vector<unsigned char> t;
    std::string error;
    EXPECT_EQ(1, Render_Make_Tags({0, 1, 255}, &t, &error));
    EXPECT_EQ((std::vector<unsigned char>{0, 1, 255}), t);
    EXPECT_EQ(0, Render_Make_Tags({256}, &t, &error));
    EXPECT_EQ(0, Render_Make_Tags({-1}, &t, &error));
    EXPECT_EQ(0, Render_Make_Tags({1.5f}, &t, &error));
    EXPECT_EQ(0, Render_Make_Tags({NAN}, &t, &error));
}

TEST(RenderLoad, RawGreyWithRawTagsAndAWindow)
{
    Scratch_Dir dir;
    const uint16_t grey[8] = {0, 100, 200, 300, 400, 500, 600, 700};
    const unsigned char tags[8] = {0, 1, 2, 3, 0, 0, 9, 0};
    Write_Bytes(dir / "g.raw", grey, sizeof grey);
    Write_Bytes(dir / "t.lbl", tags, sizeof tags);
    Render_Options opt;
    opt.input = dir / "g.raw";
    opt.raw = true;
    opt.raw_layout = layout(2, 2, 2, VOXEL_U16);
    opt.tags = dir / "t.lbl";
    opt.window_set = true;
    opt.window_low = 100;
    opt.window_high = 500;
    Render_Volume vol;
    std::string error;
    ASSERT_EQ(1, Render_Load_Volume(opt, &vol, &error)) << error;
    EXPECT_EQ(2, vol.dim[2]);
    EXPECT_EQ(0.0f, vol.gli[0]);
    EXPECT_EQ(0.25f, vol.gli[2]);
    EXPECT_EQ(1.0f, vol.gli[7]);
    EXPECT_EQ(9, vol.tag[6]);

    /* A tag file of the wrong size, a tag value out of range, no tag file. */
    Write_Bytes(dir / "t.lbl", tags, 7);
    EXPECT_EQ(0, Render_Load_Volume(opt, &vol, &error));
    const uint16_t wide[8] = {0, 300};
    Write_Bytes(dir / "t.lbl", wide, sizeof wide);
    opt.tag_type = VOXEL_U16;
    EXPECT_EQ(0, Render_Load_Volume(opt, &vol, &error));
    EXPECT_NE(std::string::npos, error.find("0 to 255")) << error;
    opt.tags.clear();
    ASSERT_EQ(1, Render_Load_Volume(opt, &vol, &error));
    EXPECT_EQ(std::vector<unsigned char>(8, 0), vol.tag);
}

TEST(RenderLoad, UnknownFormatWithoutRawIsRefused)
{
    Scratch_Dir dir;
    const unsigned char b[8] = {};
    Write_Bytes(dir / "v.dat", b, 8);
    Render_Options opt;
    opt.input = dir / "v.dat";
    Render_Volume vol;
    std::string error;
    EXPECT_EQ(0, Render_Load_Volume(opt, &vol, &error));
    EXPECT_NE(std::string::npos, error.find("unknown volume format")) << error;
}

/* ---- phantom ---- */

TEST(RenderPhantom, HoldsEveryStructureInRange)
{
    Render_Volume vol;
    Render_Phantom(48, &vol);
    ASSERT_EQ(48u * 48u * 48u, vol.gli.size());
    ASSERT_EQ(vol.gli.size(), vol.tag.size());
    int count[PHANTOM_TAGS + 1] = {};
    for (size_t i = 0; i < vol.gli.size(); i++) {
        ASSERT_GE(vol.gli[i], 0.0f);
        ASSERT_LE(vol.gli[i], 1.0f);
        ASSERT_LE(vol.tag[i], PHANTOM_TAGS);
        /* tagged voxels carry grey, untagged ones are empty */
        ASSERT_EQ(vol.tag[i] != 0, vol.gli[i] > 0.0f) << i;
        count[vol.tag[i]]++;
    }
    for (int k = 0; k <= PHANTOM_TAGS; k++)
        EXPECT_GT(count[k], 50) << "structure " << k;
    /* the volume's corner is outside every structure, its centre in the ball */
    EXPECT_EQ(0, vol.tag[0]);
    EXPECT_EQ(3, vol.tag[(24 * 48 + 24) * 48 + 24]);
}
