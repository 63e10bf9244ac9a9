/*
 * render_file.h - files for voxelune-render: where images may go, how they
 * are written so that no reader ever sees half of one, and the check of
 * gzip streams that the volume readers would otherwise take on trust.
 */
#ifndef VOXELUNE_TOOLS_RENDER_FILE_H
#define VOXELUNE_TOOLS_RENDER_FILE_H

#include <cstdio>
#include <functional>
#include <string>

/*
 * Whether path may receive an image: a regular file we may replace or a
 * new name, in an existing writable directory.  Devices, pipes, sockets
 * and directories are refused.  Writes nothing.  1 when fine, else 0
 * with a message naming what is wrong.
 */
int Render_Check_Target(const std::string& path, std::string* error);

/* mkdir(path) with the default rights; 0 on success, else -1 with errno. */
int Render_Make_Dir(const std::string& path);

/*
 * Writes path through a temporary file beside it: write() fills the open
 * file (it returns an empty string, or what went wrong), the file is
 * flushed to disk and renamed over path.  On any failure the temporary
 * file is removed and path is left as it was.  1 on success.
 */
int Render_Write_File(const std::string& path, const std::function<std::string(FILE*)>& write,
                      std::string* error);

/*
 * Makes SIGINT, SIGTERM, SIGHUP and SIGPIPE (on Windows SIGINT and
 * SIGTERM) remove the temporary files in flight before the process ends
 * by the signal.
 */
void Render_Catch_Signals();

/*
 * Built with the readers of compressed formats (NIfTI, NRRD) only.
 * Length of the data in the gzip stream that starts at the current
 * position of f and runs to its end, read without keeping it; once more
 * than limit bytes came out it stops and returns that count.  -1 with
 * *why for a corrupt stream or one cut short (no trailer).
 */
long long Render_Gzip_Length(FILE* f, long long limit, std::string* why);

#endif
