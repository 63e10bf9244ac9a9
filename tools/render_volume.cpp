/*
 * render_volume.cpp - reading volumes into the library's float layout.
 *
 * Each reader checks the file before it trusts it: the file must open,
 * its header must parse, the voxel count must fit the library's signed
 * 32-bit count, and the data must be exactly as long as the header says.
 */
#include "render_volume.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#ifdef VOXELUNE_RENDER_NIFTI
#include <nifti1_io.h>
#include <zlib.h>
#endif
#ifdef VOXELUNE_RENDER_NRRD
#include <teem/nrrd.h>
#endif

/* The library counts voxels in a signed 32-bit integer. */
static const long long max_voxels = 2147483647LL;

static bool ends_with(const std::string& s, const char* suffix)
{
    size_t n = std::strlen(suffix);
    if (s.size() < n)
        return false;
    for (size_t i = 0; i < n; i++)
        if (std::tolower((unsigned char)s[s.size() - n + i]) != suffix[i])
            return false;
    return true;
}

Volume_Format Volume_Format_Of(const std::string& path)
{
    if (ends_with(path, ".nii") || ends_with(path, ".nii.gz"))
        return FORMAT_NIFTI;
    if (ends_with(path, ".nrrd") || ends_with(path, ".nhdr"))
        return FORMAT_NRRD;
    return FORMAT_UNKNOWN;
}

int Render_Have_Nifti()
{
#ifdef VOXELUNE_RENDER_NIFTI
    return 1;
#else
    return 0;
#endif
}

int Render_Have_Nrrd()
{
#ifdef VOXELUNE_RENDER_NRRD
    return 1;
#else
    return 0;
#endif
}

/* Is path a regular file that we may read?  Sets a message naming it if not. */
static int check_readable(const std::string& path, std::string* error)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        *error = path + ": " + std::strerror(errno);
        return 0;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = path + ": not a regular file";
        return 0;
    }
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        *error = path + ": " + std::strerror(errno);
        return 0;
    }
    std::fclose(f);
    return 1;
}

/* Checks three dimensions and their product against the library's limit. */
static int check_dims(const std::string& path, const long long d[3], std::string* error)
{
    long long n = 1;
    for (int i = 0; i < 3; i++) {
        if (d[i] < 1 || d[i] > max_voxels) {
            *error = path + ": dimension " + std::to_string(d[i]) + " out of range";
            return 0;
        }
        n *= d[i];
        if (n > max_voxels) {
            *error = path + ": more than 2^31-1 voxels";
            return 0;
        }
    }
    return 1;
}

/* ---- raw ---- */

/* One element at p, in the file's byte order, as a float. */
static float raw_element(const unsigned char* p, Voxel_Type type, bool swap)
{
    unsigned char b[8];
    int size = Voxel_Type_Size(type);
    for (int i = 0; i < size; i++)
        b[i] = swap ? p[size - 1 - i] : p[i];
    switch (type) {
    case VOXEL_U8: return (float)b[0];
    case VOXEL_I8: return (float)(signed char)b[0];
    case VOXEL_U16: { unsigned short v; std::memcpy(&v, b, 2); return (float)v; }
    case VOXEL_I16: { short v; std::memcpy(&v, b, 2); return (float)v; }
    case VOXEL_U32: { unsigned int v; std::memcpy(&v, b, 4); return (float)v; }
    case VOXEL_I32: { int v; std::memcpy(&v, b, 4); return (float)v; }
    case VOXEL_F32: { float v; std::memcpy(&v, b, 4); return v; }
    case VOXEL_F64: { double v; std::memcpy(&v, b, 8); return (float)v; }
    }
    return 0.0f;
}

static bool host_is_big_endian()
{
    const unsigned short one = 1;
    unsigned char first;
    std::memcpy(&first, &one, 1);
    return first == 0;
}

