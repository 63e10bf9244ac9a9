/*
 * ray_scene.h - a Ray_Scene filled from the slot tables and Ray_Params.
 * Arrays are taken by pointer, so a ray reads them as they stand.
 */
#ifndef VOXELUNE_CORE_RAY_SCENE_H
#define VOXELUNE_CORE_RAY_SCENE_H

#include "core/ray_core.h"

/* The render parameters, with the walk's threshold; the Phong table never null. */
void Ray_Scene_Params(Ray_Scene* sc, float threshold);

/* The scene of slot with the clip box cb (6 ints), the walk's threshold and depth clip. */
void Ray_Scene_Of(Ray_Scene* sc, int slot, const int* cb, float threshold, float clip);

/* The same with the slot's own clip box. */
void Ray_Scene_Slot(Ray_Scene* sc, int slot, float threshold, float clip);

#endif
