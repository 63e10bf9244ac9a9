/*
 * ray_params.cpp - the render-parameter setters.
 *
 * They only store values; the renderers read them when they draw.  None
 * takes the library lock.  The light directions are kept in volume space:
 * each is the host's direction times the inverse-transpose of the view's
 * linear part, normalised, and is recomputed whenever the view changes.
 */
#include <voxelune/voxelune.h>

#include <cstring>

#include "core/ray_state.h"

/* The inverse-transpose of the view without its translation. */
static Matrix_4x4 light_matrix()
{
    Matrix_4x4 n = Ray_Params.view_transfo;
    n[3][0] = 0.0;
    n[3][1] = 0.0;
    n[3][2] = 0.0;
    return ~(!n);
}

static void light_direction(int i, const Matrix_4x4& n)
{
    Vector_4 v = Ray_Params.light_vec[i];
    v *= n;
    Ray_Params.light_dir[i] = v.normalise();
}

/* Recomputes the directions of lights 1 .. light_nb - 1 from the current view. */
static void update_lights()
{
    Matrix_4x4 n = light_matrix();
    for (int i = 1; i < Ray_Params.light_nb && i < RAY_LIGHTS; i++) light_direction(i, n);
}

int Ray_Set_Threshold(float val)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Threshold(val=%.2f)", static_cast<double>(val));
    Ray_Params.threshold = val;
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Threshold(done)");
    return 1;
}

int Ray_Set_Color_Scheme(unsigned char val)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Color_Scheme(val=%d)", val);
    Ray_Params.col_mode = val;
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Color_Scheme(done)");
    return 1;
}

int Ray_Set_Color_Map(unsigned char nb, unsigned char* count, unsigned char** list, unsigned char* col)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Color_Map(nb=%d)", nb);
    if (nb > 0 && (!count || !list || !col)) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Color_Map(nb=%d): a null array", nb);
        return 1;
    }
    for (int i = 0; i < nb; i++)
        if (count[i] > 0 && !list[i]) {
            Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Color_Map(nb=%d): map %d has no list", nb, i);
            return 1;
        }
    std::memset(Ray_Params.map_col, 0, sizeof Ray_Params.map_col);
    std::memset(Ray_Params.map_id, 0, sizeof Ray_Params.map_id);
    Ray_Params.map_nb = nb;
    for (int i = 0; i < nb; i++)
        for (int k = 0; k < count[i]; k++) {
            unsigned char t = list[i][k];
            Ray_Params.map_id[t] = static_cast<unsigned char>(i);
            Ray_Params.map_col[t] = col[i];
        }
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Color_Map(done)");
    return 1;
}

int Ray_Set_Color_TAG(unsigned short nb, unsigned short* c16, unsigned short* c8, unsigned short* c0)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Color_TAG(nb=%d)", nb);
    if (nb > 256) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Color_TAG(nb=%d): at most 256 colours", nb);
        return 1;
    }
    if (nb > 0 && (!c16 || !c8 || !c0)) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Color_TAG(nb=%d): a null array", nb);
        return 1;
    }
    std::memset(Ray_Params.tag_col, 0, sizeof Ray_Params.tag_col);
    for (int i = 0; i < nb; i++)
        Ray_Params.tag_col[i] = (c16[i] & 0xFFu) << 16 | (c8[i] & 0xFFu) << 8 | (c0[i] & 0xFFu);
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Color_TAG(done)");
    return 1;
}

int Ray_Set_Light(unsigned short id, unsigned char status, unsigned int color, Vector_4* dir)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Light(id=%d)", id);
    if (id >= RAY_LIGHTS) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Light(id=%d): the light id must be below 5", id);
        return 1;
    }
    if (!dir) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Light(id=%d): no direction given", id);
        return 1;
    }
    if (Ray_Params.light_nb < id + 1) Ray_Params.light_nb = static_cast<unsigned short>(id + 1);
    Ray_Params.light_status[id] = status;
    Ray_Params.light_color[id] = color;
    Ray_Params.light_vec[id] = *dir;
    if (id != 0) light_direction(id, light_matrix());
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Light(done)");
    return 1;
}

int Ray_Set_Transfo(Matrix_4x4* mat)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Transfo()");
    if (!mat) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Transfo(): no matrix given");
        return 1;
    }
    Ray_Params.view_transfo = *mat;
    update_lights();
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Transfo(done)");
    return 1;
}

int Ray_Set_Rotation(float rot_x, float rot_y, float rot_z)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Rotation()");
    const float k_deg = 0.017453292f;
    Ray_Params.view_transfo.init();
    Ray_Params.view_transfo.rot_x(rot_x * k_deg, combine_after);
    Ray_Params.view_transfo.rot_y(rot_y * k_deg, combine_after);
    Ray_Params.view_transfo.rot_z(rot_z * k_deg, combine_after);
    update_lights();
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Rotation(done)");
    return 1;
}

int Ray_Set_Clip(float val)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Clip(val=%.2f)", static_cast<double>(val));
    for (int s = 0; s < RAY_SLOTS; s++) {
        float d = Ray_Diagonal(Ray_Volume.dim_x[s], Ray_Volume.dim_y[s], Ray_Volume.dim_z[s]);
        Ray_Volume.clip[s] = d * 1.25f * val + d * 0.25f;
    }
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Clip(done)");
    return 1;
}

int Ray_Set_Clip(int id, float x_low, float x_high, float y_low, float y_high, float z_low, float z_high)
{
    Ray_Trace(RAY_TR_EXPORT, ">>> in  Voxelune: Ray_Set_Clip()");
    if (id < 0) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Set_Clip(id=%d): the slot id must not be negative", id);
        return 1;
    }
    int s = id % RAY_SLOTS;
    /* bits 4 to 11 hold every clip bit (RAY_VF_*); the others are kept */
    unsigned int flag = Ray_Volume.vol_flag[s] & ~0xFF0u;
    /* a NaN fraction compares unequal, so it switches its plane on */
    if (x_low != 0.0f) flag |= RAY_VF_CLIP | RAY_VF_LOW_X;
    if (x_high != 1.0f) flag |= RAY_VF_CLIP | RAY_VF_HIGH_X;
    Ray_Volume.clip_frac_x[s][0] = x_low;
    Ray_Volume.clip_frac_x[s][1] = x_high;
    if (y_low != 0.0f) flag |= RAY_VF_CLIP | RAY_VF_LOW_Y;
    if (y_high != 1.0f) flag |= RAY_VF_CLIP | RAY_VF_HIGH_Y;
    Ray_Volume.clip_frac_y[s][0] = y_low;
    Ray_Volume.clip_frac_y[s][1] = y_high;
    if (z_low != 0.0f) flag |= RAY_VF_CLIP | RAY_VF_LOW_Z;
    if (z_high != 1.0f) flag |= RAY_VF_CLIP | RAY_VF_HIGH_Z;
    Ray_Volume.clip_frac_z[s][0] = z_low;
    Ray_Volume.clip_frac_z[s][1] = z_high;
    Ray_Volume.vol_flag[s] = flag;
    Ray_Trace(RAY_TR_EXPORT, "<<< out Voxelune: Ray_Set_Clip(done)");
    return 1;
}
