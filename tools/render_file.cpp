/*
 * render_file.cpp - checked targets, whole-or-nothing writes and gzip
 * stream checks.
 *
 * An image is written to ".<name>.tmp-<pid>-<n>" in the target's
 * directory and renamed over the target once it is complete and on disk;
 * a rename within one directory replaces the target whole.  The names of
 * the temporary files in flight sit in fixed slots that the signal
 * handler can read without allocating, so an interrupt removes them too.
 * The few system calls that differ on Windows sit together below.
 */
#include "render_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#if defined(VOXELUNE_RENDER_NIFTI) || defined(VOXELUNE_RENDER_NRRD)
#include <zlib.h>
#endif

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

/* ---- the system calls that differ between POSIX and Windows ---- */

#if defined(_WIN32)
#include <direct.h>
#include <io.h>
#include <process.h>
#include <windows.h>

/* A directory has no search right on Windows: writing is what counts. */
static const int DIR_ACCESS = W_OK;
static const int CAUGHT_SIGNALS[] = {SIGINT, SIGTERM};

static int os_create_new(const char* path)
{
    return _open(path, _O_WRONLY | _O_CREAT | _O_EXCL | _O_BINARY | _O_NOINHERIT,
                 _S_IREAD | _S_IWRITE);
}
/* Windows files have no mode bits beyond read-only, which a target we may replace has not. */
static void os_copy_mode(int, const struct stat&) {}
static int os_sync(int fd) { return _commit(fd); }
static int os_unlink(const char* path) { return _unlink(path); }
static long os_pid() { return (long)_getpid(); }

/* rename() never replaces an existing file on Windows. */
static int os_replace(const char* from, const char* to)
{
    if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return 0;
    DWORD err = GetLastError();
    errno = err == ERROR_ACCESS_DENIED || err == ERROR_SHARING_VIOLATION ? EACCES : EIO;
    return -1;
}

int Render_Make_Dir(const std::string& path) { return _mkdir(path.c_str()); }
#else
#include <unistd.h>

static const int DIR_ACCESS = W_OK | X_OK;
static const int CAUGHT_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

static int os_create_new(const char* path)
{
    return open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
}
static void os_copy_mode(int fd, const struct stat& st) { (void)fchmod(fd, st.st_mode & 07777); }
static int os_sync(int fd) { return fsync(fd); }
static int os_unlink(const char* path) { return unlink(path); }
static long os_pid() { return (long)getpid(); }
static int os_replace(const char* from, const char* to) { return rename(from, to); }

int Render_Make_Dir(const std::string& path) { return mkdir(path.c_str(), 0777); }
#endif

/* ---- targets ---- */

/* Longest path the tool writes: its temporary name must fit a slot below. */
enum { MAX_TARGET = 4000 };

static std::string parent_dir(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

/* Is dir an existing directory we may create files in?  what names the option. */
static int check_dir(const std::string& dir, const std::string& what, std::string* error)
{
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) {
        *error = what + ": directory '" + dir + "': " + std::strerror(errno);
        return 0;
    }
    if (!S_ISDIR(st.st_mode)) {
        *error = what + ": '" + dir + "' is not a directory";
        return 0;
    }
    if (access(dir.c_str(), DIR_ACCESS) != 0) {
        *error = what + ": directory '" + dir + "' is not writable";
        return 0;
    }
    return 1;
}

int Render_Check_Target(const std::string& path, std::string* error)
{
    if (path.size() > MAX_TARGET) {
        *error = path.substr(0, 40) + "...: file name too long";
        return 0;
    }
    if (path.back() == '/') {
        *error = path + ": names a directory, not a file";
        return 0;
    }
    if (!check_dir(parent_dir(path), path, error))
        return 0;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT)
            return 1;  /* a new file */
        *error = path + ": " + std::strerror(errno);
        return 0;
    }
    if (S_ISDIR(st.st_mode)) {
        *error = path + ": is a directory";
        return 0;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = path + ": not a regular file (a device, pipe or socket); "
                        "name a regular file or a new one";
        return 0;
    }
    if (access(path.c_str(), W_OK) != 0) {
        *error = path + ": the file is not writable";
        return 0;
    }
    return 1;
}

/* ---- temporary files in flight ---- */

enum { SLOTS = 4, SLOT_CHARS = MAX_TARGET + 256 };
enum { SLOT_FREE, SLOT_FILLING, SLOT_LIVE };

static char slot_path[SLOTS][SLOT_CHARS];
static std::atomic<int> slot_state[SLOTS];
static std::atomic<unsigned> temp_counter{0};

/* Claims a slot and records name in it; -1 when every slot is taken. */
static int slot_claim(const std::string& name)
{
    if (name.size() >= SLOT_CHARS)
        return -1;
    for (int i = 0; i < SLOTS; i++) {
        int expected = SLOT_FREE;
        if (slot_state[i].compare_exchange_strong(expected, SLOT_FILLING)) {
            std::memcpy(slot_path[i], name.c_str(), name.size() + 1);
            slot_state[i].store(SLOT_LIVE);
            return i;
        }
    }
    return -1;
}

