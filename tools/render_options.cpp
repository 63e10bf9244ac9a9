/*
 * render_options.cpp - parsing and checking of voxelune-render's options.
 *
 * Every option takes its value either as the next argument or after '='
 * ("--size 256" or "--size=256").  Values are parsed strictly: trailing
 * characters, empty fields and out-of-range numbers are errors.
 */
#include "render_options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

static const char help_text[] =
"Usage: voxelune-render [OPTIONS] [INPUT]\n"
"\n"
"Renders a volume with the Voxelune library into a PNG image.  Without an\n"
"INPUT it renders a built-in phantom (a 128^3 volume with five tagged\n"
"structures) to voxelune.png.\n"
"\n"
"Input:\n"
"  INPUT, -i, --input FILE   grey-level volume: NIfTI (.nii, .nii.gz), NRRD\n"
"                            (.nrrd, .nhdr) or raw (needs --raw)\n"
"  --raw DXxDYxDZ:TYPE       read INPUT as raw voxels, x fastest; TYPE is one of\n"
"                            u8 i8 u16 i16 u32 i32 f32 f64 (e.g. 64x64x32:u16)\n"
"  --endian little|big       byte order of raw files (default little)\n"
"  --offset BYTES            header bytes to skip in a raw INPUT (default 0)\n"
"  --tags FILE               tag (label) volume, values 0..255, same dimensions;\n"
"                            a file that is not NIfTI or NRRD is read raw\n"
"  --tag-type TYPE           element type of a raw tag file (default u8)\n"
"  --window LOW:HIGH         grey levels mapped to 0..1 (clamped); default: the\n"
"                            volume's minimum and maximum (phantom: none)\n"
"  --phantom-size N          edge of the built-in phantom, 8..512 (default 128)\n"
"\n"
"Output:\n"
"  -o, --output FILE         PNG file (default voxelune.png)\n"
"  --size WxH | N            image size in pixels, 1..8192 (default 512x512)\n"
"  --background RRGGBB       colour behind the volume (default 000000)\n"
"  --progressive DIR         also write the image after every refinement level\n"
"                            into DIR (created if missing)\n"
"\n"
"View:\n"
"  --view RX,RY,RZ           rotation in degrees about x, then y, then z\n"
"                            (default -25,35,0)\n"
"  --zoom Z                  magnification, 0.1..10 (default 1: half the\n"
"                            volume's diagonal spans half the image; phantom 1.3)\n"
"  --turntable N             N frames turning about y by 360/N degrees each;\n"
"                            the frame index is added to the file name\n"
"                            (voxelune_000.png, voxelune_001.png, ...)\n"
"\n"
"Rendering:\n"
"  --threshold T             grey-level threshold (default 0.5)\n"
"  --scheme MODE             colour scheme: 0|white, 1|tags, 2|bands, 3|tagged,\n"
"                            4|mixed (default tags)\n"
"  --tag-color I=RRGGBB      colour I of the tag colour table (I 0..255);\n"
"                            repeatable\n"
"  --map COL:T1,T2-T3,...    a colour map: the listed tag values take tag\n"
"                            colour COL; repeatable (at most 255 maps).  With\n"
"                            --tags and no --map, every tag value v present\n"
"                            gets a map of its own with colour v\n"
"  --light I:off | I:RRGGBB | I:RRGGBB:DX,DY,DZ\n"
"                            light I (0 ambient, 1..4 directional, direction in\n"
"                            view space, the way the light travels; +z points\n"
"                            away from the eye); repeatable.  Default: ambient\n"
"                            606060, light 1 C8C8C8 from the upper left,\n"
"                            light 2 707080 from the right\n"
"  --clip-box XL,XH,YL,YH,ZL,ZH\n"
"                            keep only this box, as fractions 0..1 of each\n"
"                            dimension; the clip planes are drawn in yellow\n"
"  --depth-clip D            skip what lies nearer to the eye than D (0: nothing\n"
"                            skipped, 1: everything)\n"
"  --no-jitter               cast every ray through its pixel's corner instead of\n"
"                            a random point near it (reproducible images)\n"
"\n"
"Execution:\n"
"  --workers N               CPU ray workers, 1..64 (default: one per core)\n"
"  --cpu                     render on the CPU only\n"
"  --gpu                     render on the GPU when the device has room\n"
"                            (a warning if it falls back to the CPU)\n"
"  --timeout SEC             longest wait for one frame (default 300)\n"
"  --timing                  print the time of the preprocessing, of every\n"
"                            refinement level and of each frame\n"
"  --trace                   library trace lines on standard error\n"
"  --quiet                   no progress line\n"
"  -h, --help                this text\n"
"\n"
"Exit status: 0 done, 2 bad options or input (nothing is written),\n"
"1 failure while rendering or writing.\n";

