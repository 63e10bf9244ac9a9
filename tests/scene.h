/*
 * scene.h - a phantom volume placed in a slot the way a registration and a
 * frame request would leave it, for the tests and the benchmarks.
 *
 * The phantom is a smooth sphere (grey level 1 inside, 0 outside, a soft
 * edge a few voxels wide, a little deterministic noise) with two tag
 * regions, a core and a shell.  Its gradient block is computed here by
 * central differences, so it needs nothing from the preprocessing code.
 * Scene_Install points the slot's tables at the phantom's buffers;
 * Scene_Uninstall clears them again before the buffers go away.
 */
#ifndef VOXELUNE_TESTS_SCENE_H
#define VOXELUNE_TESTS_SCENE_H

#include <cmath>
#include <cstdint>
#include <vector>

#include "core/ray_state.h"
#include "cpu/ray_render_layout.h"

struct Scene_Phantom {
    int dim[3] = {0, 0, 0};
    std::vector<float> gli;
    std::vector<unsigned char> tag;
    std::vector<float> grad_a, grad_x, grad_y, grad_z;
    float* grad[4] = {nullptr, nullptr, nullptr, nullptr};
};

/* Element of voxel (x, y, z). */
inline size_t Scene_Index(const Scene_Phantom& p, int x, int y, int z)
{
    return (static_cast<size_t>(z) * static_cast<size_t>(p.dim[1]) + static_cast<size_t>(y)) *
               static_cast<size_t>(p.dim[0]) +
           static_cast<size_t>(x);
}

/*
 * Gradient block by central differences (one-sided at the faces): the
 * magnitude in grad_a, the unit vector pointing toward lower grey levels
 * in grad_x, grad_y, grad_z (zero where the magnitude is zero).
 */
inline void Scene_Gradient(Scene_Phantom& p)
{
    size_t n = p.gli.size();
    p.grad_a.assign(n, 0.0f);
    p.grad_x.assign(n, 0.0f);
    p.grad_y.assign(n, 0.0f);
    p.grad_z.assign(n, 0.0f);
    const int* d = p.dim;
    for (int z = 0; z < d[2]; z++)
        for (int y = 0; y < d[1]; y++)
            for (int x = 0; x < d[0]; x++) {
                int c[3] = {x, y, z};
                float g[3];
                for (int a = 0; a < 3; a++) {
                    int lo[3] = {x, y, z}, hi[3] = {x, y, z};
                    if (c[a] > 0) lo[a]--;
                    if (c[a] < d[a] - 1) hi[a]++;
                    float span = static_cast<float>(hi[a] - lo[a]);
                    float vh = p.gli[Scene_Index(p, hi[0], hi[1], hi[2])];
                    float vl = p.gli[Scene_Index(p, lo[0], lo[1], lo[2])];
                    g[a] = span > 0.0f ? (vh - vl) / span : 0.0f;
                }
                float len = std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]);
                size_t i = Scene_Index(p, x, y, z);
                p.grad_a[i] = len;
                if (len > 0.0f) {
                    p.grad_x[i] = -g[0] / len;
                    p.grad_y[i] = -g[1] / len;
                    p.grad_z[i] = -g[2] / len;
                }
            }
    p.grad[0] = p.grad_a.data();
    p.grad[1] = p.grad_x.data();
    p.grad[2] = p.grad_y.data();
    p.grad[3] = p.grad_z.data();
}

/*
 * A sphere of radius 0.4 x the smallest dimension, centred in the volume:
 * grey level 0.5 + (R - r) / 4 clamped to [0, 1] plus noise of +-0.02;
 * tag 1 inside r < R / 2, tag 2 in the rest of the sphere, 0 outside.
 */
inline void Scene_Sphere(Scene_Phantom& p, int dim_x, int dim_y, int dim_z)
{
    p.dim[0] = dim_x;
    p.dim[1] = dim_y;
    p.dim[2] = dim_z;
    size_t n = static_cast<size_t>(dim_x) * static_cast<size_t>(dim_y) * static_cast<size_t>(dim_z);
    p.gli.assign(n, 0.0f);
    p.tag.assign(n, 0);
    int small = dim_x < dim_y ? dim_x : dim_y;
    if (dim_z < small) small = dim_z;
    float R = 0.4f * static_cast<float>(small);
    float cx = 0.5f * static_cast<float>(dim_x), cy = 0.5f * static_cast<float>(dim_y),
          cz = 0.5f * static_cast<float>(dim_z);
    uint32_t noise = 12345u;
    for (int z = 0; z < dim_z; z++)
        for (int y = 0; y < dim_y; y++)
            for (int x = 0; x < dim_x; x++) {
                float dx = static_cast<float>(x) + 0.5f - cx, dy = static_cast<float>(y) + 0.5f - cy,
                      dz = static_cast<float>(z) + 0.5f - cz;
                float r = std::sqrt(dx * dx + dy * dy + dz * dz);
                float v = 0.5f + (R - r) * 0.25f;
                v = v < 0.0f ? 0.0f : (v > 1.0f ? 1.0f : v);
                noise = noise * 1664525u + 1013904223u;
                v += (static_cast<float>(noise >> 8) / 16777216.0f - 0.5f) * 0.04f;
                size_t i = Scene_Index(p, x, y, z);
                p.gli[i] = v;
                p.tag[i] = r < 0.5f * R ? 1 : (r < R ? 2 : 0);
            }
    Scene_Gradient(p);
}

