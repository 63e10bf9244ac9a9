/*
 * corekit.cpp - our stand-in for the host's utility library.
 *
 * Tracing: Error_Fct formats a line with the host's conventions ("%hs" is
 * always narrow, "%ls" always wide) and hands it, as UTF-8, to the sink
 * that the host installed.  Narrow text is taken as UTF-8 where it is
 * valid and as one character per byte where it is not, so markup bytes
 * such as 0xF1 mean the same in narrow and wide formats.
 */
#include <corekit/corekit.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <mutex>
#include <string>
#include <type_traits>

#include "utf8.h"

HWND hwnd = nullptr;
signed char Flag_Trace = 0;
wchar_t Quil_Err_Str[1024];
wchar_t Quil_Err_Cuda[1024];
unsigned short Cuda_Thread_Block = 256;

static void default_cuda_crash() {}
void (*Util_Cuda_Crash)() = default_cuda_crash;

/* ---------------------------------------------------------------- trace */

static std::atomic<Trace_Sink> g_sink{nullptr};
static void* g_sink_context = nullptr;   /* written and read under g_sink_lock */
static std::mutex g_sink_lock;

void Corekit_Set_Trace_Sink(Trace_Sink sink, void* context)
{
    std::lock_guard<std::mutex> guard(g_sink_lock);
    g_sink_context = context;
    g_sink.store(sink, std::memory_order_release);
}

int Corekit_Trace_Listening()
{
    return g_sink.load(std::memory_order_acquire) != nullptr;
}

/* Length of the valid UTF-8 sequence at s (at most n bytes), or 0. */
static size_t utf8_seq(const unsigned char* s, size_t n, char32_t* cp)
{
    unsigned char c = s[0];
    size_t len;
    char32_t v;
    if (c >= 0xC2 && c <= 0xDF) { len = 2; v = c & 0x1F; }
    else if (c >= 0xE0 && c <= 0xEF) { len = 3; v = c & 0x0F; }
    else if (c >= 0xF0 && c <= 0xF4) { len = 4; v = c & 0x07; }
    else return 0;
    if (len > n) return 0;
    for (size_t k = 1; k < len; k++) {
        if ((s[k] & 0xC0) != 0x80) return 0;
        v = (v << 6) | (s[k] & 0x3F);
    }
    if ((len == 3 && v < 0x800) || (len == 4 && (v < 0x10000 || v > 0x10FFFF)) ||
        (v >= 0xD800 && v <= 0xDFFF))
        return 0;
    *cp = v;
    return len;
}

/* Appends narrow text: UTF-8 where valid, else one character per byte. */
static void put_narrow(std::string& out, const char* s, size_t n)
{
    const unsigned char* u = reinterpret_cast<const unsigned char*>(s);
    size_t i = 0;
    while (i < n) {
        char32_t cp;
        if (u[i] < 0x80) { out += static_cast<char>(u[i]); i++; continue; }
        size_t len = utf8_seq(u + i, n - i, &cp);
        if (len) { out.append(s + i, len); i += len; }
        else { put_utf8(out, u[i]); i++; }
    }
}

/* Wide text is UTF-32 on Linux and UTF-16 (surrogate pairs joined) on Windows. */
static void put_wide(std::string& out, const wchar_t* s, size_t n)
{
    for (size_t i = 0; i < n; i++) {
        char32_t c = static_cast<char32_t>(s[i]);
        if (sizeof(wchar_t) == 2 && c >= 0xD800 && c < 0xDC00 && i + 1 < n && s[i + 1] >= 0xDC00 &&
            s[i + 1] < 0xE000)
            c = 0x10000 + ((c - 0xD800) << 10) + (static_cast<char32_t>(s[++i]) - 0xDC00);
        put_utf8(out, c);
    }
}

static void pad(std::string& out, size_t have, int width, bool left, size_t at)
{
    if (width > 0 && have < static_cast<size_t>(width)) {
        std::string fill(static_cast<size_t>(width) - have, ' ');
        if (left) out += fill;
        else out.insert(at, fill);
    }
}

/*
 * The formatter shared by both overloads.  CharT is the format's
 * character type; a plain "%s" or "%c" takes that type, "%h" forces
 * narrow and "%l" wide.
 */