const char* Render_Help_Text()
{
    return help_text;
}

int Voxel_Type_Size(Voxel_Type type)
{
    switch (type) {
    case VOXEL_U8: case VOXEL_I8: return 1;
    case VOXEL_U16: case VOXEL_I16: return 2;
    case VOXEL_U32: case VOXEL_I32: case VOXEL_F32: return 4;
    case VOXEL_F64: case VOXEL_U64: case VOXEL_I64: return 8;
    }
    return 1;
}

int Voxel_Type_Parse(const std::string& name, Voxel_Type* type)
{
    static const struct { const char* name; Voxel_Type type; } names[] = {
        {"u8", VOXEL_U8}, {"i8", VOXEL_I8}, {"u16", VOXEL_U16}, {"i16", VOXEL_I16},
        {"u32", VOXEL_U32}, {"i32", VOXEL_I32}, {"f32", VOXEL_F32}, {"f64", VOXEL_F64},
    };
    for (const auto& n : names)
        if (name == n.name) {
            *type = n.type;
            return 1;
        }
    return 0;
}

/* ---- strict value parsers ---- */

/* A whole decimal integer in [lo, hi]. */
static int parse_int(const std::string& s, long long lo, long long hi, long long* out)
{
    if (s.empty() || std::isspace((unsigned char)s[0]))
        return 0;
    errno = 0;
    char* end = nullptr;
    long long v = std::strtoll(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return 0;
    *out = v;
    return 1;
}

/* A finite number. */
static int parse_double(const std::string& s, double* out)
{
    if (s.empty() || std::isspace((unsigned char)s[0]))
        return 0;
    errno = 0;
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    if (errno != 0 || *end != '\0' || !std::isfinite(v))
        return 0;
    *out = v;
    return 1;
}

static int parse_float(const std::string& s, float* out)
{
    double v;
    if (!parse_double(s, &v) || std::fabs(v) > 3.0e38)
        return 0;
    *out = (float)v;
    return 1;
}

/* Six hexadecimal digits, with or without a leading '#'. */
static int parse_color(const std::string& s, unsigned int* out)
{
    std::string h = (!s.empty() && s[0] == '#') ? s.substr(1) : s;
    if (h.size() != 6)
        return 0;
    for (char c : h)
        if (!std::isxdigit((unsigned char)c))
            return 0;
    *out = (unsigned int)std::strtoul(h.c_str(), nullptr, 16);
    return 1;
}

/* Splits s at every sep; keeps empty fields so that they can be refused. */
static std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> out;
    size_t start = 0;
    for (;;) {
        size_t p = s.find(sep, start);
        out.push_back(s.substr(start, p == std::string::npos ? std::string::npos : p - start));
        if (p == std::string::npos)
            return out;
        start = p + 1;
    }
}

/* n floats separated by commas. */
static int parse_float_list(const std::string& s, int n, float* out)
{
    std::vector<std::string> f = split(s, ',');
    if ((int)f.size() != n)
        return 0;
    for (int i = 0; i < n; i++)
        if (!parse_float(f[i], &out[i]))
            return 0;
    return 1;
}

