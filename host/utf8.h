/*
 * utf8.h - the UTF-8 encoder shared by the two host stand-ins.  Header
 * only and static, so neither library exports it.
 */
#ifndef VOXELUNE_HOST_UTF8_H
#define VOXELUNE_HOST_UTF8_H

#include <string>

/* Appends c as UTF-8; a value beyond U+10FFFF becomes U+FFFD. */
static inline void put_utf8(std::string& out, char32_t c)
{
    if (c >= 0x110000) c = 0xFFFD;
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

#endif
