/*
 * render_volume.cpp - reading volumes into the library's float layout.
 *
 * Each reader checks the file before it trusts it: the file must open,
 * its header must parse, the voxel count must fit the library's signed
 * 32-bit count, and the data must be exactly as long as the header says.
 */
#include "render_volume.h"
#include "render_file.h"

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

/* ---- element conversion, shared by every reader ---- */

/* One element at p, its bytes reversed when swap is set, as a float; NaN and inf kept. */
static float element_value(const unsigned char* p, Voxel_Type type, bool swap)
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
    case VOXEL_U64: { unsigned long long v; std::memcpy(&v, b, 8); return (float)v; }
    case VOXEL_I64: { long long v; std::memcpy(&v, b, 8); return (float)v; }
    }
    return 0.0f;
}

/*
 * Reads n elements through read(buffer, element size, count), which
 * returns the count it read, in chunks, converting each to a float.
 * 0 when the data ends early.
 */
template <class Read>
static int read_elements(Read read, long long n, Voxel_Type type, bool swap,
                         std::vector<float>* out)
{
    int size = Voxel_Type_Size(type);
    std::vector<unsigned char> chunk(1 << 16);
    long long per_chunk = (long long)chunk.size() / size;
    out->resize((size_t)n);
    for (long long done = 0; done < n;) {
        long long count = std::min(per_chunk, n - done);
        if (read(chunk.data(), (size_t)size, (size_t)count) != (size_t)count)
            return 0;
        for (long long i = 0; i < count; i++)
            (*out)[(size_t)(done + i)] = element_value(&chunk[(size_t)(i * size)], type, swap);
        done += count;
    }
    return 1;
}

static bool host_is_big_endian()
{
    const unsigned short one = 1;
    unsigned char first;
    std::memcpy(&first, &one, 1);
    return first == 0;
}

static std::string dims_text(const long long d[3])
{
    return std::to_string(d[0]) + "x" + std::to_string(d[1]) + "x" + std::to_string(d[2]);
}

/* ---- raw ---- */

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
        *error = path + ": the dimensions do not match the file size (" + dims_text(d) +
                 " voxels of " + std::to_string(size) + " bytes" +
                 (layout.offset ? " after " + std::to_string(layout.offset) + " header bytes" : "") +
                 " need " + std::to_string(expected) + " bytes, the file has " +
                 std::to_string((long long)st.st_size) + ")";
        return 0;
    }

    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f || fseeko(f, (off_t)layout.offset, SEEK_SET) != 0) {
        *error = path + ": " + std::strerror(errno);
        if (f)
            std::fclose(f);
        return 0;
    }
    bool swap = layout.big_endian != host_is_big_endian();
    int ok = read_elements([f](void* p, size_t sz, size_t c) { return std::fread(p, sz, c, f); },
                           n, layout.type, swap, &out->values);
    std::fclose(f);
    if (!ok) {
        *error = path + ": read error";
        return 0;
    }
    for (int i = 0; i < 3; i++)
        out->dim[i] = (int)d[i];
    return 1;
}

#if defined(VOXELUNE_RENDER_NIFTI) || defined(VOXELUNE_RENDER_NRRD)
/*
 * Bytes a file offers from byte `from` on: what is left of its size, or
 * for gzip data the length of its complete stream (counted up to just
 * past limit).  -1 with a message when it cannot be read.
 */
static long long data_length(FILE* f, long long from, bool gz, long long limit,
                             const std::string& path, std::string* error)
{
    if (gz) {
        std::string why;
        long long n = Render_Gzip_Length(f, limit, &why);
        if (n < 0)
            *error = path + ": " + why;
        return n;
    }
    struct stat st;
    if (fstat(fileno(f), &st) != 0 || !S_ISREG(st.st_mode)) {
        *error = path + ": the data is not in a regular file";
        return -1;
    }
    return (long long)st.st_size - from;
}

static std::string short_data(const std::string& path, const char* format, long long need,
                              long long have)
{
    return path + ": the " + format + " data is shorter than its header says (" +
           std::to_string(need) + " bytes needed, " + std::to_string(have) + " found)";
}
#endif

/* ---- NIfTI ---- */

#ifdef VOXELUNE_RENDER_NIFTI
/* The element type of a NIfTI data type; 0 for a type the tool does not read. */
static int nifti_voxel_type(int datatype, Voxel_Type* type)
{
    switch (datatype) {
    case DT_UINT8: *type = VOXEL_U8; return 1;
    case DT_INT8: *type = VOXEL_I8; return 1;
    case DT_UINT16: *type = VOXEL_U16; return 1;
    case DT_INT16: *type = VOXEL_I16; return 1;
    case DT_UINT32: *type = VOXEL_U32; return 1;
    case DT_INT32: *type = VOXEL_I32; return 1;
    case DT_UINT64: *type = VOXEL_U64; return 1;
    case DT_INT64: *type = VOXEL_I64; return 1;
    case DT_FLOAT32: *type = VOXEL_F32; return 1;
    case DT_FLOAT64: *type = VOXEL_F64; return 1;
    default: return 0;
    }
}