int Render_Read_Raw(const std::string& path, const Raw_Layout& layout, Voxel_Data* out,
                    std::string* error)
{
    if (!check_readable(path, error))
        return 0;
    long long d[3] = {layout.dim[0], layout.dim[1], layout.dim[2]};
    if (!check_dims(path, d, error))
        return 0;
    long long n = d[0] * d[1] * d[2];
    int size = Voxel_Type_Size(layout.type);

    struct stat st;
    stat(path.c_str(), &st);
    long long expected = layout.offset + n * size;
    if ((long long)st.st_size != expected) {
        *error = path + ": the dimensions do not match the file size (" +
                 std::to_string(d[0]) + "x" + std::to_string(d[1]) + "x" + std::to_string(d[2]) +
                 " voxels of " + std::to_string(size) + " bytes" +
                 (layout.offset ? " after " + std::to_string(layout.offset) + " header bytes" : "") +
                 " need " + std::to_string(expected) + " bytes, the file has " +
                 std::to_string((long long)st.st_size) + ")";
        return 0;
    }

    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f || std::fseek(f, (long)layout.offset, SEEK_SET) != 0) {
        *error = path + ": " + std::strerror(errno);
        if (f)
            std::fclose(f);
        return 0;
    }
    out->values.resize((size_t)n);
    bool swap = layout.big_endian != host_is_big_endian();
    std::vector<unsigned char> chunk(1 << 16);
    long long per_chunk = (long long)chunk.size() / size;
    for (long long done = 0; done < n;) {
        long long count = std::min(per_chunk, n - done);
        if (std::fread(chunk.data(), (size_t)size, (size_t)count, f) != (size_t)count) {
            *error = path + ": read error";
            std::fclose(f);
            return 0;
        }
        for (long long i = 0; i < count; i++)
            out->values[(size_t)(done + i)] = raw_element(&chunk[(size_t)(i * size)], layout.type, swap);
        done += count;
    }
    std::fclose(f);
    for (int i = 0; i < 3; i++)
        out->dim[i] = (int)d[i];
    return 1;
}

/* ---- NIfTI ---- */

#ifdef VOXELUNE_RENDER_NIFTI
/*
 * Bytes of a file after decompression (plain files are read as they are);
 * -1 when it cannot be read.  niftilib fills missing data with zeros, so
 * the tool measures the data itself.
 */
static long long stored_size(const std::string& path)
{
    if (!ends_with(path, ".gz")) {
        struct stat st;
        return stat(path.c_str(), &st) == 0 ? (long long)st.st_size : -1;
    }
    gzFile f = gzopen(path.c_str(), "rb");
    if (!f)
        return -1;
    std::vector<char> buf(1 << 16);
    long long total = 0;
    int got;
    while ((got = gzread(f, buf.data(), (unsigned)buf.size())) > 0)
        total += got;
    gzclose(f);
    return got < 0 ? -1 : total;
}

/* Element i of a loaded NIfTI image as a float; 0 with ok false for an unsupported type. */
static float nifti_element(const nifti_image* nim, size_t i, bool* ok)
{
    const void* p = nim->data;
    switch (nim->datatype) {
    case DT_UINT8: return (float)((const unsigned char*)p)[i];
    case DT_INT8: return (float)((const signed char*)p)[i];
    case DT_UINT16: return (float)((const unsigned short*)p)[i];
    case DT_INT16: return (float)((const short*)p)[i];
    case DT_UINT32: return (float)((const unsigned int*)p)[i];
    case DT_INT32: return (float)((const int*)p)[i];
    case DT_UINT64: return (float)((const unsigned long long*)p)[i];
    case DT_INT64: return (float)((const long long*)p)[i];
    case DT_FLOAT32: return ((const float*)p)[i];
    case DT_FLOAT64: return (float)((const double*)p)[i];
    default: *ok = false; return 0.0f;
    }
}
#endif