/* "WxH" or "N". */
static int parse_size(const std::string& s, int* w, int* h)
{
    std::vector<std::string> f = split(s, 'x');
    long long a, b;
    if (f.size() == 1 && parse_int(f[0], 1, 8192, &a)) {
        *w = *h = (int)a;
        return 1;
    }
    if (f.size() == 2 && parse_int(f[0], 1, 8192, &a) && parse_int(f[1], 1, 8192, &b)) {
        *w = (int)a;
        *h = (int)b;
        return 1;
    }
    return 0;
}

/* "DXxDYxDZ:TYPE"; each dimension 1 or more, the product below 2^31. */
static int parse_raw(const std::string& s, Raw_Layout* raw)
{
    std::vector<std::string> parts = split(s, ':');
    if (parts.size() != 2 || !Voxel_Type_Parse(parts[1], &raw->type))
        return 0;
    std::vector<std::string> d = split(parts[0], 'x');
    if (d.size() != 3)
        return 0;
    long long n = 1;
    for (int i = 0; i < 3; i++) {
        long long v;
        if (!parse_int(d[i], 1, 2147483647LL, &v))
            return 0;
        raw->dim[i] = (int)v;
        n *= v;
        if (n > 2147483647LL)
            return 0;
    }
    return 1;
}

/* "COL:T1,T2-T3,..." */
static int parse_map(const std::string& s, Render_Map* map)
{
    size_t colon = s.find(':');
    long long col;
    if (colon == std::string::npos || !parse_int(s.substr(0, colon), 0, 255, &col))
        return 0;
    map->color_index = (int)col;
    bool seen[256] = {};
    for (const std::string& item : split(s.substr(colon + 1), ',')) {
        std::vector<std::string> r = split(item, '-');
        long long lo, hi;
        if (r.size() == 1 && parse_int(r[0], 0, 255, &lo))
            hi = lo;
        else if (r.size() != 2 || !parse_int(r[0], 0, 255, &lo) ||
                 !parse_int(r[1], 0, 255, &hi) || hi < lo)
            return 0;
        for (long long v = lo; v <= hi; v++)
            if (!seen[v]) {
                seen[v] = true;
                map->values.push_back((unsigned char)v);
            }
    }
    /* The library counts a map's values in a byte. */
    return map->values.size() <= 255;
}

/* "I:off", "I:RRGGBB" or "I:RRGGBB:DX,DY,DZ"; a directional light needs a direction. */
static int parse_light(const std::string& s, Render_Options* opt)
{
    std::vector<std::string> f = split(s, ':');
    long long id;
    if (f.size() < 2 || f.size() > 3 || !parse_int(f[0], 0, 4, &id))
        return 0;
    Render_Light* l = &opt->lights[id];
    l->set = true;
    if (f.size() == 2 && f[1] == "off") {
        l->on = false;
        return 1;
    }
    if (!parse_color(f[1], &l->color))
        return 0;
    l->on = true;
    if (f.size() == 2)
        return id == 0;
    if (!parse_float_list(f[2], 3, l->dir))
        return 0;
    double len = std::sqrt((double)l->dir[0] * l->dir[0] + (double)l->dir[1] * l->dir[1] +
                           (double)l->dir[2] * l->dir[2]);
    return len > 1e-6;
}

/* Six fractions in [0, 1], each low below its high. */
static int parse_clip_box(const std::string& s, float* box)
{
    if (!parse_float_list(s, 6, box))
        return 0;
    for (int i = 0; i < 6; i++)
        if (box[i] < 0.0f || box[i] > 1.0f)
            return 0;
    return box[0] < box[1] && box[2] < box[3] && box[4] < box[5];
}

static int parse_scheme(const std::string& s, int* scheme)
{
    static const char* names[] = {"white", "tags", "bands", "tagged", "mixed"};
    for (int i = 0; i < 5; i++)
        if (s == names[i]) {
            *scheme = i;
            return 1;
        }
    long long v;
    if (!parse_int(s, 0, 4, &v))
        return 0;
    *scheme = (int)v;
    return 1;
}

