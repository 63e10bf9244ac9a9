/*
 * voxelune.h - the Voxelune volume-rendering library.
 *
 * The host registers volumes (float grey levels and a byte tag per voxel)
 * in 32 slots, sets the rendering parameters and asks for frames in its
 * display boxes.  A frame casts one ray per pixel through the volume; it
 * renders on an NVIDIA GPU when the host allows it and the device has
 * room, otherwise progressively on the CPU, redrawing the box after every
 * refinement level.
 *
 * Every int export returns 1, except the query form of Ray_Set_Volume.
 * Failures are reported as trace lines through Corekit's Error_Fct.
 * Input that would make the library read or write out of bounds is
 * refused: one error line (flag word 2), nothing changed, the usual
 * result returned.  Each such refusal is listed with its export below.
 *
 * Call Ray_Init first and Ray_Exit last, from one thread.
 */
#ifndef VOXELUNE_VOXELUNE_H
#define VOXELUNE_VOXELUNE_H

#include <corekit/corekit.h>
#include <panelkit/panelkit.h>

#if defined(_WIN32)
#  if defined(VOXELUNE_BUILD)
#    define VOXELUNE_API __declspec(dllexport)
#  else
#    define VOXELUNE_API __declspec(dllimport)
#  endif
#else
#  define VOXELUNE_API __attribute__((visibility("default")))
#endif

/* ---- library frame ---- */

/* Does nothing. */
VOXELUNE_API void Ray_Cleanup();

/* Releases *ptr with free() and sets it to null.  Refused: ptr null. */
VOXELUNE_API void Ray_Free(char** ptr);

/*
 * The version text "<module>.dll 1.0 (rev-a)" for a null argument or
 * "1.0"; null for any other text.
 */
VOXELUNE_API char* Get_Version_Ray(char* version);

/* ---- start and stop ---- */

/* Creates the lock, the Phong table and the CPU pipeline with
 * nb_thread ray workers (clamped to 1..64).  A second call does nothing. */
VOXELUNE_API int Ray_Init(unsigned short nb_thread);

/* Stops the pipeline and releases everything the library owns.  The
 * render parameters, the view and the slots' dimensions survive. */
VOXELUNE_API int Ray_Exit();

/* ---- render parameters ---- */

VOXELUNE_API int Ray_Set_Threshold(float val);

/* 0 white, 1 tag colours, 2 colour-map bands, 3 tagged only, 4 mixed;
 * 5 and above draw nothing. */
VOXELUNE_API int Ray_Set_Color_Scheme(unsigned char val);

/*
 * nb maps: map i lists count[i] tag values in list[i] and has the colour
 * index col[i] into the tag colour table.  A value in two maps keeps the
 * later one.  Refused: count, list or col null with nb > 0, or list[i]
 * null with count[i] > 0.
 */
VOXELUNE_API int Ray_Set_Color_Map(unsigned char nb, unsigned char* count,
                                   unsigned char** list, unsigned char* col);

/*
 * Tag colour i = (c16[i] & 0xFF) << 16 | (c8[i] & 0xFF) << 8 | (c0[i] & 0xFF),
 * for i below nb; the rest of the 256 entries are cleared.
 * Refused: nb above 256, or an array null with nb > 0.
 */
VOXELUNE_API int Ray_Set_Color_TAG(unsigned short nb, unsigned short* c16,
                                   unsigned short* c8, unsigned short* c0);

/*
 * Light 0 is the ambient light (only its colour is used); lights 1 to 4
 * are directional, dir given in view space.  Refused: id 5 or above,
 * dir null.
 */
VOXELUNE_API int Ray_Set_Light(unsigned short id, unsigned char status, unsigned int color,
                               Vector_4* dir);

/* The view as three angles in degrees (rotations about x, then y, then z). */
VOXELUNE_API int Ray_Set_Rotation(float rot_x, float rot_y, float rot_z);

/* The view as a matrix (copied).  Refused: mat null. */
VOXELUNE_API int Ray_Set_Transfo(Matrix_4x4* mat);

/* Depth clip for every slot: 0 nearer than any voxel, 1 beyond all. */
VOXELUNE_API int Ray_Set_Clip(float val);

/* Clip box of slot id mod 32, as fractions of each dimension.
 * Refused: id negative. */
VOXELUNE_API int Ray_Set_Clip(int id, float x_low, float x_high, float y_low, float y_high,
                              float z_low, float z_high);

/* ---- volumes ---- */

/*
 * Registers gli and tag (dim_x * dim_y * dim_z voxels, x fastest; kept by
 * pointer, the host keeps them alive) in slot id & 31, or clears the slot
 * when dim_x is 0.  With dim_x nonzero and gli null it is a query: 1 when
 * the slot holds a CPU volume of these dimensions, else 0.
 * Refused (result 1): a negative dimension, a voxel count above 2^31 - 1,
 * tag null in a registration.
 */
VOXELUNE_API int Ray_Set_Volume(unsigned short id, int dim_x, int dim_y, int dim_z, float* gli,
                                unsigned char* tag);

/* ---- frames ---- */

/*
 * Renders slot id & 31 into box.  On the GPU the frame is in
 * box->Graph_Normal when the call returns; on the CPU it refines level by
 * level afterwards and box->Draw() is called after every level.
 * A slot that holds no volume gives an empty frame (every pixel 0).
 * Refused: box null, box->Graph_Normal null, a width or height of 0 or
 * below, more than 2^31 - 1 pixels, a GPU slot whose device buffers were
 * released (cleared or after Ray_Exit), a call before Ray_Init.
 */
VOXELUNE_API int Ray_Start(Boxs* box, unsigned short id);

/* Stops the CPU render of slot id & 31, or of every slot when that is 0.
 * Refused: a call before Ray_Init. */
VOXELUNE_API int Ray_Stop(unsigned short id);

/* ---- mouse ---- */

/* button & 0xF0: 0x10 rotate, 0x20 or 0x50 scale, 0x40 translate;
 * 0 releases.  Refused: box null (with a nonzero button). */
VOXELUNE_API int Ray_Mouse_Click(Boxs* box, int button, float mx, float my);

/* Applies the movement since the last event to the view.
 * Refused: box null while a mode is set. */
VOXELUNE_API int Ray_Mouse_Motion(Boxs* box, int button, float mx, float my);

/* The view's rotation as three angles in radians.  Refused: rot null. */
VOXELUNE_API void Ray_Mouse_Get_Rot(float* rot);

/* Asks hybrid-graphics drivers for the discrete NVIDIA GPU; always 1. */
extern "C" VOXELUNE_API unsigned int NvOptimusEnablementCuda;

#endif