int Render_Read_Nifti(const std::string& path, Voxel_Data* out, std::string* error)
{
#ifdef VOXELUNE_RENDER_NIFTI
    if (!check_readable(path, error))
        return 0;
    nifti_set_debug_level(0);
    /* The header first: dimensions and type are checked before any data is read. */
    nifti_image* nim = nifti_image_read(path.c_str(), 0);
    if (!nim) {
        *error = path + ": not a readable NIfTI file";
        return 0;
    }
    long long d[3] = {nim->nx, nim->ny > 0 ? nim->ny : 1, nim->nz > 0 ? nim->nz : 1};
    for (int k = 4; k <= 7 && k <= nim->ndim; k++)
        if (nim->dim[k] > 1) {
            *error = path + ": only 3-D volumes are rendered (dimension " + std::to_string(k) +
                     " has " + std::to_string(nim->dim[k]) + " entries)";
            nifti_image_free(nim);
            return 0;
        }
    if (!check_dims(path, d, error)) {
        nifti_image_free(nim);
        return 0;
    }
    bool ok = true;
    nim->data = nullptr;
    switch (nim->datatype) {
    case DT_UINT8: case DT_INT8: case DT_UINT16: case DT_INT16: case DT_UINT32:
    case DT_INT32: case DT_UINT64: case DT_INT64: case DT_FLOAT32: case DT_FLOAT64:
        break;
    default:
        *error = path + ": unsupported NIfTI data type " + std::to_string(nim->datatype);
        nifti_image_free(nim);
        return 0;
    }
    long long need = (long long)nim->iname_offset + (long long)nim->nvox * nim->nbyper;
    long long have = stored_size(path);
    if (have < need) {
        *error = path + ": the NIfTI data is shorter than its header says (" +
                 std::to_string(need) + " bytes needed, " + std::to_string(have) + " found)";
        nifti_image_free(nim);
        return 0;
    }
    if (nifti_image_load(nim) != 0 || !nim->data) {
        *error = path + ": the NIfTI data could not be read (file too short?)";
        nifti_image_free(nim);
        return 0;
    }
    size_t n = (size_t)(d[0] * d[1] * d[2]);
    out->values.resize(n);
    /* A zero slope means "no scaling" in NIfTI. */
    bool scaled = nim->scl_slope != 0.0f && std::isfinite(nim->scl_slope) &&
                  std::isfinite(nim->scl_inter) &&
                  (nim->scl_slope != 1.0f || nim->scl_inter != 0.0f);
    for (size_t i = 0; i < n; i++) {
        float v = nifti_element(nim, i, &ok);
        out->values[i] = scaled ? (float)((double)v * nim->scl_slope + nim->scl_inter) : v;
    }
    nifti_image_free(nim);
    for (int i = 0; i < 3; i++)
        out->dim[i] = (int)d[i];
    return ok;
#else
    (void)out;
    *error = path + ": NIfTI support was not built in (install libnifti-dev and rebuild)";
    return 0;
#endif
}

/* ---- NRRD ---- */

int Render_Read_Nrrd(const std::string& path, Voxel_Data* out, std::string* error)
{
#ifdef VOXELUNE_RENDER_NRRD
    if (!check_readable(path, error))
        return 0;
    Nrrd* nrrd = nrrdNew();
    if (nrrdLoad(nrrd, path.c_str(), nullptr) != 0) {
        char* why = biffGetDone(NRRD);
        std::string text = why ? why : "";
        std::free(why);
        /* Keep the first line of teem's message: it names the problem. */
        size_t nl = text.find('\n');
        if (nl != std::string::npos)
            text.resize(nl);
        *error = path + ": not a readable NRRD file" + (text.empty() ? "" : " (" + text + ")");
        nrrdNuke(nrrd);
        return 0;
    }
    if (nrrd->dim < 1 || nrrd->dim > 3) {
        *error = path + ": only 3-D volumes are rendered (the NRRD has " +
                 std::to_string(nrrd->dim) + " axes)";
        nrrdNuke(nrrd);
        return 0;
    }
    long long d[3] = {1, 1, 1};
    for (unsigned int i = 0; i < nrrd->dim; i++)
        d[i] = nrrd->axis[i].size > (size_t)max_voxels ? max_voxels + 1 : (long long)nrrd->axis[i].size;
    if (!check_dims(path, d, error)) {
        nrrdNuke(nrrd);
        return 0;
    }
    size_t n = (size_t)(d[0] * d[1] * d[2]);
    out->values.resize(n);
    const void* p = nrrd->data;
    for (size_t i = 0; i < n; i++) {
        float v;
        switch (nrrd->type) {
        case nrrdTypeChar: v = (float)((const signed char*)p)[i]; break;
        case nrrdTypeUChar: v = (float)((const unsigned char*)p)[i]; break;
        case nrrdTypeShort: v = (float)((const short*)p)[i]; break;
        case nrrdTypeUShort: v = (float)((const unsigned short*)p)[i]; break;
        case nrrdTypeInt: v = (float)((const int*)p)[i]; break;
        case nrrdTypeUInt: v = (float)((const unsigned int*)p)[i]; break;
        case nrrdTypeLLong: v = (float)((const long long*)p)[i]; break;
        case nrrdTypeULLong: v = (float)((const unsigned long long*)p)[i]; break;
        case nrrdTypeFloat: v = ((const float*)p)[i]; break;
        case nrrdTypeDouble: v = (float)((const double*)p)[i]; break;
        default:
            *error = path + ": unsupported NRRD element type";
            nrrdNuke(nrrd);
            return 0;
        }
        out->values[i] = v;
    }
    nrrdNuke(nrrd);
    for (int i = 0; i < 3; i++)
        out->dim[i] = (int)d[i];
    return 1;
#else
    (void)out;
    *error = path + ": NRRD support was not built in (install libteem-dev and rebuild)";
    return 0;
#endif
}

