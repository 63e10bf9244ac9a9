/*
 * ray_scene.cpp - what a ray of a slot reads, gathered from the slot
 * tables and the render parameters, for the CPU renderer and for the
 * host form of the device pixel.
 */
#include "core/ray_scene.h"

#include "core/ray_state.h"

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
void Ray_Scene_Params(Ray_Scene* sc, float threshold)
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

/* The scene of slot with the clip box cb, the walk's threshold and depth clip. */
void Ray_Scene_Of(Ray_Scene* sc, int slot, const int* cb, float threshold, float clip)
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
    for (int a = 0; a < 3; a++) {
        sc->clip_lo[a] = cb[2 * a];
        sc->clip_hi[a] = cb[2 * a + 1];
    }
    Ray_Scene_Params(sc, threshold);
}

void Ray_Scene_Slot(Ray_Scene* sc, int slot, float threshold, float clip)
{
    Ray_Scene_Of(sc, slot, Ray_Volume.clip_box[slot], threshold, clip);
}

