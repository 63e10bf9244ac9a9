/*
 * render_png_stb.cpp - PNG input and output through stb's single-header
 * image reader and writer, for systems without libpng (the Windows build).
 * The pictures are the same as libpng's; the compressed bytes may differ.
 */
#include "render_png.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#include <stb_image_write.h>
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_ONLY_PNG
#include <stb_image.h>

int Render_Write_Png(const std::string& path, int width, int height,
                     const unsigned char* rgb, std::string* error)
{
    errno = 0;
    if (stbi_write_png(path.c_str(), width, height, 3, rgb, width * 3))
        return 1;
    int err = errno;
    std::remove(path.c_str());
    *error = path + ": " + (err ? std::strerror(err) : "cannot write the PNG file");
    return 0;
}

int Render_Read_Png(const std::string& path, int* width, int* height,
                    std::vector<unsigned char>* rgb, std::string* error)
{
    int w = 0, h = 0, channels = 0;
    unsigned char* data = stbi_load(path.c_str(), &w, &h, &channels, 3);
    if (!data) {
        *error = path + ": " + stbi_failure_reason();
        return 0;
    }
    rgb->assign(data, data + (size_t)w * h * 3);
    stbi_image_free(data);
    *width = w;
    *height = h;
    return 1;
}
