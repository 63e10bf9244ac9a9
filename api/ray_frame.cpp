/*
 * ray_frame.cpp - the trivial exports and the version text.
 */
#include <voxelune/voxelune.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/ray_state.h"

extern "C" {
unsigned int NvOptimusEnablementCuda = 1;
}

static char Ray_Version[256];

void Ray_Cleanup() {}

void Ray_Free(char** ptr)
{
    if (!ptr) {
        Ray_Trace(RAY_TR_ERROR, "ERROR: Ray_Free(null): no pointer given");
        return;
    }
    if (*ptr) {
        std::free(*ptr);
        *ptr = nullptr;
    }
}

char* Get_Version_Ray(char* version)
{
    static const char k_version[4] = {'1', '.', '0', 0};
    /* Byte by byte, so that a shorter text is never read past its end. */
    if (version)
        for (int k = 0; k < 4; k++) {
            if (version[k] != k_version[k]) return nullptr;
            if (!version[k]) break;
        }
    char path[261];
    char name[80];
    path[0] = 0;
    name[0] = 0;
    if (Plat_Module_Path(path, sizeof path) > 0) {
        /* the base name fits: at most 260 characters, name has 80 */
        char full[261];
        Get_Generic_Name(path, nullptr, full, nullptr);
        size_t n = std::strlen(full);
        if (n >= sizeof name) n = sizeof name - 1;
        std::memcpy(name, full, n);
        name[n] = 0;
    }
    std::snprintf(Ray_Version, sizeof Ray_Version, "%s.dll%s %s (rev-%s)", name, "", "1.0", "a");
    return Ray_Version;
}