/*
 * Checks a NIfTI-1 header before any data is read: a single-file image,
 * three dimensions at most (further ones of 1), a type the tool reads and
 * a data offset that is a whole byte count from 352 on.
 */
static int check_nifti_header(const std::string& path, const nifti_1_header& h, long long d[3],
                              Voxel_Type* type, long long* offset, std::string* error)
{
    if (std::memcmp(h.magic, "n+1", 4) != 0) {
        *error = path + ": not a single-file NIfTI-1 image (no \"n+1\" magic)";
        return 0;
    }
    if (h.dim[0] < 1 || h.dim[0] > 7) {
        *error = path + ": the header's dimension count " + std::to_string(h.dim[0]) +
                 " is not 1 to 7";
        return 0;
    }
    for (int k = 1; k <= h.dim[0]; k++) {
        if (h.dim[k] < 1) {
            *error = path + ": dimension " + std::to_string(k) + " has " +
                     std::to_string(h.dim[k]) + " entries";
            return 0;
        }
        if (k <= 3)
            d[k - 1] = h.dim[k];
        else if (h.dim[k] > 1) {
            *error = path + ": only 3-D volumes are rendered (dimension " + std::to_string(k) +
                     " has " + std::to_string(h.dim[k]) + " entries)";
            return 0;
        }
    }
    if (!check_dims(path, d, error))
        return 0;
    if (!nifti_voxel_type(h.datatype, type)) {
        *error = path + ": unsupported NIfTI data type " + nifti_datatype_string(h.datatype) +
                 " (" + std::to_string(h.datatype) + ")";
        return 0;
    }
    float off = h.vox_offset;
    if (!(off >= 352.0f && off <= 1e15f) || off != std::floor(off)) {
        char text[32];
        std::snprintf(text, sizeof text, "%g", (double)off);
        *error = path + ": the header's data offset (vox_offset " + text +
                 ") is not a whole byte count from 352 on";
        return 0;
    }
    *offset = (long long)off;
    return 1;
}
#endif

int Render_Read_Nifti(const std::string& path, Voxel_Data* out, std::string* error)
{
#ifdef VOXELUNE_RENDER_NIFTI
    if (!check_readable(path, error))
        return 0;
    nifti_set_debug_level(0);
    /* The header alone, byte-swapped to this machine's order. */
    int swapped = 0;
    nifti_1_header* hdr = nifti_read_header(path.c_str(), &swapped, 1);
    bool gz = ends_with(path, ".gz");
    if (!hdr) {
        *error = path + ": not a NIfTI-1 file (its header does not read as one)";
        if (gz) {
            FILE* f = std::fopen(path.c_str(), "rb");
            if (f) {
                /* a broken gzip stream is the likelier cause */
                data_length(f, 0, true, 1 << 20, path, error);
                std::fclose(f);
            }
        }
        return 0;
    }
    nifti_1_header h = *hdr;
    std::free(hdr);
    long long d[3] = {1, 1, 1}, offset = 0;
    Voxel_Type type = VOXEL_U8;
    if (!check_nifti_header(path, h, d, &type, &offset, error))
        return 0;
    long long n = d[0] * d[1] * d[2];
    long long need = offset + n * Voxel_Type_Size(type);
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        *error = path + ": " + std::strerror(errno);
        return 0;
    }
    long long have = data_length(f, 0, gz, need + (1 << 20), path, error);
    std::fclose(f);
    if (have < 0)
        return 0;
    if (have < need) {
        *error = short_data(path, "NIfTI", need, have);
        return 0;
    }
    /* The data as stored, through znzlib: niftilib's loader would turn NaN and inf into 0. */
    znzFile zf = znzopen(path.c_str(), "rb", gz ? 1 : 0);
    if (znz_isnull(zf)) {
        *error = path + ": cannot open the NIfTI data";
        return 0;
    }
    int ok = znzseek(zf, (long)offset, SEEK_SET) >= 0 &&
             read_elements([&zf](void* p, size_t sz, size_t c) { return znzread(p, sz, c, zf); },
                           n, type, swapped != 0, &out->values);
    znzclose(zf);
    if (!ok) {
        *error = path + ": the NIfTI data could not be read";
        return 0;
    }
    /* A zero slope means "no scaling" in NIfTI. */
    bool scaled = h.scl_slope != 0.0f && std::isfinite(h.scl_slope) &&
                  std::isfinite(h.scl_inter) && (h.scl_slope != 1.0f || h.scl_inter != 0.0f);
    if (scaled)
        for (float& v : out->values)
            v = (float)((double)v * h.scl_slope + h.scl_inter);
    for (int i = 0; i < 3; i++)
        out->dim[i] = (int)d[i];
    return 1;
