// Loads the installed library, reads the frame's trace lines, renders a
// tiny volume on the CPU and checks the result.  Exit status 0 on success.
#include <corekit/corekit.h>
#include <panelkit/panelkit.h>
#include <voxelune/voxelune.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

static std::vector<std::string> g_lines;
static std::mutex g_lock;
static std::condition_variable g_cv;
static int g_draws;

static bool has(const std::string& text)
{
    std::lock_guard<std::mutex> guard(g_lock);
    return std::find(g_lines.begin(), g_lines.end(), text) != g_lines.end();
}

static int fail(const char* what) { return std::fprintf(stderr, "consumer: %s\n", what), 1; }

int main()
{
    Corekit_Set_Trace_Sink(
        [](unsigned int, const char* line, void*) {
            std::lock_guard<std::mutex> guard(g_lock);
            g_lines.push_back(line);
        },
        nullptr);
    Corekit_Set_Cuda_Permission(0);
    char* version = Get_Version_Ray(nullptr);
    if (!version || !std::strstr(version, ".dll 1.0 (rev-a)")) return fail("version text");
    std::printf("consumer: %s\n", version);

    Ray_Init(2);
    if (!has(">>> in  Voxelune: Ray_Init()") || !has("<<< out Voxelune: Ray_Init(done)") ||
        !has(">>> in  Voxelune: Critical_Ray_Create()"))
        return fail("Ray_Init trace lines");

    const int n = 16;   /* a ball of radius 6 */
    std::vector<float> gli(n * n * n);
    std::vector<unsigned char> tag(n * n * n, 0);
    for (int i = 0; i < n * n * n; i++) {
        float dx = i % n - 7.5f, dy = i / n % n - 7.5f, dz = i / (n * n) - 7.5f;
        gli[i] = dx * dx + dy * dy + dz * dz < 36 ? 1.0f : 0.0f;
    }
    Ray_Set_Volume(1, n, n, n, gli.data(), tag.data());
    Vector_4 dir(0, 0, 1, 0);
    Ray_Set_Light(0, 1, 0x808080, &dir);
    Ray_Set_Light(1, 1, 0xFFFFFF, &dir);
    Ray_Set_Threshold(0.5f);
    Ray_Set_Rotation(20, 30, 0);
    Ray_Set_Clip(0.0f);

    Boxs box(64, 64);
    box.draw_handler = [](Boxs*, void*) {
        std::lock_guard<std::mutex> guard(g_lock);
        g_draws++;
        g_cv.notify_all();
    };
    Ray_Start(&box, 1);
    {
        std::unique_lock<std::mutex> guard(g_lock);
        if (!g_cv.wait_for(guard, std::chrono::seconds(30), [] { return g_draws >= 2; }))
            return fail("no complete frame");
    }
    int lit = 0;
    for (int i = 0; i < 64 * 64; i++) lit += (box.Graph_Normal[i] & 0xFFFFFF) != 0;
    Ray_Stop(0);
    Ray_Exit();
    Corekit_Set_Trace_Sink(nullptr, nullptr);
    if (lit < 100) return fail("the sphere is not in the image");
    std::printf("consumer: %d lit pixels, %d draws, %zu trace lines\n", lit, g_draws, g_lines.size());
    return 0;
}
