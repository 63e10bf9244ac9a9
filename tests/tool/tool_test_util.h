/*
 * tool_test_util.h - helpers of the voxelune-render tests: a scratch
 * directory that removes itself, small file writers, and the built tool
 * run as a subprocess with its output captured.
 */
#ifndef VOXELUNE_TESTS_TOOL_TEST_UTIL_H
#define VOXELUNE_TESTS_TOOL_TEST_UTIL_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

/* A fresh directory under /tmp, removed with its contents at the end of the test. */
struct Scratch_Dir {
    std::string path;
    Scratch_Dir()
    {
        char tmpl[] = "/tmp/voxelune-tool-XXXXXX";
        const char* p = mkdtemp(tmpl);
        path = p ? p : "/tmp";
    }
    ~Scratch_Dir() { remove_tree(path); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }

    static void remove_tree(const std::string& dir)
    {
        DIR* d = opendir(dir.c_str());
        if (!d)
            return;
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name == "." || name == "..")
                continue;
            std::string full = dir + "/" + name;
            struct stat st;
            if (lstat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                remove_tree(full);
            else
                unlink(full.c_str());
        }
        closedir(d);
        rmdir(dir.c_str());
    }
};

/* Names in a directory, without "." and "..". */
inline std::vector<std::string> List_Dir(const std::string& dir)
{
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d)
        return names;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name != "." && name != "..")
            names.push_back(name);
    }
    closedir(d);
    return names;
}

inline bool File_Exists(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

inline void Write_Bytes(const std::string& path, const void* data, size_t size)
{
    std::ofstream f(path, std::ios::binary);
    f.write((const char*)data, (std::streamsize)size);
}

inline std::string Read_Text(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

/* What a run of the tool left behind. */
struct Tool_Result {
    int status = -1;     /* exit status; -1 when it did not exit normally */
    std::string out;     /* standard output */
    std::string err;     /* standard error */
};

/*
 * Runs the built voxelune-render with args in directory cwd, standard
 * output and error captured into files of cwd's parent scratch (they are
 * read back and removed, so cwd holds only what the tool wrote).
 */
inline Tool_Result Run_Tool(const std::vector<std::string>& args, const std::string& cwd)
{
    char out_tmpl[] = "/tmp/voxelune-tool-out-XXXXXX";
    char err_tmpl[] = "/tmp/voxelune-tool-err-XXXXXX";
    int out_fd = mkstemp(out_tmpl);
    int err_fd = mkstemp(err_tmpl);
    Tool_Result r;
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0)
            _exit(127);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        std::vector<char*> argv;
        argv.push_back((char*)VOXELUNE_RENDER_EXE);
        for (const std::string& a : args)
            argv.push_back((char*)a.c_str());
        argv.push_back(nullptr);
        execv(VOXELUNE_RENDER_EXE, argv.data());
        _exit(127);
    }
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    close(out_fd);
    close(err_fd);
    r.out = Read_Text(out_tmpl);
    r.err = Read_Text(err_tmpl);
    unlink(out_tmpl);
    unlink(err_tmpl);
    return r;
}

#endif
