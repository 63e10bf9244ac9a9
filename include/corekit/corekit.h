/*
 * corekit.h - the host's utility library, as the renderer sees it.
 *
 * Matrices and vectors, the trace function and its switches, error
 * texts, the random generator used for pixel jitter, the CUDA settings
 * and the crash callback.  This is our own stand-in for the host's
 * library; the knobs at the end of the file are the host's side of it.
 */
#ifndef COREKIT_COREKIT_H
#define COREKIT_COREKIT_H

#include <array>
#include <cstddef>

#if defined(_WIN32)
#  if defined(COREKIT_BUILD)
#    define COREKIT_API __declspec(dllexport)
#  else
#    define COREKIT_API __declspec(dllimport)
#  endif
#else
#  define COREKIT_API __attribute__((visibility("default")))
#endif

typedef void* HWND;

/* Passed as the first argument of every Error_Fct call; null by default. */
COREKIT_API extern HWND hwnd;

/*
 * Formats one trace line and hands it, as UTF-8, to the installed sink.
 * "%hs" is always a narrow string and "%ls" always a wide one, in both
 * overloads; the other conversions are printf's.  With no sink installed
 * the call returns at once, before any formatting.  Returns the number of
 * characters delivered, or 0.
 */
COREKIT_API int Error_Fct(HWND, unsigned int flags, const wchar_t* format, ...);
COREKIT_API int Error_Fct(HWND, unsigned int flags, const char* format, ...);

/* Trace level; CUDA success lines are written when (Flag_Trace & 15) >= 8. */
COREKIT_API extern signed char Flag_Trace;

/* Wide text of an errno value (a thread-local buffer). */
COREKIT_API const wchar_t* Error_Perror(int err);

COREKIT_API extern wchar_t Quil_Err_Str[1024];
COREKIT_API extern wchar_t Quil_Err_Cuda[1024];

/* Called just before the process exits on a fatal CUDA error; never null. */
COREKIT_API extern void (*Util_Cuda_Crash)();

/* Threads per CUDA block; 256 by default. */
COREKIT_API extern unsigned short Cuda_Thread_Block;

/* Nonzero when the library may use CUDA (see Corekit_Set_Cuda_Permission). */
COREKIT_API int Test_Cuda(int, int);

/* Thread-safe; uniform in [-1, 1) by default. */
COREKIT_API float Fct_Random_Float();

/*
 * Splits a path into directory, base name and extension.  Both '/' and
 * '\\' separate directories.  A null output is skipped.  The directory
 * keeps its trailing separator and the extension its leading dot.
 */
COREKIT_API void Get_Generic_Name(char* path, char* dir, char* name, char* ext);

enum combine { combine_before = 1, combine_after = 2 }; /* 1: M <- T*M, 2: M <- M*T */

/*
 * A 4 x 4 matrix of doubles for row vectors: a point p maps to p * M, and
 * row 3 holds the translation.  Default-constructed as the identity.
 */
class COREKIT_API Matrix_4x4 {
public:
    Matrix_4x4();
    Matrix_4x4(const Matrix_4x4& other);
    Matrix_4x4& operator=(const Matrix_4x4& other);

    void init();                              /* identity */
    double* operator[](int row) { return m[row]; }
    const double* operator[](int row) const { return m[row]; }

    Matrix_4x4 operator!() const;             /* general inverse (zero if singular) */
    Matrix_4x4 operator~() const;             /* transpose */

    void rot_x(float radians, combine c = combine_before);
    void rot_y(float radians, combine c = combine_before);
    void rot_z(float radians, combine c = combine_before);
    void scale(float sx, float sy, float sz, combine c = combine_before);
    void translate(float tx, float ty, float tz, combine c = combine_before);

    std::array<float, 16> to_float() const;   /* row by row */

    double m[4][4];

private:
    void apply(const Matrix_4x4& t, combine c);
};

/* x, y, z, w floats; a row vector. */
class COREKIT_API Vector_4 {
public:
    Vector_4() : x(0.0f), y(0.0f), z(0.0f), w(0.0f) {}
    Vector_4(float x_, float y_, float z_, float w_) : x(x_), y(y_), z(z_), w(w_) {}

    Vector_4& operator*=(const Matrix_4x4& m);   /* v <- v * M */
    Vector_4& operator*=(const float& f);
    Vector_4 normalise() const;                  /* x, y, z divided by their length */

    float x, y, z, w;
};

/* ---- the host's side: knobs of this stand-in ---- */

/* Receives each trace line once, UTF-8, without a trailing line break. */
typedef void (*Trace_Sink)(unsigned int flags, const char* line, void* context);
COREKIT_API void Corekit_Set_Trace_Sink(Trace_Sink sink, void* context); /* null: drop lines */
COREKIT_API void Corekit_Set_Random(float (*generator)());               /* null: the default */
COREKIT_API void Corekit_Set_Cuda_Permission(int allowed);               /* Test_Cuda's answer */
/* Nonzero while a sink is installed: work whose only effect is a trace line may be skipped. */
COREKIT_API int Corekit_Trace_Listening();

#endif
