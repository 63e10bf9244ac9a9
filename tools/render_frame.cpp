/*
 * render_frame.cpp - one run of the library from Ray_Init to Ray_Exit.
 *
 * A CPU frame arrives progressively: Ray_Start returns at once, and the
 * library's draw thread calls the box's draw_handler once per finished
 * refinement level, coarsest first.  The handler counts the redraws,
 * prints the progress line, writes the per-level image when asked, and
 * wakes the main thread after the last level.  A GPU frame is complete
 * when Ray_Start returns and is never redrawn.
 */
#include "render_frame.h"
#include "render_file.h"
#include "render_png.h"

#include <voxelune/voxelune.h>
#include <voxelune/voxelune_layout.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>

typedef std::chrono::steady_clock Clock;

static double ms_since(Clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

/* Splits "dir/stem.ext" into "dir/stem" and ".ext" (the extension may be empty). */
static void split_extension(const std::string& path, std::string* stem, std::string* ext)
{
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        dot == (slash == std::string::npos ? 0 : slash + 1)) {
        *stem = path;
        ext->clear();
    } else {
        *stem = path.substr(0, dot);
        *ext = path.substr(dot);
    }
}

static std::string frame_suffix(int frame, int frames)
{
    int digits = 3;
    for (int n = frames - 1; n >= 1000; n /= 10)
        digits++;
    char buf[32];
    std::snprintf(buf, sizeof buf, "_%0*d", digits, frame);
    return buf;
}

std::string Render_Frame_Name(const std::string& output, int frame, int frames)
{
    if (frames <= 1)
        return output;
    std::string stem, ext;
    split_extension(output, &stem, &ext);
    return stem + frame_suffix(frame, frames) + ext;
}

std::string Render_Level_Name(const std::string& dir, const std::string& output, int frame,
                              int frames, int level)
{
    std::string stem, ext;
    split_extension(output, &stem, &ext);
    size_t slash = stem.find_last_of('/');
    if (slash != std::string::npos)
        stem = stem.substr(slash + 1);
    std::string name = stem + (frames > 1 ? frame_suffix(frame, frames) : "") + "_level" +
                       std::to_string(level) + ".png";
    return dir + (dir.back() == '/' ? "" : "/") + name;
}

/* ---- output checks ---- */

int Render_Check_Outputs(const Render_Options& opt, std::string* error)
{
    int frames = opt.turntable > 0 ? opt.turntable : 1;
    for (int f = 0; f < frames; f++)
        if (!Render_Check_Target(Render_Frame_Name(opt.output, f, frames), error))
            return 0;
    if (opt.progressive_dir.empty())
        return 1;
    const std::string& dir = opt.progressive_dir;
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
        if (errno != ENOENT) {
            *error = "--progressive " + dir + ": " + std::strerror(errno);
            return 0;
        }
        /* created later: a level image's own check covers the parent */
        std::string parent = dir;
        while (parent.size() > 1 && parent.back() == '/')
            parent.pop_back();
        return Render_Check_Target(parent, error);
    }
    if (!S_ISDIR(st.st_mode)) {
        *error = "--progressive " + dir + ": not a directory";
        return 0;
    }
    int levels = Voxelune_Level_Count(opt.width, opt.height);
    for (int f = 0; f < frames; f++)
        for (int k = 1; k <= levels; k++)
            if (!Render_Check_Target(Render_Level_Name(dir, opt.output, f, frames, k), error))
                return 0;
    return 1;
}

/* ---- render parameters ---- */

/* A palette for tag volumes from files; entry 0 (untagged) is white. */
static unsigned int palette_color(int i)
{
    static const unsigned int colors[] = {
        0xE6194B, 0x3CB44B, 0xFFE119, 0x4363D8, 0xF58231, 0x911EB4,
        0x42D4F4, 0xF032E6, 0xBFEF45, 0xFABED4, 0x469990, 0xDCBEFF,
    };
    return i == 0 ? 0xFFFFFF : colors[(i - 1) % (int)(sizeof colors / sizeof colors[0])];
}

/* The tag colour table: phantom or palette colours, then the options' entries. */
static void set_tag_colors(const Render_Options& opt, bool is_phantom)
{
    unsigned short c16[256], c8[256], c0[256];
    for (int i = 0; i < 256; i++) {
        unsigned int c = is_phantom && i <= PHANTOM_TAGS ? Phantom_Colors[i] : palette_color(i);
        for (const auto& tc : opt.tag_colors)
            if (tc.first == i)
                c = tc.second;
        c16[i] = (unsigned short)((c >> 16) & 0xFF);
        c8[i] = (unsigned short)((c >> 8) & 0xFF);
        c0[i] = (unsigned short)(c & 0xFF);
    }
    Ray_Set_Color_TAG(256, c16, c8, c0);
}

