/*
 * render_frame.h - driving the Voxelune library for voxelune-render:
 * parameters, volume registration, frames and their progressive redraws.
 */
#ifndef VOXELUNE_TOOLS_RENDER_FRAME_H
#define VOXELUNE_TOOLS_RENDER_FRAME_H

#include "render_options.h"
#include "render_volume.h"

#include <string>

/* The volume slot the tool renders in. */
enum { RENDER_SLOT = 1 };

/*
 * File name of frame `frame` of `frames`: the output itself for a single
 * frame, else the index (at least three digits) before the extension:
 * "out/a.png" -> "out/a_007.png".
 */
std::string Render_Frame_Name(const std::string& output, int frame, int frames);

/*
 * File name of the image after level `level` (1 = the coarsest) of a
 * frame, in directory dir: "<dir>/<stem>[_<frame>]_level<level>.png".
 */
std::string Render_Level_Name(const std::string& dir, const std::string& output, int frame,
                              int frames, int level);

/*
 * Checks every file the options will write before anything is written:
 * each frame and (when the directory exists) each level image must be a
 * regular file or a new name in a writable directory; the progressive
 * directory must be a directory or a new name.  1 when fine, else 0 with
 * a message.
 */
int Render_Check_Outputs(const Render_Options& opt, std::string* error);

/*
 * Renders every frame of the options from vol and writes the PNG files.
 * Starts and stops the library.  is_phantom selects the phantom's colours
 * and maps where the options give none.  Returns 1 on success, 0 with a
 * message (a frame that did not finish in time, a PNG that could not be
 * written).
 */
int Render_Run(const Render_Options& opt, Render_Volume* vol, bool is_phantom,
               std::string* error);

#endif