template <typename CharT>
static std::string format_line(const CharT* fmt, va_list ap)
{
    const bool wide_default = sizeof(CharT) != 1;
    std::string out;
    for (const CharT* p = fmt; *p; p++) {
        if (*p != '%') {
            if (wide_default) put_utf8(out, static_cast<char32_t>(*p));
            else {
                /* copy a run of narrow characters at once */
                const CharT* q = p;
                while (*q && *q != '%') q++;
                put_narrow(out, reinterpret_cast<const char*>(p), static_cast<size_t>(q - p));
                p = q - 1;
            }
            continue;
        }
        const CharT* start = p++;
        if (*p == '%') { out += '%'; continue; }
        std::string conv = "%";
        bool left = false;
        while (*p == '-' || *p == '+' || *p == ' ' || *p == '#' || *p == '0') {
            if (*p == '-') left = true;
            conv += static_cast<char>(*p++);
        }
        int width = -1;
        if (*p == '*') { width = va_arg(ap, int); if (width < 0) { left = true; width = -width; } p++; }
        else if (*p >= '0' && *p <= '9') { width = 0; while (*p >= '0' && *p <= '9') width = width * 10 + (*p++ - '0'); }
        int prec = -1;
        if (*p == '.') {
            p++;
            prec = 0;
            if (*p == '*') { prec = va_arg(ap, int); p++; }
            else while (*p >= '0' && *p <= '9') prec = prec * 10 + (*p++ - '0');
        }
        int h = 0, l = 0;
        bool z = false;
        for (;; p++) {
            if (*p == 'h') h++;
            else if (*p == 'l') l++;
            else if (*p == 'z') z = true;
            else break;
        }
        if (width >= 0) conv += std::to_string(width);
        if (prec >= 0) conv += "." + std::to_string(prec);
        char buf[512];
        switch (*p) {
        case 'd': case 'i': {
            long long v = l >= 2 ? va_arg(ap, long long) : l == 1 ? va_arg(ap, long) :
                          z ? static_cast<long long>(va_arg(ap, ptrdiff_t)) : va_arg(ap, int);
            if (h == 1) v = static_cast<short>(v);
            if (h >= 2) v = static_cast<signed char>(v);
            std::snprintf(buf, sizeof buf, (conv + "lld").c_str(), v);
            out += buf;
            break;
        }
        case 'u': case 'x': case 'X': case 'o': {
            unsigned long long v = l >= 2 ? va_arg(ap, unsigned long long) :
                                   l == 1 ? va_arg(ap, unsigned long) :
                                   z ? va_arg(ap, size_t) : va_arg(ap, unsigned int);
            if (h == 1) v = static_cast<unsigned short>(v);
            if (h >= 2) v = static_cast<unsigned char>(v);
            std::snprintf(buf, sizeof buf, (conv + "ll" + static_cast<char>(*p)).c_str(), v);
            out += buf;
            break;
        }
        case 'f': case 'F': case 'e': case 'E': case 'g': case 'G': case 'a': case 'A': {
            double v = va_arg(ap, double);
            std::snprintf(buf, sizeof buf, (conv + static_cast<char>(*p)).c_str(), v);
            out += buf;
            break;
        }
        case 'p': {
            void* v = va_arg(ap, void*);
            std::snprintf(buf, sizeof buf, (conv + "p").c_str(), v);
            out += buf;
            break;
        }
        case 'c': case 'C': {
            bool wide = l ? true : h ? false : (*p == 'C') != wide_default;
            size_t at = out.size();
            /* a wint_t narrower than int (Windows) arrives as an int */
            typedef std::conditional<(sizeof(wint_t) < sizeof(int)), int, wint_t>::type wide_arg;
            if (wide) put_utf8(out, static_cast<char32_t>(static_cast<wint_t>(va_arg(ap, wide_arg))));
            else put_narrow(out, std::string(1, static_cast<char>(va_arg(ap, int))).c_str(), 1);
            pad(out, 1, width, left, at);
            break;
        }
        case 's': case 'S': {
            bool wide = l ? true : h ? false : (*p == 'S') != wide_default;
            size_t at = out.size();
            size_t n;
            if (wide) {
                const wchar_t* s = va_arg(ap, const wchar_t*);
                if (!s) s = L"(null)";
                n = std::wcslen(s);
                if (prec >= 0 && static_cast<size_t>(prec) < n) n = static_cast<size_t>(prec);
                put_wide(out, s, n);
            } else {
                const char* s = va_arg(ap, const char*);
                if (!s) s = "(null)";
                n = std::strlen(s);
                if (prec >= 0 && static_cast<size_t>(prec) < n) n = static_cast<size_t>(prec);
                put_narrow(out, s, n);
            }
            pad(out, n, width, left, at);
            break;
        }
        case 0:
            p--;
            /* fall through */
        default:
            /* unknown conversion: copy it as it stands */
            for (const CharT* q = start; q <= p && *q; q++)
                put_utf8(out, static_cast<char32_t>(*q));
            break;
        }
    }
    return out;
}

