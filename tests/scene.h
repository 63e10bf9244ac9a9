/* scene.h - a phantom volume placed in a slot the way a registration and a
 * frame request would leave it, for the tests and the benchmarks. */
#ifndef VOXELUNE_TESTS_SCENE_H
#define VOXELUNE_TESTS_SCENE_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include "core/ray_state.h"
#include "cpu/ray_render_layout.h"

/* Grey levels, tags and a gradient block (magnitude, then the unit vector) of dim[0] x dim[1] x dim[2]. */
struct Scene_Phantom {
    int dim[3] = {0, 0, 0};
    std::vector<float> gli, g[4];
    std::vector<unsigned char> tag;
    float* grad[4] = {nullptr, nullptr, nullptr, nullptr};
};

inline size_t Scene_Index(const Scene_Phantom& p, int x, int y, int z)
{
    return (size_t(z) * size_t(p.dim[1]) + size_t(y)) * size_t(p.dim[0]) + size_t(x);
}

/* Central differences (one-sided at the faces); the unit vector points toward lower grey levels. */
inline void Scene_Gradient(Scene_Phantom& p)
{
    for (int k = 0; k < 4; k++) p.g[k].assign(p.gli.size(), 0.0f), p.grad[k] = p.g[k].data();
    for (int z = 0; z < p.dim[2]; z++)
        for (int y = 0; y < p.dim[1]; y++)
            for (int x = 0; x < p.dim[0]; x++) {
                float g[3];
                for (int a = 0; a < 3; a++) {
                    int lo[3] = {x, y, z}, hi[3] = {x, y, z};
                    lo[a] -= lo[a] > 0, hi[a] += hi[a] < p.dim[a] - 1;
                    float span = float(hi[a] - lo[a]), vh = p.gli[Scene_Index(p, hi[0], hi[1], hi[2])];
                    g[a] = span > 0.0f ? (vh - p.gli[Scene_Index(p, lo[0], lo[1], lo[2])]) / span : 0.0f;
                }
                float len = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
                size_t i = Scene_Index(p, x, y, z);
                p.g[0][i] = len;
                for (int a = 0; a < 3 && len > 0.0f; a++) p.g[a + 1][i] = -g[a] / len;
            }
}

/* A sphere of radius R = 0.4 x the smallest dimension, centred: grey level 0.5 + (R - r) / 4 clamped to
 * [0, 1] plus noise of +-0.02; tag 1 inside r < R / 2, tag 2 in the rest of the sphere, 0 outside. */
inline void Scene_Sphere(Scene_Phantom& p, int dim_x, int dim_y, int dim_z)
{
    p.dim[0] = dim_x, p.dim[1] = dim_y, p.dim[2] = dim_z;
    p.gli.assign(size_t(dim_x) * size_t(dim_y) * size_t(dim_z), 0.0f);
    p.tag.assign(p.gli.size(), 0);
    float R = 0.4f * float(std::min(dim_x, std::min(dim_y, dim_z)));
    uint32_t noise = 12345u;
    for (int z = 0; z < dim_z; z++)
        for (int y = 0; y < dim_y; y++)
            for (int x = 0; x < dim_x; x++) {
                float dx = float(x) + 0.5f - 0.5f * float(dim_x), dy = float(y) + 0.5f - 0.5f * float(dim_y),
                      dz = float(z) + 0.5f - 0.5f * float(dim_z);
                float r = std::sqrt(dx * dx + dy * dy + dz * dz), v = 0.5f + (R - r) * 0.25f;
                noise = noise * 1664525u + 1013904223u;
                size_t i = Scene_Index(p, x, y, z);
                v = v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v);
                p.gli[i] = v + (float(noise >> 8) / 16777216.0f - 0.5f) * 0.04f;
                p.tag[i] = r < 0.5f * R ? 1 : (r < R ? 2 : 0);
            }
    Scene_Gradient(p);
}

/* Points the slot's volume tables at the phantom and builds its render layout, as a CPU registration
 * would; the gradient arrays stay too, for the plain walk.  With layout false the slot has the arrays alone. */
inline void Scene_Install(int slot, Scene_Phantom& p, bool layout = true)
{
    Ray_Volume.dim_x[slot] = p.dim[0], Ray_Volume.dim_y[slot] = p.dim[1], Ray_Volume.dim_z[slot] = p.dim[2];
    Ray_Volume.gli[slot] = p.gli.data(), Ray_Volume.tag[slot] = p.tag.data(), Ray_Volume.grad[slot] = p.grad;
    Ray_Volume.use_cuda[slot] = 0;
    Ray_Render_Layout_Release(Ray_Volume.render[slot]);
    Ray_Volume.render[slot] =
        layout ? Ray_Render_Layout_Build(p.dim[0], p.dim[1], p.dim[2], p.gli.data(), p.grad) : nullptr;
}

inline void Scene_Uninstall(int slot)
{
    Ray_Volume.gli[slot] = nullptr, Ray_Volume.tag[slot] = nullptr, Ray_Volume.grad[slot] = nullptr;
    Ray_Render_Layout_Release(Ray_Volume.render[slot]);
    Ray_Volume.render[slot] = nullptr;
}

/* The binding a frame request leaves for a W x H box: view, scaled by half the volume's diagonal and
 * moved to its centre; no clip box, the depth clip a quarter diagonal from the eye (nearer than any voxel). */
inline void Scene_Bind(int slot, int W, int H, const Matrix_4x4& view)
{
    int dx = Ray_Volume.dim_x[slot], dy = Ray_Volume.dim_y[slot], dz = Ray_Volume.dim_z[slot];
    float h = Ray_Diagonal(dx, dy, dz) * 0.5f;
    Ray_Volume.box_w[slot] = unsigned(W), Ray_Volume.box_h[slot] = unsigned(H);
    Ray_Volume.transfo[slot] = view;
    Ray_Volume.transfo[slot].scale(h, h, h, combine_after);
    Ray_Volume.transfo[slot].translate(float(dx) * 0.5f, float(dy) * 0.5f, float(dz) * 0.5f, combine_after);
    Ray_Volume.vol_flag[slot] = 0;
    Ray_Volume.clip[slot] = h * 0.5f;
}

/* Colour mode 1, threshold 0.5, the core red, the shell green; a dim ambient, two lights from the front. */
inline void Scene_Params()
{
    Ray_Params.threshold = 0.5f, Ray_Params.col_mode = 1, Ray_Params.map_nb = 2;
    for (int i = 0; i < 256; i++) Ray_Params.map_col[i] = Ray_Params.map_id[i] = 0, Ray_Params.tag_col[i] = 0;
    Ray_Params.map_col[1] = 1, Ray_Params.map_col[2] = 2, Ray_Params.map_id[2] = 1;
    Ray_Params.tag_col[1] = 0xFF4040u, Ray_Params.tag_col[2] = 0x40FF40u;
    const unsigned int colour[3] = {0x404040u, 0xFFFFFFu, 0x8080FFu};
    const Vector_4 dir[3] = {{}, {0.3f, -0.2f, 1.0f, 0.0f}, {-0.5f, 0.4f, 1.0f, 0.0f}};
    Ray_Params.light_nb = 3;
    for (int l = 0; l < 3; l++) {
        Ray_Params.light_status[l] = 1, Ray_Params.light_color[l] = colour[l];
        if (l > 0) Ray_Params.light_dir[l] = dir[l].normalise();
    }
}

#endif
