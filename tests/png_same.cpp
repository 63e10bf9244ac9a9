// png_same A.png B.png: exit status 0 when both decode to the same size and
// the same RGB bytes (the files themselves may be compressed differently).
#include "render_png.h"

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc != 3) return 2;
    int w[2], h[2];
    std::vector<unsigned char> rgb[2];
    std::string error;
    for (int k = 0; k < 2; k++)
        if (!Render_Read_Png(argv[1 + k], &w[k], &h[k], &rgb[k], &error)) {
            std::fprintf(stderr, "%s\n", error.c_str());
            return 2;
        }
    size_t differ = 0;
    for (size_t i = 0; i < rgb[0].size() && i < rgb[1].size(); i++) differ += rgb[0][i] != rgb[1][i];
    std::printf("%s: %dx%d, %s: %dx%d, %zu bytes differ\n", argv[1], w[0], h[0], argv[2], w[1], h[1], differ);
    return w[0] == w[1] && h[0] == h[1] && rgb[0] == rgb[1] ? 0 : 1;
}
