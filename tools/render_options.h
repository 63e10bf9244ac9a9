/*
 * render_options.h - the command line of voxelune-render.
 *
 * Render_Parse_Options turns argv into a Render_Options record and checks
 * every value on its own (ranges, syntax, combinations).  Checks that need
 * the file system or the data (does the file exist, does the size match)
 * are made later, by the readers, but still before anything is written.
 */
#ifndef VOXELUNE_TOOLS_RENDER_OPTIONS_H
#define VOXELUNE_TOOLS_RENDER_OPTIONS_H

#include <string>
#include <vector>

/* Element type of a voxel file (64-bit integers come only from NIfTI and NRRD files). */
enum Voxel_Type {
    VOXEL_U8, VOXEL_I8, VOXEL_U16, VOXEL_I16,
    VOXEL_U32, VOXEL_I32, VOXEL_F32, VOXEL_F64, VOXEL_U64, VOXEL_I64
};

/* Which renderer the tool asks for. */
enum Render_Device {
    RENDER_DEVICE_AUTO = 0,  /* the library decides: GPU when it has room */
    RENDER_DEVICE_CPU = 1,   /* CUDA forbidden */
    RENDER_DEVICE_GPU = 2    /* CUDA wanted; a warning when the volume lands on the CPU */
};

/* Layout of a raw file: dimensions, element type, byte order, header bytes. */
struct Raw_Layout {
    int dim[3] = {0, 0, 0};
    Voxel_Type type = VOXEL_U8;
    bool big_endian = false;
    long long offset = 0;
};

/* One colour map: the tag values it lists and its index into the tag colours. */
struct Render_Map {
    int color_index = 0;
    std::vector<unsigned char> values;
};

/* One light as given on the command line. */
struct Render_Light {
    bool set = false;
    bool on = false;
    unsigned int color = 0;         /* 0xRRGGBB */
    float dir[3] = {0.0f, 0.0f, 1.0f};  /* view space, the way the light travels */
};

struct Render_Options {
    /* input */
    std::string input;              /* empty: the built-in phantom */
    int phantom_size = 128;
    bool raw = false;               /* input is raw: raw_layout holds its layout */
    Raw_Layout raw_layout;
    std::string tags;               /* optional tag volume */
    Voxel_Type tag_type = VOXEL_U8; /* element type of a raw tag file */
    bool window_set = false;
    double window_low = 0.0, window_high = 1.0;

    /* output */
    std::string output = "voxelune.png";
    int width = 512, height = 512;
    unsigned int background = 0x000000;
    std::string progressive_dir;    /* empty: no per-level images */

    /* view and frames */
    float rot[3] = {-25.0f, 35.0f, 0.0f};
    int turntable = 0;              /* 0: one frame at rot */
    bool zoom_set = false;
    float zoom = 1.0f;              /* 1: half the volume's diagonal spans half the image */

    /* render parameters; the phantom's own defaults apply where not set */
    bool threshold_set = false;
    float threshold = 0.5f;
    bool scheme_set = false;
    int scheme = 1;
    std::vector<std::pair<int, unsigned int>> tag_colors;  /* index, 0xRRGGBB */
    std::vector<Render_Map> maps;
    Render_Light lights[5];
    bool clip_box_set = false;
    float clip_box[6] = {0.0f, 1.0f, 0.0f, 1.0f, 0.0f, 1.0f};
    bool depth_clip_set = false;
    float depth_clip = 0.0f;

    /* execution */
    int workers = 0;                /* 0: one per hardware thread */
    Render_Device device = RENDER_DEVICE_AUTO;
    double timeout = 300.0;         /* seconds to wait for one frame */
    bool jitter = true;
    bool timing = false;
    bool trace = false;
    bool quiet = false;
    bool help = false;
};

/*
 * Parses argv[1..argc-1].  Returns 1 on success; 0 with a one-line
 * message in *error for a bad option or value.
 */
int Render_Parse_Options(int argc, const char* const* argv, Render_Options* opt, std::string* error);

/* The text printed by --help. */
const char* Render_Help_Text();

/* Bytes per element of a voxel type. */
int Voxel_Type_Size(Voxel_Type type);

/* Parses "u8", "i16", "f32", ...; returns 0 for an unknown name. */
int Voxel_Type_Parse(const std::string& name, Voxel_Type* type);

#endif
