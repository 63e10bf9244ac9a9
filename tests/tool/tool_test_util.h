/* tool_test_util.h - a scratch directory, small files, and the built voxelune-render run as a subprocess. */
#ifndef VOXELUNE_TESTS_TOOL_TEST_UTIL_H
#define VOXELUNE_TESTS_TOOL_TEST_UTIL_H

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

/* Names in a directory, sorted, without "." and "..". */
inline std::vector<std::string> List_Dir(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec)) names.push_back(e.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

/* A fresh directory under /tmp, removed with its contents at the end of the test. */
struct Scratch_Dir {
    std::string path;
    Scratch_Dir()
    {
        char tmpl[] = "/tmp/voxelune-tool-XXXXXX";
        path = mkdtemp(tmpl) ? tmpl : "/tmp/voxelune-tool-none";
    }
    ~Scratch_Dir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

inline void Write_Bytes(const std::string& path, const std::string& bytes) { std::ofstream(path, std::ios::binary) << bytes; }

inline std::string Read_Text(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

/* What a run of the tool left behind: exit status (-1: it did not exit), output, errors. */
struct Tool_Result {
    int status = -1;
    std::string out, err;
};

/* Runs the built voxelune-render with args (no quotes in them) in directory cwd. */
inline Tool_Result Run_Tool(const std::vector<std::string>& args, const std::string& cwd)
{
    char out[] = "/tmp/voxelune-tool-out-XXXXXX", err[] = "/tmp/voxelune-tool-err-XXXXXX";
    close(mkstemp(out)), close(mkstemp(err));
    std::string command = "cd '" + cwd + "' && exec '" VOXELUNE_RENDER_EXE "'";
    for (const std::string& a : args) command += " '" + a + "'";
    int status = std::system((command + " >" + out + " 2>" + err).c_str());
    Tool_Result r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, Read_Text(out), Read_Text(err)};
    unlink(out), unlink(err);
    return r;
}

#endif
