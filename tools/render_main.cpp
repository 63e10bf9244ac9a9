/*
 * render_main.cpp - voxelune-render: renders a volume (or the built-in
 * phantom) with the Voxelune library into PNG files.
 *
 * Everything the user gives is checked before anything is written: the
 * options, the input files and the places the images go.  Bad input ends
 * the tool with status 2 and no file; a failure while rendering or
 * writing with status 1.
 */
#include "render_file.h"
#include "render_frame.h"
#include "render_options.h"
#include "render_volume.h"

#include <cstdio>
#include <string>

static int fail(int status, const std::string& message)
{
    std::fprintf(stderr, "voxelune-render: %s\n", message.c_str());
    return status;
}

int main(int argc, char** argv)
{
    Render_Options opt;
    std::string error;
    if (!Render_Parse_Options(argc, argv, &opt, &error))
        return fail(2, error);
    if (opt.help) {
        std::fputs(Render_Help_Text(), stdout);
        return 0;
    }

    Render_Volume vol;
    bool is_phantom = opt.input.empty();
    if (is_phantom) {
        Render_Phantom(opt.phantom_size, &vol);
        if (opt.window_set &&
            !Render_Apply_Window(&vol.gli, true, opt.window_low, opt.window_high, &error))
            return fail(2, error);
    } else if (!Render_Load_Volume(opt, &vol, &error)) {
        return fail(2, error);
    }
    if (!Render_Check_Outputs(opt, &error))
        return fail(2, error);

    Render_Catch_Signals();
    if (!Render_Run(opt, &vol, is_phantom, &error))
        return fail(1, error);
    return 0;
}