static void slot_release(int i)
{
    slot_state[i].store(SLOT_FREE);
}

static void on_signal(int sig)
{
    int saved = errno;
    for (int i = 0; i < SLOTS; i++)
        if (slot_state[i].load() == SLOT_LIVE)
            os_unlink(slot_path[i]);
    /* End by the signal itself once this handler returns. */
    signal(sig, SIG_DFL);
    raise(sig);
    errno = saved;
}

void Render_Catch_Signals()
{
#if defined(_WIN32)
    /* The C runtime's signals: no others reach a console program. */
    for (int sig : CAUGHT_SIGNALS)
        signal(sig, on_signal);
#else
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (int sig : CAUGHT_SIGNALS)
        sigaddset(&sa.sa_mask, sig);
    for (int sig : CAUGHT_SIGNALS)
        sigaction(sig, &sa, nullptr);
#endif
}

/* ".<name>.tmp-<pid>-<n>" beside path; the name part is shortened to stay within NAME_MAX. */
static std::string temp_name(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    return dir + "." + base.substr(0, 200) + ".tmp-" + std::to_string(os_pid()) + "-" +
           std::to_string(temp_counter.fetch_add(1));
}

int Render_Write_File(const std::string& path, const std::function<std::string(FILE*)>& write,
                      std::string* error)
{
    std::string temp = temp_name(path);
    /* The slot is filled before the file exists, so an interrupt never misses it. */
    int slot = slot_claim(temp);
    if (slot < 0) {
        *error = path + ": no room to track a temporary file";
        return 0;
    }
    int fd = os_create_new(temp.c_str());
    if (fd < 0) {
        *error = path + ": cannot create a temporary file beside it: " + std::strerror(errno);
        slot_release(slot);
        return 0;
    }
    /* A replaced file keeps its permissions. */
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        os_copy_mode(fd, st);
    FILE* f = fdopen(fd, "wb");
    std::string why;
    if (!f) {
        why = std::strerror(errno);
        close(fd);
    } else {
        why = write(f);
        if (why.empty() && (std::fflush(f) != 0 || os_sync(fileno(f)) != 0))
            why = std::strerror(errno);
        if (std::fclose(f) != 0 && why.empty())
            why = std::strerror(errno);
    }
    if (why.empty() && os_replace(temp.c_str(), path.c_str()) != 0)
        why = std::strerror(errno);
    if (!why.empty()) {
        os_unlink(temp.c_str());
        *error = path + ": " + why;
    }
    slot_release(slot);
    return why.empty() ? 1 : 0;
}

/* ---- gzip (for the readers of compressed formats) ---- */

#if defined(VOXELUNE_RENDER_NIFTI) || defined(VOXELUNE_RENDER_NRRD)
long long Render_Gzip_Length(FILE* f, long long limit, std::string* why)
{
    z_stream zs;
    std::memset(&zs, 0, sizeof zs);
    if (inflateInit2(&zs, 16 + MAX_WBITS) != Z_OK) {
        *why = "cannot start zlib";
        return -1;
    }
    std::vector<unsigned char> in(1 << 16), out(1 << 16);
    long long total = 0;
    int ret = Z_OK;
    bool started = false;  /* inside a gzip member */
    for (;;) {
        if (zs.avail_in == 0) {
            size_t got = std::fread(in.data(), 1, in.size(), f);
            if (got == 0)
                break;
            zs.next_in = in.data();
            zs.avail_in = (uInt)got;
        }
        if (ret == Z_STREAM_END) {
            /* another member follows */
            inflateReset(&zs);
        }
        started = true;
        zs.next_out = out.data();
        zs.avail_out = (uInt)out.size();
        ret = inflate(&zs, Z_NO_FLUSH);
        total += (long long)(out.size() - zs.avail_out);
        if (ret != Z_OK && ret != Z_STREAM_END && ret != Z_BUF_ERROR) {
            *why = std::string("corrupt compressed data (") + (zs.msg ? zs.msg : "zlib error") + ")";
            inflateEnd(&zs);
            return -1;
        }
        if (total > limit) {
            inflateEnd(&zs);
            return total;  /* enough: the rest is not needed */
        }
        if (ret == Z_STREAM_END)
            started = false;
    }
    bool read_error = std::ferror(f) != 0;
    inflateEnd(&zs);
    if (read_error) {
        *why = std::string("read error: ") + std::strerror(errno);
        return -1;
    }
    if (started || ret != Z_STREAM_END) {
        *why = "the compressed data ends early (cut short, or without its gzip trailer)";
        return -1;
    }
    return total;
}
#endif
