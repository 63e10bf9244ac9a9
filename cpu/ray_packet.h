/*
 * ray_packet.h - the rays of one batch walked side by side, one ray per
 * lane of the processor's vector registers: eight with AVX2, sixteen with
 * AVX-512.
 *
 * Each lane computes exactly what the one-ray walk over the render layout
 * computes for its ray: the same float and integer operations in the same
 * order, lane by lane, with no fused operation.  The packet covers the
 * common scene (no clip box, colour mode 0 or 1, a finite threshold, at
 * least four voxels); the caller walks every other ray one at a time.
 * The same walk is built for AVX2 and for AVX-512 and runs only where the
 * processor has the instruction set (Ray_Packet_Walk_For).
 */
#ifndef VOXELUNE_CPU_RAY_PACKET_H
#define VOXELUNE_CPU_RAY_PACKET_H

#include <atomic>

#include "core/ray_core.h"
#include "cpu/ray_render_layout.h"

/* Rays a packet walks at once in each build, and the most of them. */
#define RAY_PACKET_LANES_AVX2 8
#define RAY_PACKET_LANES_AVX512 16
#define RAY_PACKET_LANES RAY_PACKET_LANES_AVX512
/* Pixels a worker casts per batch of tasks. */
#define RAY_BATCH 32

/* Everything the packet walk reads, taken once per batch of rays. */
struct Ray_Packet_Scene {
    const Ray_Render_Layout* layout;
    const unsigned char* tag;        /* the volume's tags */
    bool tag_colours;                /* col_mode 1 and some tag has a colour index: it takes its colour */
    unsigned int tag_base[256];      /* with tag_colours: by tag, its base colour (Ray_Base_Color) */
    float clip;                      /* depth clip distance */
    float cut;                       /* threshold - 0.1 */
    int lights;                      /* the directional lights on among those looked at, in order */
    int light_rgb[5][3];             /* channel bytes of the ambient light, then of those lights */
    float light_dir[5][3];           /* their directions (entry 0 unused) */
    const unsigned int* phong;       /* 1024 entries */
    float specular_from;             /* lanes whose e is below it find 0 in the table: (first entry not 0) / 1024 */
    const std::atomic<int>* run;     /* the run flag, read once per step of the packet */
};

/* The builds of the packet walk, narrowest first. */
enum Ray_Packet_Kind { RAY_PACKET_NONE, RAY_PACKET_AVX2, RAY_PACKET_AVX512 };

/*
 * Walks rays[0 .. n-1] (n <= the build's Ray_Packet_Lanes_For, each set up by
 * Ray_DDDA_Param with its entry, origin and direction filled in) and
 * writes their pixel words into out.
 */
typedef void (*Ray_Packet_Walk_Fn)(const Ray_Packet_Scene& ps, const Rays* rays, int n, unsigned int* out);
void Ray_Packet_Walk_Avx2(const Ray_Packet_Scene& ps, const Rays* rays, int n, unsigned int* out);
void Ray_Packet_Walk_Avx512(const Ray_Packet_Scene& ps, const Rays* rays, int n, unsigned int* out);

/*
 * Sets up the rays of pixels (i[l], j[l]), l < n <= the build's lanes, with
 * the draws r1[l], r2[l], of a W x H box seen through the 16 floats m, in
 * the volume box 0 - dim, as Ray_Pixel_Ray, the direction's scaling and
 * Ray_Setup do one at a time: bit l of the result is set when ray l enters
 * the volume, and rays[l] is then its set-up.
 */
typedef int (*Ray_Packet_Setup_Fn)(const float* m, int W, int H, const int* dim, int n, const int* i, const int* j,
                                   const float* r1, const float* r2, Rays* rays);
int Ray_Packet_Setup_Avx2(const float* m, int W, int H, const int* dim, int n, const int* i, const int* j,
                          const float* r1, const float* r2, Rays* rays);
int Ray_Packet_Setup_Avx512(const float* m, int W, int H, const int* dim, int n, const int* i, const int* j,
                            const float* r1, const float* r2, Rays* rays);

/*
 * The widest build the renderer may use (RAY_PACKET_AVX512 unless lowered,
 * as tests do to run each build).
 */
extern std::atomic<int> Ray_Packet_Widest;

/* The walk of the widest build this processor runs, up to kind; nullptr for none. */
Ray_Packet_Walk_Fn Ray_Packet_Walk_For(int kind);
/* The set-up of the same build. */
Ray_Packet_Setup_Fn Ray_Packet_Setup_For(int kind);
/* The rays a packet of the same build walks at once; 0 for none. */
int Ray_Packet_Lanes_For(int kind);

/* Whether this processor runs a packet walk at all. */
inline bool Ray_Packet_Available() { return Ray_Packet_Walk_For(RAY_PACKET_AVX512) != nullptr; }

#endif
