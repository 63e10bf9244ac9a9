/*
 * render_file.cpp - checked targets, whole-or-nothing writes and gzip
 * stream checks.
 *
 * An image is written to ".<name>.tmp-<pid>-<n>" in the target's
 * directory and renamed over the target once it is complete and on disk;
 * a rename within one directory replaces the target whole.  The names of
 * the temporary files in flight sit in fixed slots that the signal
 * handler can read without allocating, so an interrupt removes them too.
 */
#include "render_file.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

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
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
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
            unlink(slot_path[i]);
    /* End by the signal itself once this handler returns. */
    signal(sig, SIG_DFL);
    raise(sig);
    errno = saved;
}

void Render_Catch_Signals()
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        sigaddset(&sa.sa_mask, sig);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        sigaction(sig, &sa, nullptr);
}

/* ".<name>.tmp-<pid>-<n>" beside path; the name part is shortened to stay within NAME_MAX. */
static std::string temp_name(const std::string& path)
{
    size_t slash = path.find_last_of('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
    return dir + "." + base.substr(0, 200) + ".tmp-" + std::to_string((long)getpid()) + "-" +
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
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) {
        *error = path + ": cannot create a temporary file beside it: " + std::strerror(errno);
        slot_release(slot);
        return 0;
    }
    /* A replaced file keeps its permissions. */
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode))
        (void)fchmod(fd, st.st_mode & 07777);
    FILE* f = fdopen(fd, "wb");
    std::string why;
    if (!f) {
        why = std::strerror(errno);
        close(fd);
    } else {
        why = write(f);
        if (why.empty() && (std::fflush(f) != 0 || fsync(fileno(f)) != 0))
            why = std::strerror(errno);
        if (std::fclose(f) != 0 && why.empty())
            why = std::strerror(errno);
    }
    if (why.empty() && rename(temp.c_str(), path.c_str()) != 0)
        why = std::strerror(errno);
    if (!why.empty()) {
        unlink(temp.c_str());
        *error = path + ": " + why;
    }
    slot_release(slot);
    return why.empty() ? 1 : 0;
}

/* ---- gzip ---- */

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