/* "LOW:HIGH" (or "LOW,HIGH"); equal ends are refused, LOW above HIGH inverts. */
static int parse_window(const std::string& s, double* lo, double* hi, std::string* why)
{
    char sep = s.find(':') != std::string::npos ? ':' : ',';
    std::vector<std::string> f = split(s, sep);
    if (f.size() != 2 || !parse_double(f[0], lo) || !parse_double(f[1], hi))
        return 0;
    if (*lo == *hi) {
        *why = "the window's ends are equal";
        return 0;
    }
    return 1;
}

/* ---- the option table ---- */

enum Option_Id {
    OPT_INPUT, OPT_RAW, OPT_ENDIAN, OPT_OFFSET, OPT_TAGS, OPT_TAG_TYPE, OPT_WINDOW,
    OPT_PHANTOM_SIZE, OPT_OUTPUT, OPT_SIZE, OPT_BACKGROUND, OPT_PROGRESSIVE, OPT_VIEW,
    OPT_TURNTABLE, OPT_ZOOM, OPT_THRESHOLD, OPT_SCHEME, OPT_TAG_COLOR, OPT_MAP, OPT_LIGHT,
    OPT_CLIP_BOX, OPT_DEPTH_CLIP, OPT_NO_JITTER, OPT_WORKERS, OPT_CPU, OPT_GPU,
    OPT_TIMEOUT, OPT_TIMING, OPT_TRACE, OPT_QUIET, OPT_HELP
};

struct Option_Def {
    const char* name;
    const char* short_name;
    Option_Id id;
    bool has_value;
};

static const Option_Def option_defs[] = {
    {"--input", "-i", OPT_INPUT, true},
    {"--raw", nullptr, OPT_RAW, true},
    {"--endian", nullptr, OPT_ENDIAN, true},
    {"--offset", nullptr, OPT_OFFSET, true},
    {"--tags", nullptr, OPT_TAGS, true},
    {"--tag-type", nullptr, OPT_TAG_TYPE, true},
    {"--window", nullptr, OPT_WINDOW, true},
    {"--phantom-size", nullptr, OPT_PHANTOM_SIZE, true},
    {"--output", "-o", OPT_OUTPUT, true},
    {"--size", nullptr, OPT_SIZE, true},
    {"--background", nullptr, OPT_BACKGROUND, true},
    {"--progressive", nullptr, OPT_PROGRESSIVE, true},
    {"--view", nullptr, OPT_VIEW, true},
    {"--turntable", nullptr, OPT_TURNTABLE, true},
    {"--zoom", nullptr, OPT_ZOOM, true},
    {"--threshold", nullptr, OPT_THRESHOLD, true},
    {"--scheme", nullptr, OPT_SCHEME, true},
    {"--tag-color", nullptr, OPT_TAG_COLOR, true},
    {"--map", nullptr, OPT_MAP, true},
    {"--light", nullptr, OPT_LIGHT, true},
    {"--clip-box", nullptr, OPT_CLIP_BOX, true},
    {"--depth-clip", nullptr, OPT_DEPTH_CLIP, true},
    {"--no-jitter", nullptr, OPT_NO_JITTER, false},
    {"--workers", nullptr, OPT_WORKERS, true},
    {"--cpu", nullptr, OPT_CPU, false},
    {"--gpu", nullptr, OPT_GPU, false},
    {"--timeout", nullptr, OPT_TIMEOUT, true},
    {"--timing", nullptr, OPT_TIMING, false},
    {"--trace", nullptr, OPT_TRACE, false},
    {"--quiet", "-q", OPT_QUIET, false},
    {"--help", "-h", OPT_HELP, false},
};

static const Option_Def* find_option(const std::string& name)
{
    for (const Option_Def& d : option_defs)
        if (name == d.name || (d.short_name && name == d.short_name))
            return &d;
    return nullptr;
}