/*
 * The colour maps: the options' maps, or else one map per tag value
 * present (1 to 255, in increasing order) with that value as its colour.
 */
static void set_color_maps(const Render_Options& opt, const Render_Volume& vol)
{
    std::vector<Render_Map> maps = opt.maps;
    if (maps.empty()) {
        bool present[256] = {};
        for (unsigned char t : vol.tag)
            present[t] = true;
        for (int v = 1; v < 256; v++)
            if (present[v]) {
                Render_Map m;
                m.color_index = v;
                m.values.push_back((unsigned char)v);
                maps.push_back(m);
            }
    }
    unsigned char nb = (unsigned char)maps.size();
    std::vector<unsigned char> count(nb + 1), col(nb + 1);
    std::vector<unsigned char*> list(nb + 1);
    for (int i = 0; i < nb; i++) {
        count[i] = (unsigned char)maps[i].values.size();
        col[i] = (unsigned char)maps[i].color_index;
        list[i] = maps[i].values.data();
    }
    Ray_Set_Color_Map(nb, count.data(), list.data(), col.data());
}

/* Ambient light and two directional lights unless the options say otherwise. */
static void set_lights(const Render_Options& opt)
{
    Render_Light lights[5];
    lights[0].on = true;
    lights[0].color = 0x606060;
    lights[1].on = true;
    lights[1].color = 0xC8C8C8;
    lights[1].dir[0] = 0.5f; lights[1].dir[1] = 0.5f; lights[1].dir[2] = 1.0f;
    lights[2].on = true;
    lights[2].color = 0x707080;
    lights[2].dir[0] = -1.0f; lights[2].dir[1] = 0.0f; lights[2].dir[2] = 0.6f;
    for (int i = 0; i < 5; i++) {
        const Render_Light& l = opt.lights[i].set ? opt.lights[i] : lights[i];
        Vector_4 dir(l.dir[0], l.dir[1], l.dir[2], 0.0f);
        Ray_Set_Light((unsigned short)i, l.on ? 1 : 0, l.color, &dir);
    }
}

static void set_parameters(const Render_Options& opt, const Render_Volume& vol, bool is_phantom)
{
    Ray_Set_Threshold(opt.threshold);
    Ray_Set_Color_Scheme((unsigned char)opt.scheme);
    set_tag_colors(opt, is_phantom);
    set_color_maps(opt, vol);
    set_lights(opt);
    const float* b = opt.clip_box;
    Ray_Set_Clip(RENDER_SLOT, b[0], b[1], b[2], b[3], b[4], b[5]);
}

/*
 * The view: rotations in degrees about x, then y, then z, then a uniform
 * magnification.  Without one it is the library's own Ray_Set_Rotation;
 * with one the same rotations are built here, followed by a scale of
 * 1/zoom (view space shrinks onto the volume, so the volume grows).
 */
static void set_view(float rx, float ry, float rz, float zoom)
{
    if (zoom == 1.0f) {
        Ray_Set_Rotation(rx, ry, rz);
        return;
    }
    const float deg = 0.017453292f;
    Matrix_4x4 view;
    view.init();
    view.rot_x(rx * deg, combine_after);
    view.rot_y(ry * deg, combine_after);
    view.rot_z(rz * deg, combine_after);
    view.scale(1.0f / zoom, 1.0f / zoom, 1.0f / zoom, combine_after);
    Ray_Set_Transfo(&view);
}

/* ---- host hooks ---- */

static void trace_to_stderr(unsigned int, const char* line, void*)
{
    std::fprintf(stderr, "%s\n", line);
}

/* Casts every ray through its pixel's corner. */
static float no_jitter()
{
    return 0.0f;
}

/* ---- progressive frames ---- */

/* What the draw handler shares with the main thread during one frame. */
struct Frame_Progress {
    std::mutex lock;
    std::condition_variable done;
    const Render_Options* opt = nullptr;
    int frame = 0, frames = 1;
    int levels = 1;
    int draws = 0;                 /* redraws of this frame so far */
    Clock::time_point start;
    std::vector<double> level_ms;  /* time of each redraw since Ray_Start */
    bool line_open = false;        /* a progress line without its line break */
    std::string write_error;       /* first failed per-level image */
};

static bool stderr_is_tty()
{
    return isatty(2) != 0;
}