static int deliver(unsigned int flags, std::string&& line)
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    std::lock_guard<std::mutex> guard(g_sink_lock);
    Trace_Sink sink = g_sink.load(std::memory_order_acquire);
    if (!sink) return 0;
    sink(flags, line.c_str(), g_sink_context);
    return static_cast<int>(line.size());
}

int Error_Fct(HWND, unsigned int flags, const wchar_t* format, ...)
{
    if (!g_sink.load(std::memory_order_relaxed) || !format) return 0;
    va_list ap;
    va_start(ap, format);
    std::string line = format_line(format, ap);
    va_end(ap);
    return deliver(flags, std::move(line));
}

int Error_Fct(HWND, unsigned int flags, const char* format, ...)
{
    if (!g_sink.load(std::memory_order_relaxed) || !format) return 0;
    va_list ap;
    va_start(ap, format);
    std::string line = format_line(format, ap);
    va_end(ap);
    return deliver(flags, std::move(line));
}

const wchar_t* Error_Perror(int err)
{
    static thread_local wchar_t text[256];
    char buf[200];
#if defined(_WIN32)
    strerror_s(buf, sizeof buf, err);
    const char* msg = buf;
#else
    /* GNU strerror_r returns the text, which may not be in buf */
    const char* msg = strerror_r(err, buf, sizeof buf);
#endif
    std::swprintf(text, 256, L"%hs", msg);
    return text;
}

/* --------------------------------------------------------- CUDA settings */

static std::atomic<int> g_cuda_allowed{1};

void Corekit_Set_Cuda_Permission(int allowed) { g_cuda_allowed.store(allowed); }

int Test_Cuda(int, int) { return g_cuda_allowed.load(); }

/* ---------------------------------------------------------------- random */

static std::atomic<float (*)()> g_random{nullptr};

void Corekit_Set_Random(float (*generator)()) { g_random.store(generator); }

/* xorshift64* per thread: no lock, no shared state between threads */
static float default_random()
{
    static std::atomic<uint64_t> seeds{0x9E3779B97F4A7C15ull};
    static thread_local uint64_t state = seeds.fetch_add(0x9E3779B97F4A7C15ull) | 1u;
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    uint64_t r = state * 0x2545F4914F6CDD1Dull;
    /* 24 high bits give a uniform float in [0, 1), exactly representable */
    float u = static_cast<float>(r >> 40) * (1.0f / 16777216.0f);
    return u * 2.0f - 1.0f;
}

float Fct_Random_Float()
{
    float (*gen)() = g_random.load(std::memory_order_relaxed);
    return gen ? gen() : default_random();
}

/* ----------------------------------------------------------------- paths */

void Get_Generic_Name(char* path, char* dir, char* name, char* ext)
{
    const char* p = path ? path : "";
    size_t len = std::strlen(p);
    size_t base = 0;
    for (size_t i = 0; i < len; i++)
        if (p[i] == '/' || p[i] == '\\') base = i + 1;
    size_t dot = len;
    for (size_t i = len; i > base; i--)
        if (p[i - 1] == '.') { dot = i - 1; break; }
    if (dot == base) dot = len;   /* ".profile": a name, not an extension */
    if (dir) { std::memmove(dir, p, base); dir[base] = 0; }
    if (name) { std::memmove(name, p + base, dot - base); name[dot - base] = 0; }
    if (ext) { std::memmove(ext, p + dot, len - dot); ext[len - dot] = 0; }
}

/* -------------------------------------------------------------- matrices */

Matrix_4x4::Matrix_4x4() { init(); }

Matrix_4x4::Matrix_4x4(const Matrix_4x4& other) { std::memcpy(m, other.m, sizeof m); }

Matrix_4x4& Matrix_4x4::operator=(const Matrix_4x4& other)
{
    if (this != &other) std::memcpy(m, other.m, sizeof m);
    return *this;
}

void Matrix_4x4::init()
{
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) m[r][c] = r == c ? 1.0 : 0.0;
}

static Matrix_4x4 multiply(const Matrix_4x4& a, const Matrix_4x4& b)
{
    Matrix_4x4 r;
    for (int i = 0; i < 4; i++)
        for (int j = 0; j < 4; j++) {
            double s = 0.0;
            for (int k = 0; k < 4; k++) s += a.m[i][k] * b.m[k][j];
            r.m[i][j] = s;
        }
    return r;
}