/* Applies one option with its value; 0 with *why set when the value is bad. */
static int apply_option(Option_Id id, const std::string& v, Render_Options* opt, std::string* why)
{
    long long n;
    switch (id) {
    case OPT_INPUT:
        if (v.empty() || !opt->input.empty())
            return *why = v.empty() ? "empty file name" : "only one input volume", 0;
        opt->input = v;
        return 1;
    case OPT_RAW:
        opt->raw = true;
        return parse_raw(v, &opt->raw_layout) ||
               (*why = "expected DXxDYxDZ:TYPE with dimensions of 1 or more, "
                       "at most 2^31-1 voxels, TYPE u8 i8 u16 i16 u32 i32 f32 f64", 0);
    case OPT_ENDIAN:
        if (v != "little" && v != "big")
            return *why = "expected little or big", 0;
        opt->raw_layout.big_endian = v == "big";
        return 1;
    case OPT_OFFSET:
        if (!parse_int(v, 0, (long long)1 << 62, &n))
            return *why = "expected a byte count of 0 or more", 0;
        opt->raw_layout.offset = n;
        return 1;
    case OPT_TAGS:
        if (v.empty())
            return *why = "empty file name", 0;
        opt->tags = v;
        return 1;
    case OPT_TAG_TYPE:
        return Voxel_Type_Parse(v, &opt->tag_type) ||
               (*why = "expected u8 i8 u16 i16 u32 i32 f32 or f64", 0);
    case OPT_WINDOW:
        opt->window_set = true;
        return parse_window(v, &opt->window_low, &opt->window_high, why) ||
               (why->empty() && (*why = "expected LOW:HIGH, two finite numbers", 0));
    case OPT_PHANTOM_SIZE:
        if (!parse_int(v, 8, 512, &n))
            return *why = "expected an edge of 8 to 512 voxels", 0;
        opt->phantom_size = (int)n;
        return 1;
    case OPT_OUTPUT:
        if (v.empty())
            return *why = "empty file name", 0;
        opt->output = v;
        return 1;
    case OPT_SIZE:
        return parse_size(v, &opt->width, &opt->height) ||
               (*why = "expected WxH or N, each from 1 to 8192 pixels", 0);
    case OPT_BACKGROUND:
        return parse_color(v, &opt->background) || (*why = "expected RRGGBB", 0);
    case OPT_PROGRESSIVE:
        if (v.empty())
            return *why = "empty directory name", 0;
        opt->progressive_dir = v;
        return 1;
    case OPT_VIEW:
        return parse_float_list(v, 3, opt->rot) || (*why = "expected RX,RY,RZ in degrees", 0);
    case OPT_TURNTABLE:
        if (!parse_int(v, 1, 3600, &n))
            return *why = "expected 1 to 3600 frames", 0;
        opt->turntable = (int)n;
        return 1;
    case OPT_ZOOM:
        opt->zoom_set = true;
        return (parse_float(v, &opt->zoom) && opt->zoom >= 0.1f && opt->zoom <= 10.0f) ||
               (*why = "expected a magnification from 0.1 to 10", 0);
    case OPT_THRESHOLD:
        opt->threshold_set = true;
        return parse_float(v, &opt->threshold) || (*why = "expected a finite number", 0);
    case OPT_SCHEME:
        opt->scheme_set = true;
        return parse_scheme(v, &opt->scheme) ||
               (*why = "expected 0-4 or white, tags, bands, tagged, mixed", 0);
    case OPT_TAG_COLOR: {
        size_t eq = v.find('=');
        unsigned int color;
        if (eq == std::string::npos || !parse_int(v.substr(0, eq), 0, 255, &n) ||
            !parse_color(v.substr(eq + 1), &color))
            return *why = "expected I=RRGGBB with I from 0 to 255", 0;
        opt->tag_colors.push_back({(int)n, color});
        return 1;
    }
    case OPT_MAP: {
        Render_Map map;
        if (!parse_map(v, &map))
            return *why = "expected COL:T1,T2-T3,... with values from 0 to 255, at most 255 of them", 0;
        if (opt->maps.size() >= 255)
            return *why = "at most 255 colour maps", 0;
        opt->maps.push_back(map);
        return 1;
    }
    case OPT_LIGHT:
        return parse_light(v, opt) ||
               (*why = "expected I:off, 0:RRGGBB or I:RRGGBB:DX,DY,DZ with I from 0 to 4 "
                       "and a non-zero direction", 0);
    case OPT_CLIP_BOX:
        opt->clip_box_set = true;
        return parse_clip_box(v, opt->clip_box) ||
               (*why = "expected six fractions XL,XH,YL,YH,ZL,ZH in 0..1, each low below "
                       "its high", 0);
    case OPT_DEPTH_CLIP:
        opt->depth_clip_set = true;
        return (parse_float(v, &opt->depth_clip) && opt->depth_clip >= 0.0f &&
                opt->depth_clip <= 1.0f) || (*why = "expected a value from 0 to 1", 0);
    case OPT_NO_JITTER:
        opt->jitter = false;
        return 1;
    case OPT_WORKERS:
        if (!parse_int(v, 1, 64, &n))
            return *why = "expected 1 to 64 workers", 0;
        opt->workers = (int)n;
        return 1;
    case OPT_CPU:
    case OPT_GPU: {
        Render_Device d = id == OPT_CPU ? RENDER_DEVICE_CPU : RENDER_DEVICE_GPU;
        if (opt->device != RENDER_DEVICE_AUTO && opt->device != d)
            return *why = "--cpu and --gpu exclude each other", 0;
        opt->device = d;
        return 1;
    }
    case OPT_TIMEOUT: {
        double t;
        if (!parse_double(v, &t) || t <= 0.0 || t > 86400.0)
            return *why = "expected a number of seconds above 0", 0;
        opt->timeout = t;
        return 1;
    }
    case OPT_TIMING: opt->timing = true; return 1;
    case OPT_TRACE: opt->trace = true; return 1;
    case OPT_QUIET: opt->quiet = true; return 1;
    case OPT_HELP: opt->help = true; return 1;
    }
    return 0;
}