/* The progress line: overwritten in place on a terminal, one line per level otherwise. */
static void print_progress(Frame_Progress* p, int level, double ms)
{
    if (p->opt->quiet)
        return;
    bool tty = stderr_is_tty() && !p->opt->trace;
    int block = 1 << (p->levels - level);
    std::fprintf(stderr, "%sframe %d/%d: level %d of %d (%dx%d blocks) %.0f ms%s",
                 tty ? "\r" : "", p->frame + 1, p->frames, level, p->levels, block, block, ms,
                 tty ? "   " : "\n");
    std::fflush(stderr);
    p->line_open = tty;
}

/*
 * Copies the image while the workers may still write later levels into it.
 * The library draws its boxes without its lock by design; each pixel is an
 * aligned 32-bit word written whole, so a copy holds every pixel either of
 * this level or of a later one.
 */
#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("thread")))
#endif
static void copy_live_image(const unsigned int* src, unsigned int* dst, int n)
{
    for (int i = 0; i < n; i++)
        dst[i] = src[i];
}

static void write_level_image(Frame_Progress* p, Boxs* box, int level)
{
    int n = box->width * box->height;
    std::vector<unsigned int> words(n);
    copy_live_image(box->Graph_Normal, words.data(), n);
    std::vector<unsigned char> rgb(3 * (size_t)n);
    Render_Words_To_Rgb(words.data(), n, p->opt->background, rgb.data());
    std::string name = Render_Level_Name(p->opt->progressive_dir, p->opt->output, p->frame,
                                         p->frames, level);
    std::string error;
    if (!Render_Write_Png(name, box->width, box->height, rgb.data(), &error) &&
        p->write_error.empty())
        p->write_error = error;
}

/* The box's redraw, on the library's draw thread: once per finished level. */
static void on_draw(Boxs* box, void* context)
{
    Frame_Progress* p = (Frame_Progress*)context;
    std::lock_guard<std::mutex> hold(p->lock);
    if (p->draws >= p->levels)
        return;  /* nothing more is expected for this frame */
    int level = ++p->draws;
    double ms = ms_since(p->start);
    p->level_ms.push_back(ms);
    if (!p->opt->progressive_dir.empty())
        write_level_image(p, box, level);
    print_progress(p, level, ms);
    if (level == p->levels)
        p->done.notify_all();
}

/* Waits for the last level of a CPU frame; 0 when the timeout passed first. */
static int wait_for_frame(Frame_Progress* p, double timeout_s)
{
    std::unique_lock<std::mutex> hold(p->lock);
    auto limit = p->start + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(timeout_s));
    return p->done.wait_until(hold, limit, [p] { return p->draws >= p->levels; }) ? 1 : 0;
}

/* ---- the run ---- */

static int worker_count(const Render_Options& opt)
{
    if (opt.workers > 0)
        return opt.workers;
    unsigned int n = std::thread::hardware_concurrency();
    return (int)std::min(64u, std::max(1u, n));
}

/* Renders frame f into box and writes its PNG; 1 on success. */
static int render_frame(const Render_Options& opt, Boxs* box, Frame_Progress* progress,
                        bool on_gpu, float zoom, int f, int frames, std::string* error)
{
    float turn = frames > 1 ? 360.0f * (float)f / (float)frames : 0.0f;
    set_view(opt.rot[0], opt.rot[1] + turn, opt.rot[2], zoom);
    {
        std::lock_guard<std::mutex> hold(progress->lock);
        progress->frame = f;
        progress->draws = 0;
        progress->level_ms.clear();
        progress->start = Clock::now();
    }
    Ray_Start(box, RENDER_SLOT);
    double frame_ms;
    if (on_gpu) {
        frame_ms = ms_since(progress->start);
        if (!opt.quiet)
            std::fprintf(stderr, "frame %d/%d: rendered on the GPU in %.0f ms\n", f + 1, frames,
                         frame_ms);
    } else {
        if (!wait_for_frame(progress, opt.timeout)) {
            Ray_Stop(0);
            std::lock_guard<std::mutex> hold(progress->lock);
            char limit[32];
            std::snprintf(limit, sizeof limit, "%g", opt.timeout);
            *error = "frame " + std::to_string(f + 1) + " did not finish within " + limit +
                     " s (" + std::to_string(progress->draws) +
                     " of " + std::to_string(progress->levels) + " levels)";
            /* No more redraws may reach the progress record after this point. */
            progress->draws = progress->levels;
            return 0;
        }
        std::lock_guard<std::mutex> hold(progress->lock);
        frame_ms = progress->level_ms.back();
        if (!opt.quiet)
            std::fprintf(stderr, "%sframe %d/%d: done in %.0f ms (%d levels on the CPU)\n",
                         progress->line_open ? "\n" : "", f + 1, frames, frame_ms,
                         progress->levels);
        if (!progress->write_error.empty()) {
            *error = progress->write_error;
            return 0;
        }
    }
    if (opt.timing) {
        std::printf("timing: frame %d: %.1f ms", f, frame_ms);
        std::lock_guard<std::mutex> hold(progress->lock);
        for (size_t k = 0; k < progress->level_ms.size(); k++)
            std::printf("%slevel %zu at %.1f ms", k ? ", " : " (", k + 1, progress->level_ms[k]);
        std::printf("%s\n", progress->level_ms.empty() ? "" : ")");
    }

    /* After the last level no worker writes this frame any more. */
    int n = box->width * box->height;
    std::vector<unsigned char> rgb(3 * (size_t)n);
    Render_Words_To_Rgb(box->Graph_Normal, n, opt.background, rgb.data());
    std::string name = Render_Frame_Name(opt.output, f, frames);
    if (!Render_Write_Png(name, box->width, box->height, rgb.data(), error))
        return 0;
    std::printf("wrote %s (%dx%d)\n", name.c_str(), box->width, box->height);
    std::fflush(stdout);
    return 1;
}