#else
    (void)out;
    *error = path + ": NIfTI support was not built in (install libnifti-dev and rebuild)";
    return 0;
#endif
}

/* ---- NRRD ---- */

#ifdef VOXELUNE_RENDER_NRRD
/* teem's reason for its last failure: the deepest line of its message, without the function name. */
static std::string nrrd_cause()
{
    char* text = biffGetDone(NRRD);
    std::string all = text ? text : "";
    std::free(text);
    while (!all.empty() && (all.back() == '\n' || all.back() == ' '))
        all.pop_back();
    std::string line = all.substr(all.find_last_of('\n') == std::string::npos
                                      ? 0 : all.find_last_of('\n') + 1);
    if (line.compare(0, 7, "[nrrd] ") == 0)
        line = line.substr(7);
    size_t colon = line.find(": ");
    if (colon != std::string::npos && line.find(' ') == colon + 1)
        line = line.substr(colon + 2);
    return line.empty() ? "no reason given" : line;
}

/* The element type of a NRRD type; 0 for a type the tool does not read. */
static int nrrd_voxel_type(int nrrd_type, Voxel_Type* type)
{
    switch (nrrd_type) {
    case nrrdTypeChar: *type = VOXEL_I8; return 1;
    case nrrdTypeUChar: *type = VOXEL_U8; return 1;
    case nrrdTypeShort: *type = VOXEL_I16; return 1;
    case nrrdTypeUShort: *type = VOXEL_U16; return 1;
    case nrrdTypeInt: *type = VOXEL_I32; return 1;
    case nrrdTypeUInt: *type = VOXEL_U32; return 1;
    case nrrdTypeLLong: *type = VOXEL_I64; return 1;
    case nrrdTypeULLong: *type = VOXEL_U64; return 1;
    case nrrdTypeFloat: *type = VOXEL_F32; return 1;
    case nrrdTypeDouble: *type = VOXEL_F64; return 1;
    default: return 0;
    }
}

/* Axes, dimensions and type of a loaded NRRD header. */
static int check_nrrd_shape(const std::string& path, const Nrrd* nrrd, long long d[3],
                            Voxel_Type* type, std::string* error)
{
    if (nrrd->dim < 1 || nrrd->dim > 3) {
        *error = path + ": only 3-D volumes are rendered (the NRRD has " +
                 std::to_string(nrrd->dim) + " axes)";
        return 0;
    }
    for (unsigned int i = 0; i < nrrd->dim; i++)
        d[i] = nrrd->axis[i].size > (size_t)max_voxels ? max_voxels + 1
                                                       : (long long)nrrd->axis[i].size;
    if (!check_dims(path, d, error))
        return 0;
    if (!nrrd_voxel_type(nrrd->type, type)) {
        *error = path + ": unsupported NRRD element type " + airEnumStr(nrrdType, nrrd->type);
        return 0;
    }
    return 1;
}

/*
 * Looks at the "data file" field of a detached header before teem opens
 * what it names: teem skips lines in it even when it reads no data, which
 * never ends on a device such as /dev/zero.  One regular file, or data
 * attached to the header, is accepted.
 */
static int check_nrrd_data_file(const std::string& path, std::string* error)
{
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) {
        *error = path + ": " + std::strerror(errno);
        return 0;
    }
    std::vector<char> head(1 << 16);
    size_t got = std::fread(head.data(), 1, head.size(), f);
    std::fclose(f);
    std::string text(head.data(), got);
    size_t end = text.find("\n\n");
    size_t pos = 0;
    while (pos < text.size() && pos < end) {
        size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        pos = nl == std::string::npos ? text.size() : nl + 1;
        for (const char* key : {"data file: ", "datafile: "}) {
            if (line.compare(0, std::strlen(key), key) != 0)
                continue;
            std::string name = line.substr(std::strlen(key));
            if (name.find(' ') != std::string::npos || name.compare(0, 4, "LIST") == 0) {
                *error = path + ": NRRD data split over several files is not supported";
                return 0;
            }
            size_t slash = path.find_last_of('/');
            if (name[0] != '/' && slash != std::string::npos)
                name = path.substr(0, slash + 1) + name;
            struct stat st;
            if (stat(name.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
                *error = path + ": the data file '" + name + "' is not a regular file";
                return 0;
            }
        }
    }
    return 1;
}