/*
 * Points slot's volume tables at the phantom and builds its render layout
 * (as a CPU registration would).  The separate gradient arrays stay in the
 * slot too, for the plain walk (Ray_Scene_Slot); the CPU renderer reads
 * the layout.  With layout false the slot has the arrays alone.
 */
inline void Scene_Install(int slot, Scene_Phantom& p, bool layout = true)
{
    Ray_Volume.dim_x[slot] = p.dim[0];
    Ray_Volume.dim_y[slot] = p.dim[1];
    Ray_Volume.dim_z[slot] = p.dim[2];
    Ray_Volume.gli[slot] = p.gli.data();
    Ray_Volume.tag[slot] = p.tag.data();
    Ray_Volume.grad[slot] = p.grad;
    Ray_Volume.use_cuda[slot] = 0;
    Ray_Render_Layout_Release(Ray_Volume.render[slot]);
    Ray_Volume.render[slot] =
        layout ? Ray_Render_Layout_Build(p.dim[0], p.dim[1], p.dim[2], p.gli.data(), p.grad) : nullptr;
}

/* Clears what Scene_Install set. */
inline void Scene_Uninstall(int slot)
{
    Ray_Volume.gli[slot] = nullptr;
    Ray_Volume.tag[slot] = nullptr;
    Ray_Volume.grad[slot] = nullptr;
    Ray_Render_Layout_Release(Ray_Volume.render[slot]);
    Ray_Volume.render[slot] = nullptr;
}

/*
 * The frame binding that a frame request leaves for a W x H box: the slot's
 * matrix is view, scaled by half the volume's diagonal and moved to its
 * centre; no clip box (vol_flag 0), the depth clip a quarter diagonal from
 * the eye (nearer than any voxel).
 */
inline void Scene_Bind(int slot, int W, int H, const Matrix_4x4& view)
{
    int dx = Ray_Volume.dim_x[slot], dy = Ray_Volume.dim_y[slot], dz = Ray_Volume.dim_z[slot];
    Ray_Volume.box_w[slot] = static_cast<unsigned int>(W);
    Ray_Volume.box_h[slot] = static_cast<unsigned int>(H);
    Ray_Volume.transfo[slot] = view;
    float h = Ray_Diagonal(dx, dy, dz) * 0.5f;
    Ray_Volume.transfo[slot].scale(h, h, h, combine_after);
    Ray_Volume.transfo[slot].translate(static_cast<float>(dx) * 0.5f, static_cast<float>(dy) * 0.5f,
                                       static_cast<float>(dz) * 0.5f, combine_after);
    Ray_Volume.vol_flag[slot] = 0;
    Ray_Volume.clip[slot] = Ray_Diagonal(dx, dy, dz) * 0.25f;
}

/*
 * Render parameters for the phantom: colour mode 1, threshold 0.5, the
 * core red and the shell green, a dim ambient light and two white-ish
 * directional lights shining from in front of the volume.
 */
inline void Scene_Params()
{
    Ray_Params.threshold = 0.5f;
    Ray_Params.col_mode = 1;
    Ray_Params.map_nb = 2;
    for (int i = 0; i < 256; i++) {
        Ray_Params.map_col[i] = 0;
        Ray_Params.map_id[i] = 0;
        Ray_Params.tag_col[i] = 0;
    }
    Ray_Params.map_col[1] = 1;
    Ray_Params.map_col[2] = 2;
    Ray_Params.map_id[2] = 1;
    Ray_Params.tag_col[1] = 0xFF4040u;
    Ray_Params.tag_col[2] = 0x40FF40u;
    Ray_Params.light_nb = 3;
    Ray_Params.light_status[0] = 1;
    Ray_Params.light_color[0] = 0x404040u;
    Ray_Params.light_status[1] = 1;
    Ray_Params.light_color[1] = 0xFFFFFFu;
    Ray_Params.light_dir[1] = Vector_4(0.3f, -0.2f, 1.0f, 0.0f).normalise();
    Ray_Params.light_status[2] = 1;
    Ray_Params.light_color[2] = 0x8080FFu;
    Ray_Params.light_dir[2] = Vector_4(-0.5f, 0.4f, 1.0f, 0.0f).normalise();
}

#endif
