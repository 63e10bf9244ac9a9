/*
 * tool_test_util.h - helpers of the voxelune-render tests: a scratch
 * directory that removes itself, small file writers, and the built tool
 * run as a subprocess with its output captured.
 */
#ifndef VOXELUNE_TESTS_TOOL_TEST_UTIL_H
#define VOXELUNE_TESTS_TOOL_TEST_UTIL_H

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

/* Names in a directory, without "." and "..". */
inline std::vector<std::string> List_Dir(const std::string& dir)
{
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
                names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

/* A fresh directory under /tmp, removed with its contents at the end of the test. */
struct Scratch_Dir {
    std::string path;
    Scratch_Dir()
    {
        char tmpl[] = "/tmp/voxelune-tool-XXXXXX";
        path = mkdtemp(tmpl) ? tmpl : "/tmp";
    }
    ~Scratch_Dir() { remove_tree(path); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
    static void remove_tree(const std::string& dir)
    {
        for (const std::string& name : List_Dir(dir)) {
            struct stat st;
            std::string full = dir + "/" + name;
            if (lstat(full.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                remove_tree(full);
            else
                unlink(full.c_str());
        }
        rmdir(dir.c_str());
    }
};

inline void Write_Bytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary) << bytes;
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
    int status = -1;  /* exit status; -1 when it did not exit normally */
    std::string out, err;
};

/* Runs the built voxelune-render with args in directory cwd; output captured outside cwd. */
inline Tool_Result Run_Tool(const std::vector<std::string>& args, const std::string& cwd)
{
    char out_name[] = "/tmp/voxelune-tool-out-XXXXXX", err_name[] = "/tmp/voxelune-tool-err-XXXXXX";
    int out_fd = mkstemp(out_name), err_fd = mkstemp(err_name);
    pid_t pid = fork();
    if (pid == 0) {
        if (chdir(cwd.c_str()) != 0)
            _exit(127);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        std::vector<char*> argv = {(char*)VOXELUNE_RENDER_EXE};
        for (const std::string& a : args)
            argv.push_back((char*)a.c_str());
        argv.push_back(nullptr);
        execv(VOXELUNE_RENDER_EXE, argv.data());
        _exit(127);
    }
    Tool_Result r;
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status))
        r.status = WEXITSTATUS(status);
    close(out_fd);
    close(err_fd);
    r.out = Read_Text(out_name);
    r.err = Read_Text(err_name);
    unlink(out_name);
    unlink(err_name);
    return r;
}

#endif