void Matrix_4x4::apply(const Matrix_4x4& t, combine c)
{
    *this = c == combine_after ? multiply(*this, t) : multiply(t, *this);
}

/* Gauss-Jordan elimination with partial pivoting; a singular matrix gives zero. */
Matrix_4x4 Matrix_4x4::operator!() const
{
    double a[4][8];
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 8; c++) a[r][c] = c < 4 ? m[r][c] : (c - 4 == r ? 1.0 : 0.0);
    for (int col = 0; col < 4; col++) {
        int piv = col;
        for (int r = col + 1; r < 4; r++)
            if (std::fabs(a[r][col]) > std::fabs(a[piv][col])) piv = r;
        if (a[piv][col] == 0.0 || std::isnan(a[piv][col])) {
            Matrix_4x4 zero;
            std::memset(zero.m, 0, sizeof zero.m);
            return zero;
        }
        if (piv != col)
            for (int c = 0; c < 8; c++) std::swap(a[piv][c], a[col][c]);
        double inv = 1.0 / a[col][col];
        for (int c = 0; c < 8; c++) a[col][c] *= inv;
        for (int r = 0; r < 4; r++) {
            if (r == col || a[r][col] == 0.0) continue;
            double f = a[r][col];
            for (int c = 0; c < 8; c++) a[r][c] -= f * a[col][c];
        }
    }
    Matrix_4x4 out;
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) out.m[r][c] = a[r][c + 4];
    return out;
}

Matrix_4x4 Matrix_4x4::operator~() const
{
    Matrix_4x4 t;
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) t.m[r][c] = m[c][r];
    return t;
}

void Matrix_4x4::rot_x(float radians, combine c)
{
    double s = std::sin(static_cast<double>(radians)), k = std::cos(static_cast<double>(radians));
    Matrix_4x4 t;
    t.m[1][1] = k; t.m[1][2] = s;
    t.m[2][1] = -s; t.m[2][2] = k;
    apply(t, c);
}

void Matrix_4x4::rot_y(float radians, combine c)
{
    double s = std::sin(static_cast<double>(radians)), k = std::cos(static_cast<double>(radians));
    Matrix_4x4 t;
    t.m[0][0] = k; t.m[0][2] = -s;
    t.m[2][0] = s; t.m[2][2] = k;
    apply(t, c);
}

void Matrix_4x4::rot_z(float radians, combine c)
{
    double s = std::sin(static_cast<double>(radians)), k = std::cos(static_cast<double>(radians));
    Matrix_4x4 t;
    t.m[0][0] = k; t.m[0][1] = s;
    t.m[1][0] = -s; t.m[1][1] = k;
    apply(t, c);
}

void Matrix_4x4::scale(float sx, float sy, float sz, combine c)
{
    Matrix_4x4 t;
    t.m[0][0] = sx; t.m[1][1] = sy; t.m[2][2] = sz;
    apply(t, c);
}

void Matrix_4x4::translate(float tx, float ty, float tz, combine c)
{
    Matrix_4x4 t;
    t.m[3][0] = tx; t.m[3][1] = ty; t.m[3][2] = tz;
    apply(t, c);
}

std::array<float, 16> Matrix_4x4::to_float() const
{
    std::array<float, 16> f;
    for (int r = 0; r < 4; r++)
        for (int c = 0; c < 4; c++) f[static_cast<size_t>(r * 4 + c)] = static_cast<float>(m[r][c]);
    return f;
}

/* --------------------------------------------------------------- vectors */

Vector_4& Vector_4::operator*=(const Matrix_4x4& mat)
{
    double v[4] = {x, y, z, w}, r[4];
    for (int c = 0; c < 4; c++)
        r[c] = v[0] * mat.m[0][c] + v[1] * mat.m[1][c] + v[2] * mat.m[2][c] + v[3] * mat.m[3][c];
    x = static_cast<float>(r[0]);
    y = static_cast<float>(r[1]);
    z = static_cast<float>(r[2]);
    w = static_cast<float>(r[3]);
    return *this;
}

Vector_4& Vector_4::operator*=(const float& f)
{
    x *= f;
    y *= f;
    z *= f;
    w *= f;
    return *this;
}

Vector_4 Vector_4::normalise() const
{
    float len = std::sqrt(x * x + y * y + z * z);
    return Vector_4(x / len, y / len, z / len, w);
}