/* ---- window and tags ---- */

int Render_Apply_Window(std::vector<float>* values, bool set, double low, double high,
                        std::string* error)
{
    if (!set) {
        bool any = false;
        for (float v : *values) {
            if (std::isnan(v))
                continue;
            if (!any || v < low)
                low = v;
            if (!any || v > high)
                high = v;
            any = true;
        }
        if (!any) {
            *error = "the volume holds no grey level that is a number";
            return 0;
        }
        if (low == high) {
            *error = "the volume is constant (" + std::to_string(low) +
                     "), so its window's ends are equal; give --window LOW:HIGH";
            return 0;
        }
    }
    if (!std::isfinite(low) || !std::isfinite(high) || low == high) {
        *error = "the window's ends must be two different finite numbers";
        return 0;
    }
    double scale = 1.0 / (high - low);
    for (float& v : *values) {
        if (std::isnan(v))
            continue;
        double g = ((double)v - low) * scale;
        v = g <= 0.0 ? 0.0f : g >= 1.0 ? 1.0f : (float)g;
    }
    return 1;
}

int Render_Make_Tags(const std::vector<float>& values, std::vector<unsigned char>* tags,
                     std::string* error)
{
    tags->resize(values.size());
    for (size_t i = 0; i < values.size(); i++) {
        float v = values[i];
        if (!(v >= 0.0f && v <= 255.0f) || v != std::floor(v)) {
            *error = "tag values must be whole numbers from 0 to 255 (found " +
                     std::to_string(v) + " at voxel " + std::to_string(i) + ")";
            return 0;
        }
        (*tags)[i] = (unsigned char)v;
    }
    return 1;
}

/* Reads a file by its format; unknown formats are raw with the given layout when raw is set. */
static int read_any(const std::string& path, const Raw_Layout* raw, Voxel_Data* out,
                    std::string* error)
{
    switch (Volume_Format_Of(path)) {
    case FORMAT_NIFTI:
        if (!raw)
            return Render_Read_Nifti(path, out, error);
        break;
    case FORMAT_NRRD:
        if (!raw)
            return Render_Read_Nrrd(path, out, error);
        break;
    default:
        break;
    }
    if (raw)
        return Render_Read_Raw(path, *raw, out, error);
    if (!check_readable(path, error))
        return 0;
    *error = path + ": unknown volume format (use .nii, .nii.gz, .nrrd, .nhdr, or --raw)";
    return 0;
}

