/*
 * render_png.cpp - compositing of pixel words and PNG input and output
 * through libpng's simplified interface (render_png_stb.cpp has the PNG
 * input and output where the tool is built with stb instead).
 */
#include "render_png.h"
#include "render_file.h"

#if !defined(VOXELUNE_RENDER_STB)
#include <png.h>
#endif

#include <cstdio>
#include <cstring>

unsigned int Render_Composite(unsigned int word, unsigned int background)
{
    /* A missed ray leaves the background as it is. */
    if (word == 0)
        return background & 0xFFFFFF;
    unsigned int trans = word >> 24;
    unsigned int out = 0;
    for (int shift = 0; shift <= 16; shift += 8) {
        unsigned int c = (word >> shift) & 0xFF;
        unsigned int b = (background >> shift) & 0xFF;
        /* c + trans/255 * b, rounded to nearest, saturated */
        unsigned int v = c + (trans * b + 127) / 255;
        out |= (v > 255 ? 255 : v) << shift;
    }
    return out;
}

void Render_Words_To_Rgb(const unsigned int* words, int n, unsigned int background,
                         unsigned char* rgb)
{
    for (int i = 0; i < n; i++) {
        unsigned int c = Render_Composite(words[i], background);
        rgb[3 * i + 0] = (unsigned char)(c >> 16);
        rgb[3 * i + 1] = (unsigned char)(c >> 8);
        rgb[3 * i + 2] = (unsigned char)c;
    }
}

#if !defined(VOXELUNE_RENDER_STB)
int Render_Write_Png(const std::string& path, int width, int height,
                     const unsigned char* rgb, std::string* error)
{
    return Render_Write_File(path, [&](FILE* f) -> std::string {
        png_image image;
        std::memset(&image, 0, sizeof image);
        image.version = PNG_IMAGE_VERSION;
        image.width = (png_uint_32)width;
        image.height = (png_uint_32)height;
        image.format = PNG_FORMAT_RGB;
        int ok = png_image_write_to_stdio(&image, f, 0, rgb, 0, nullptr);
        std::string why = ok ? "" : image.message;
        png_image_free(&image);
        return why;
    }, error);
}

int Render_Read_Png(const std::string& path, int* width, int* height,
                    std::vector<unsigned char>* rgb, std::string* error)
{
    png_image image;
    std::memset(&image, 0, sizeof image);
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        *error = path + ": " + image.message;
        png_image_free(&image);
        return 0;
    }
    image.format = PNG_FORMAT_RGB;
    rgb->resize(PNG_IMAGE_SIZE(image));
    if (!png_image_finish_read(&image, nullptr, rgb->data(), 0, nullptr)) {
        *error = path + ": " + image.message;
        png_image_free(&image);
        return 0;
    }
    *width = (int)image.width;
    *height = (int)image.height;
    return 1;
}
#endif
