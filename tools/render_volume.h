/*
 * render_volume.h - volumes for voxelune-render: readers for raw, NIfTI
 * and NRRD files, the grey-level window, tag volumes and the built-in
 * phantom.
 *
 * Every reader returns its voxels as floats, x fastest, then y, then z,
 * which is the layout the library takes; NaN and inf voxels of float
 * files arrive as they are stored.  Each reader checks the header
 * (dimensions, voxel count, type, data offset and length against the
 * file) before it reads any data.  Readers return 1 on success, or 0
 * with a one-line message in *error; they never print.
 */
#ifndef VOXELUNE_TOOLS_RENDER_VOLUME_H
#define VOXELUNE_TOOLS_RENDER_VOLUME_H

#include "render_options.h"

#include <string>
#include <vector>

/* A volume as the library takes it: grey levels in 0..1 and a tag per voxel. */
struct Render_Volume {
    int dim[3] = {0, 0, 0};
    std::vector<float> gli;
    std::vector<unsigned char> tag;
};

/* Voxel values of a file, before any window. */
struct Voxel_Data {
    int dim[3] = {0, 0, 0};
    std::vector<float> values;
};

/* The file formats the tool reads. */
enum Volume_Format { FORMAT_RAW, FORMAT_NIFTI, FORMAT_NRRD, FORMAT_UNKNOWN };

/* Format from the file name: .nii/.nii.gz, .nrrd/.nhdr, anything else unknown. */
Volume_Format Volume_Format_Of(const std::string& path);

/* Whether the NIfTI and NRRD readers were built in. */
int Render_Have_Nifti();
int Render_Have_Nrrd();

int Render_Read_Raw(const std::string& path, const Raw_Layout& layout, Voxel_Data* out,
                    std::string* error);
int Render_Read_Nifti(const std::string& path, Voxel_Data* out, std::string* error);
int Render_Read_Nrrd(const std::string& path, Voxel_Data* out, std::string* error);

/*
 * Reads the grey-level volume of the options (raw when opt.raw, else by
 * the file's name), maps it through the window and, when opt.tags is
 * set, reads the tag volume (a file of unknown format is raw, with the
 * grey volume's dimensions and opt.tag_type).
 */
int Render_Load_Volume(const Render_Options& opt, Render_Volume* vol, std::string* error);

/*
 * Maps values to 0..1: (v - low) / (high - low), clamped (so -inf and inf
 * go to the ends); NaN stays NaN.  Without a window (set false) low and
 * high are the smallest and the largest finite value.  Refused: equal
 * ends (also a volume with one finite value without a window), no finite
 * value.
 */
int Render_Apply_Window(std::vector<float>* values, bool set, double low, double high,
                        std::string* error);

/* Tag values: whole numbers from 0 to 255, else refused. */
int Render_Make_Tags(const std::vector<float>& values, std::vector<unsigned char>* tags,
                     std::string* error);

/* ---- the built-in phantom ---- */

/*
 * An n x n x n volume (grey levels 0..1) with five tagged structures:
 * 1 a thin translucent shell with a wedge cut away, 2 a torus, 3 a ball,
 * 4 two rods, 5 a cube; tag 0 elsewhere.
 */
void Render_Phantom(int n, Render_Volume* vol);

/* Number of tagged structures of the phantom, and their colours (0xRRGGBB). */
enum { PHANTOM_TAGS = 5 };
extern const unsigned int Phantom_Colors[PHANTOM_TAGS + 1];

#endif