/* Combinations that no single option can check. */
static int check_combinations(const Render_Options* opt, std::string* error)
{
    if (opt->raw && opt->input.empty()) {
        *error = "--raw needs an input file";
        return 0;
    }
    if (!opt->raw && opt->raw_layout.offset != 0) {
        *error = "--offset applies only to a raw input (--raw)";
        return 0;
    }
    if (!opt->tags.empty() && opt->input.empty()) {
        *error = "--tags needs an input volume (the phantom has its own tags)";
        return 0;
    }
    return 1;
}

int Render_Parse_Options(int argc, const char* const* argv, Render_Options* opt, std::string* error)
{
    for (int i = 1; i < argc; i++) {
        std::string arg = argv[i];
        if (arg.size() < 2 || arg[0] != '-') {
            std::string why;
            if (!apply_option(OPT_INPUT, arg, opt, &why)) {
                *error = "input '" + arg + "': " + why;
                return 0;
            }
            continue;
        }
        std::string name = arg, value;
        bool inline_value = false;
        size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            inline_value = true;
        }
        const Option_Def* def = find_option(name);
        if (!def) {
            *error = "unknown option '" + name + "' (see --help)";
            return 0;
        }
        if (def->has_value && !inline_value) {
            if (i + 1 >= argc) {
                *error = "option " + name + " needs a value";
                return 0;
            }
            value = argv[++i];
        } else if (!def->has_value && inline_value) {
            *error = "option " + name + " takes no value";
            return 0;
        }
        std::string why;
        if (!apply_option(def->id, value, opt, &why)) {
            *error = def->has_value ? "bad value '" + value + "' for " + name + ": " + why : why;
            return 0;
        }
    }
    if (opt->help)
        return 1;
    return check_combinations(opt, error);
}