int Render_Load_Volume(const Render_Options& opt, Render_Volume* vol, std::string* error)
{
    Voxel_Data grey;
    if (!read_any(opt.input, opt.raw ? &opt.raw_layout : nullptr, &grey, error))
        return 0;
    if (!Render_Apply_Window(&grey.values, opt.window_set, opt.window_low, opt.window_high, error))
        return 0;

    std::vector<unsigned char> tags;
    if (!opt.tags.empty()) {
        Voxel_Data t;
        Raw_Layout layout;
        for (int i = 0; i < 3; i++)
            layout.dim[i] = grey.dim[i];
        layout.type = opt.tag_type;
        layout.big_endian = opt.raw_layout.big_endian;
        bool tag_raw = Volume_Format_Of(opt.tags) == FORMAT_UNKNOWN;
        if (!read_any(opt.tags, tag_raw ? &layout : nullptr, &t, error))
            return 0;
        for (int i = 0; i < 3; i++)
            if (t.dim[i] != grey.dim[i]) {
                *error = opt.tags + ": the tag volume's dimensions differ from the grey volume's";
                return 0;
            }
        if (!Render_Make_Tags(t.values, &tags, error)) {
            *error = opt.tags + ": " + *error;
            return 0;
        }
    } else {
        tags.assign(grey.values.size(), 0);
    }
    for (int i = 0; i < 3; i++)
        vol->dim[i] = grey.dim[i];
    vol->gli.swap(grey.values);
    vol->tag.swap(tags);
    return 1;
}

/* ---- phantom ---- */

const unsigned int Phantom_Colors[PHANTOM_TAGS + 1] = {
    0xFFFFFF,  /* 0: untagged */
    0xD8C8A8,  /* 1: shell, bone */
    0xD84830,  /* 2: torus, red */
    0x3C8CE0,  /* 3: ball, blue */
    0x48C058,  /* 4: rods, green */
    0xF0B020,  /* 5: cube, amber */
};

/* Whether point (x, y, z) in -1..1 lies inside structure k; its grey level in *g. */
static int phantom_structure(float x, float y, float z, float* g)
{
    float r2 = x * x + y * y + z * z;
    /* 5: a cube, bright, off-centre above the ball */
    if (std::fabs(x - 0.38f) < 0.13f && std::fabs(y + 0.42f) < 0.13f && std::fabs(z + 0.30f) < 0.13f) {
        *g = 1.0f;
        return 5;
    }
    /* 3: a ball in the middle */
    if (r2 < 0.22f * 0.22f) {
        *g = 0.8f;
        return 3;
    }
    /* 2: a torus round the ball, in the x-z plane */
    float ring = std::sqrt(x * x + z * z) - 0.45f;
    if (ring * ring + y * y < 0.11f * 0.11f) {
        *g = 0.9f;
        return 2;
    }
    /* 4: two vertical rods */
    float dx1 = x + 0.35f, dz1 = z - 0.35f, dx2 = x - 0.35f, dz2 = z - 0.35f;
    if (std::fabs(y) < 0.6f && (dx1 * dx1 + dz1 * dz1 < 0.065f * 0.065f ||
                                dx2 * dx2 + dz2 * dz2 < 0.065f * 0.065f)) {
        *g = 0.7f;
        return 4;
    }
    /* 1: a thin shell, with a wedge cut out on the viewer's side */
    if (r2 > 0.80f * 0.80f && r2 < 0.86f * 0.86f && !(x > 0.0f && z < 0.0f)) {
        *g = 0.46f;
        return 1;
    }
    *g = 0.0f;
    return 0;
}

void Render_Phantom(int n, Render_Volume* vol)
{
    vol->dim[0] = vol->dim[1] = vol->dim[2] = n;
    size_t count = (size_t)n * n * n;
    vol->gli.assign(count, 0.0f);
    vol->tag.assign(count, 0);
    float scale = 2.0f / (float)n;
    size_t i = 0;
    for (int z = 0; z < n; z++)
        for (int y = 0; y < n; y++)
            for (int x = 0; x < n; x++, i++) {
                float g;
                int k = phantom_structure(((float)x + 0.5f) * scale - 1.0f,
                                          ((float)y + 0.5f) * scale - 1.0f,
                                          ((float)z + 0.5f) * scale - 1.0f, &g);
                vol->gli[i] = g;
                vol->tag[i] = (unsigned char)k;
            }
}