/*
 * Reads the header only (teem opens the data file and skips to the data)
 * and checks it: shape, type, one data file, an encoding the tool can
 * measure, and data as long as the header says.
 */
static int check_nrrd_header(const std::string& path, long long d[3], Voxel_Type* type,
                             std::string* error)
{
    Nrrd* nrrd = nrrdNew();
    NrrdIoState* nio = nrrdIoStateNew();
    nio->skipData = AIR_TRUE;
    nio->keepNrrdDataFileOpen = AIR_TRUE;
    int ok = 0;
    if (nrrdLoad(nrrd, path.c_str(), nio) != 0)
        *error = path + ": not a readable NRRD file: " + nrrd_cause();
    else if (nio->format != nrrdFormatNRRD)
        *error = path + ": not a NRRD file";
    else if (!check_nrrd_shape(path, nrrd, d, type, error))
        ;
    else if (nio->dataFNFormat || nio->dataFNArr->len > 1 || !nio->dataFile)
        *error = path + ": NRRD data split over several files is not supported";
    else {
        FILE* f = nio->dataFile;
        long long from = (long long)ftello(f);
        long long bytes = d[0] * d[1] * d[2] * Voxel_Type_Size(*type);
        long long need = -1, have = -1;
        if (nio->encoding == nrrdEncodingRaw) {
            need = bytes;
        } else if (nio->encoding == nrrdEncodingHex) {
            need = 2 * bytes;
        } else if (nio->encoding == nrrdEncodingAscii) {
            need = d[0] * d[1] * d[2];  /* a character per value at least */
        } else if (nio->encoding == nrrdEncodingGzip) {
            need = std::max(0L, nio->byteSkip) + bytes;
        } else {
            *error = path + ": NRRD encoding '" + nio->encoding->name +
                     "' is not supported (use raw, gzip, hex or ascii)";
        }
        if (need >= 0)
            have = data_length(f, from, nio->encoding == nrrdEncodingGzip, need + (1 << 20), path,
                               error);
        if (have >= 0 && have < need)
            *error = short_data(path, "NRRD", need, have);
        ok = have >= need && need >= 0;
    }
    if (nio->dataFile)
        std::fclose(nio->dataFile);
    nrrdIoStateNix(nio);
    nrrdNuke(nrrd);
    return ok;
}
#endif

int Render_Read_Nrrd(const std::string& path, Voxel_Data* out, std::string* error)
{
#ifdef VOXELUNE_RENDER_NRRD
    if (!check_readable(path, error))
        return 0;
    long long d[3] = {1, 1, 1};
    Voxel_Type type = VOXEL_U8;
    if (!check_nrrd_data_file(path, error) || !check_nrrd_header(path, d, &type, error))
        return 0;
    Nrrd* nrrd = nrrdNew();
    if (nrrdLoad(nrrd, path.c_str(), nullptr) != 0) {
        *error = path + ": not a readable NRRD file: " + nrrd_cause();
        nrrdNuke(nrrd);
        return 0;
    }
    /* The file may have changed since its header was checked. */
    long long again[3] = {1, 1, 1};
    Voxel_Type again_type = VOXEL_U8;
    int ok = check_nrrd_shape(path, nrrd, again, &again_type, error);
    if (ok && (again[0] != d[0] || again[1] != d[1] || again[2] != d[2] || again_type != type)) {
        *error = path + ": the file changed while it was read";
        ok = 0;
    }
    if (ok) {
        /* teem leaves the data in this machine's byte order */
        const unsigned char* p = (const unsigned char*)nrrd->data;
        read_elements([&p](void* dst, size_t sz, size_t c) {
                          std::memcpy(dst, p, sz * c);
                          p += sz * c;
                          return c;
                      }, d[0] * d[1] * d[2], type, false, &out->values);
    }
    nrrdNuke(nrrd);
    if (!ok)
        return 0;
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
            if (!std::isfinite(v))
                continue;
            if (!any || v < low)
                low = v;
            if (!any || v > high)
                high = v;
            any = true;
        }
        if (!any) {
            *error = "the volume holds no finite grey level (only NaN or infinite voxels); "
                     "give --window LOW:HIGH";
            return 0;
        }
        if (low == high) {
            char text[32];
            std::snprintf(text, sizeof text, "%g", low);
            *error = std::string("every finite grey level of the volume is ") + text +
                     ", so there is no range to map to 0..1; give --window LOW:HIGH";
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