int Render_Run(const Render_Options& opt, Render_Volume* vol, bool is_phantom,
               std::string* error)
{
    bool made_dir = false;
    if (!opt.progressive_dir.empty()) {
        made_dir = Render_Make_Dir(opt.progressive_dir) == 0;
        if (!made_dir && errno != EEXIST) {
            *error = opt.progressive_dir + ": cannot create the directory: " + std::strerror(errno);
            return 0;
        }
    }
    if (opt.trace)
        Corekit_Set_Trace_Sink(trace_to_stderr, nullptr);
    Corekit_Set_Cuda_Permission(opt.device == RENDER_DEVICE_CPU ? 0 : 1);
    Corekit_Set_Random(opt.jitter ? nullptr : no_jitter);

    int workers = worker_count(opt);
    Ray_Init((unsigned short)workers);
    set_parameters(opt, *vol, is_phantom);

    Clock::time_point t0 = Clock::now();
    Ray_Set_Volume(RENDER_SLOT, vol->dim[0], vol->dim[1], vol->dim[2], vol->gli.data(),
                   vol->tag.data());
    double prep_ms = ms_since(t0);
    /* The query answers 1 only for a volume kept on the CPU: a GPU slot drops its host gradients. */
    bool on_gpu = Ray_Set_Volume(RENDER_SLOT, vol->dim[0], vol->dim[1], vol->dim[2], nullptr,
                                 nullptr) == 0;
    if (opt.device == RENDER_DEVICE_GPU && !on_gpu)
        std::fprintf(stderr, "voxelune-render: warning: no CUDA device with room for the "
                             "volume; rendering on the CPU\n");
    if (opt.depth_clip_set)
        Ray_Set_Clip(opt.depth_clip);
    if (opt.timing)
        std::printf("timing: volume %dx%dx%d registered (smoothing, gradients%s) in %.1f ms; "
                    "%s, %d workers\n", vol->dim[0], vol->dim[1], vol->dim[2],
                    on_gpu ? ", upload" : "", prep_ms, on_gpu ? "GPU" : "CPU", workers);

    std::unique_ptr<Boxs> box(new Boxs(opt.width, opt.height));
    std::unique_ptr<Frame_Progress> progress(new Frame_Progress);
    progress->opt = &opt;
    progress->frames = opt.turntable > 0 ? opt.turntable : 1;
    progress->levels = Voxelune_Level_Count(opt.width, opt.height);
    box->draw_handler = on_draw;
    box->draw_context = progress.get();

    float zoom = opt.zoom_set ? opt.zoom : is_phantom ? 1.3f : 1.0f;
    int ok = 1;
    Clock::time_point all = Clock::now();
    for (int f = 0; f < progress->frames && ok; f++)
        ok = render_frame(opt, box.get(), progress.get(), on_gpu, zoom, f, progress->frames,
                          error);
    if (ok && opt.timing && progress->frames > 1)
        std::printf("timing: %d frames in %.1f ms\n", progress->frames, ms_since(all));

    /* The pipeline ends before the box and the volume go away. */
    Ray_Set_Volume(RENDER_SLOT, 0, 0, 0, nullptr, nullptr);
    Ray_Exit();
    Corekit_Set_Trace_Sink(nullptr, nullptr);
    Corekit_Set_Random(nullptr);
    if (!ok && made_dir)
        rmdir(opt.progressive_dir.c_str());  /* only while still empty */
    return ok;
}
