/*
 * render_png_stb.cpp - PNG input and output through stb's single-header
 * image reader and writer, for systems without libpng (the Windows build).
 * The pictures are the same as libpng's; the compressed bytes may differ.
 */
#include "render_png.h"
#include "render_file.h"

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

static void write_to_file(void* file, void* data, int size)
{
    /* A short write leaves the stream's error flag set for the check below. */
    std::fwrite(data, 1, (size_t)size, (FILE*)file);
}

int Render_Write_Png(const std::string& path, int width, int height,
                     const unsigned char* rgb, std::string* error)
{
    return Render_Write_File(path, [&](FILE* f) -> std::string {
        errno = 0;
        if (!stbi_write_png_to_func(write_to_file, f, width, height, 3, rgb, width * 3))
            return "cannot encode the PNG image";
        if (std::ferror(f))
            return errno ? std::strerror(errno) : "write error";
        return "";
    }, error);
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
