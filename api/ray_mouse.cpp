/*
 * ray_mouse.cpp - the mouse trackball: clicks choose what a drag does,
 * motions turn, move or scale the shared view.
 */
#include <voxelune/voxelune.h>

#include <cmath>

#include "core/ray_state.h"

#define MOUSE_NONE 0
#define MOUSE_ROTATE 2
#define MOUSE_TRANSLATE 3
#define MOUSE_SCALE 4

static unsigned short Mouse_Mode;
static float Mouse_X, Mouse_Y;

/* The mouse point normalised to the box: -1 at its position, +1 at the far side. */
static void normalise_point(const Boxs* box, float mx, float my, float* x, float* y)
{
    *x = (mx - static_cast<float>(box->x)) * (2.0f / static_cast<float>(box->width)) - 1.0f;
    *y = (my - static_cast<float>(box->y)) * (2.0f / static_cast<float>(box->height)) - 1.0f;
}

int Ray_Mouse_Click(Boxs* box, int button, float mx, float my)
{
    if (button == 0) {
        Mouse_Mode = MOUSE_NONE;
        return 1;
    }
    if (!box) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Mouse_Click(): no box given");
        return 1;
    }
    normalise_point(box, mx, my, &Mouse_X, &Mouse_Y);
    switch (button & 0xF0) {
    case 0x10: Mouse_Mode = MOUSE_ROTATE; break;
    case 0x20: Mouse_Mode = MOUSE_SCALE; break;
    case 0x40: Mouse_Mode = MOUSE_TRANSLATE; break;
    case 0x50: Mouse_Mode = MOUSE_SCALE; break;
    default: break;
    }
    return 1;
}

int Ray_Mouse_Motion(Boxs* box, int, float mx, float my)
{
    if (Mouse_Mode == MOUSE_NONE) return 1;
    if (!box) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Mouse_Motion(): no box given");
        return 1;
    }
    float x, y;
    normalise_point(box, mx, my, &x, &y);
    float dx = Mouse_X - x, dy = Mouse_Y - y;
    Mouse_X = x;
    Mouse_Y = y;
    Matrix_4x4& view = Ray_Params.view_transfo;
    switch (Mouse_Mode) {
    case MOUSE_ROTATE:
        view.rot_x(-dy, combine_before);
        view.rot_y(-dx, combine_before);
        break;
    case MOUSE_TRANSLATE:
        view.translate(dx, -dy, 0.0f, combine_before);
        break;
    case MOUSE_SCALE: {
        float s = dx * 0.5f + 1.0f;
        view.scale(s, s, s, combine_before);
        break;
    }
    default:
        break;
    }
    Ray_Set_Transfo(&view);
    return 1;
}

void Ray_Mouse_Get_Rot(float* rot)
{
    if (!rot) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Mouse_Get_Rot(): no array given");
        return;
    }
    const Matrix_4x4& m = Ray_Params.view_transfo;
    rot[1] = asinf(-static_cast<float>(m[0][2]));
    if (cosf(rot[1]) == 0.0f) {
        rot[0] = atan2f(static_cast<float>(m[1][0]), static_cast<float>(m[1][1]));
        rot[2] = 0.0f;
    } else {
        rot[0] = atan2f(static_cast<float>(m[1][2]), static_cast<float>(m[2][2]));
        rot[2] = atan2f(static_cast<float>(m[0][1]), static_cast<float>(m[0][0]));
    }
}
