/*
 * render_png.h - from the library's pixel words to PNG files.
 *
 * A pixel word holds three colour channels in bytes 0 to 2 (byte 2 red,
 * byte 1 green, byte 0 blue, the order of the tag colours 0xRRGGBB) and
 * the transparency left after the ray in byte 3 (255: nothing hit).  The
 * word 0 marks a ray that missed the volume.  The image is composited
 * over a background colour: out = channel + transparency * background.
 */
#ifndef VOXELUNE_TOOLS_RENDER_PNG_H
#define VOXELUNE_TOOLS_RENDER_PNG_H

#include <string>
#include <vector>

/* One pixel word over the background 0xRRGGBB; the result is 0xRRGGBB. */
unsigned int Render_Composite(unsigned int word, unsigned int background);

/* n pixel words to 3n bytes R, G, B. */
void Render_Words_To_Rgb(const unsigned int* words, int n, unsigned int background,
                         unsigned char* rgb);

/* Writes an 8-bit RGB PNG whole or not at all (see Render_Write_File).  1 on success. */
int Render_Write_Png(const std::string& path, int width, int height,
                     const unsigned char* rgb, std::string* error);

/* Reads any PNG as 8-bit RGB (alpha dropped, grey expanded).  1 on success. */
int Render_Read_Png(const std::string& path, int* width, int* height,
                    std::vector<unsigned char>* rgb, std::string* error);

#endif
