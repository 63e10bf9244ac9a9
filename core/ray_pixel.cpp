/*
 * ray_pixel.cpp - the CPU renderer's side of the ray core: a scene from
 * the slot tables and the render parameters, the walk with the pipeline's
 * stop request, and one pixel from set-up to packed word.
 */
#include "ray_pixel.h"

#include <cstddef>

#include "ray_core.h"
#include "ray_state.h"

static_assert(sizeof(Vector_4) == 4 * sizeof(float), "light directions are read with a stride of 4 floats");

/*
 * The Phong table that Ray_Init builds; before it (or after Ray_Exit) a
 * private copy built by the same rule, so that a pixel never reads null.
 */
static const unsigned int* phong_table_now()
{
    const unsigned int* t = Phong_table;
    if (t) return t;
    static const struct Fallback {
        unsigned int table[RAY_PHONG_SIZE];
        Fallback() { Ray_Phong_Build(table); }
    } fallback;
    return fallback.table;
}

/* The render parameters of a scene, as Ray_Params holds them now. */
static void scene_params(Ray_Scene* sc, float threshold)
{
    sc->threshold = threshold;
    sc->col_mode = Ray_Params.col_mode;
    sc->map_nb = Ray_Params.map_nb;
    sc->map_col = Ray_Params.map_col;
    sc->map_id = Ray_Params.map_id;
    sc->tag_col = Ray_Params.tag_col;
    sc->light_nb = Ray_Params.light_nb;
    sc->light_status = Ray_Params.light_status;
    sc->light_color = Ray_Params.light_color;
    sc->light_dir_x = &Ray_Params.light_dir[0].x;
    sc->light_dir_y = &Ray_Params.light_dir[0].y;
    sc->light_dir_z = &Ray_Params.light_dir[0].z;
    sc->light_stride = 4;
    sc->phong = phong_table_now();
}

void Ray_Scene_Slot(Ray_Scene* sc, int slot, float threshold, float clip)
{
    sc->dim[0] = Ray_Volume.dim_x[slot];
    sc->dim[1] = Ray_Volume.dim_y[slot];
    sc->dim[2] = Ray_Volume.dim_z[slot];
    sc->gli = Ray_Volume.gli[slot];
    sc->tag = Ray_Volume.tag[slot];
    float** grad = Ray_Volume.grad[slot];
    sc->grad_a = grad ? grad[0] : nullptr;
    sc->grad_x = grad ? grad[1] : nullptr;
    sc->grad_y = grad ? grad[2] : nullptr;
    sc->grad_z = grad ? grad[3] : nullptr;
    sc->clip = clip;
    sc->vol_flag = Ray_Volume.vol_flag[slot];
    const int* box = Ray_Volume.clip_box[slot];
    for (int a = 0; a < 3; a++) {
        sc->clip_lo[a] = box[2 * a];
        sc->clip_hi[a] = box[2 * a + 1];
    }
    scene_params(sc, threshold);
}

/*
 * The pipeline's stop request: the run flag, read under the library lock
 * at every step of the walk.
 */
struct Ray_Run_Flag {
    bool operator()() const
    {
        Critical_Ray_In("DDDA_Volume");
        int run = Ray_Thread_Run;
        Critical_Ray_Out("DDDA_Volume");
        return run != 0;
    }
};

unsigned int Ray_DDDA_Walk(Rays* ray, int slot, float threshold, float clip)
{
    if (slot < 0 || slot >= RAY_SLOTS) return 0;
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, slot, threshold, clip);
    Ray_Run_Flag run;
    return Ray_DDDA_Walk<RAY_CPU>(ray, sc, run);
}

Color Ray_DDDA_Shade(Rays* ray, unsigned int c, float* n, unsigned char flags)
{
    Ray_Scene sc = {};
    scene_params(&sc, Ray_Params.threshold);
    return Ray_DDDA_Shade(ray, Ray_Color_Of(c), n, flags, sc);
}

unsigned int Ray_Pixel(int slot, int i, int j, int W, int H)
{
    if (slot < 0 || slot >= RAY_SLOTS) {
        Ray_Trace(RAY_TR_ERROR, "Ray_Pixel: slot %d out of range", slot);
        return 0;
    }

    /* The ray through the pixel, jittered by two draws. */
    std::array<float, 16> m = Ray_Volume.transfo[slot].to_float();
    float r1 = Fct_Random_Float();
    float r2 = Fct_Random_Float();
    float eye[3], d[3], inv_len;
    Ray_Pixel_Ray(m.data(), i, j, W, H, r1, r2, eye, d, &inv_len);
    Vector_4 dir(d[0], d[1], d[2], 0.0f);
    dir *= inv_len;
    const float unit[3] = {dir.x, dir.y, dir.z};

    /* Entry, set-up and walk through the slot's volume, threshold and depth clip. */
    Ray_Scene sc;
    Ray_Scene_Slot(&sc, slot, Ray_Params.threshold, Ray_Volume.clip[slot]);
    Ray_Run_Flag run;
    return Ray_Cast<RAY_CPU>(eye, unit, sc, run);
}
