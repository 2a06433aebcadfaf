// Operating-system calls of the shim: close-on-exec by default, retried, with the shim's codes.
//
// "_r" forms retry interrupted calls, "_nr" forms try once. Functions return 0, an at_result where
// the description names one, else errno.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <cstdio>

// fopen with close-on-exec; null on failure, errno set.
std::FILE* fopen_cloexec(const char* path, const char* mode);
int at_os_fopen_nr(const char* path, const char* mode, std::FILE** out);
// 24665 (permission), 24598 (missing), 24681 (no space), 24604 (other).
int at_os_fopen_r(const char* path, const char* mode, std::FILE** out);

// open with close-on-exec; -1 on failure, errno set.
int open_cloexec(const char* path, int flags, mode_t mode);
int at_os_open_nr(const char* path, int flags, int* out);
int at_os_open_r(const char* path, int flags, int* out);
int at_os_open2_nr(const char* path, int flags, mode_t mode, int* out);
int at_os_open2_r(const char* path, int flags, mode_t mode, int* out);

int at_os_opendir_i(const char* path, DIR** out);
// *out is null at the end of the directory.
int at_os_readdir_i(DIR* directory, dirent** out);
int at_os_closedir_i(DIR* directory);

// Removes everything inside a directory, never following symbolic links. An empty or null path is
// 24578.
int at_os_emptydir_i(const char* path);
// Empties the directory and removes it.
int at_os_rmdir_i(const char* path);

// 24598 (missing), 24665 (permission), 24683 (other).
int at_os_stat_i(const char* path, struct stat* buffer);
// *out is 1 when both names are equal texts or name the same file. Null names are 24578.
int at_os_is_same_file(const char* a, const char* b, int* out);

int at_os_chmod_i(const char* path, mode_t mode);
int at_os_mkdir_i(const char* path, mode_t mode);
int at_os_chdir_i(const char* path);
int at_os_fclose_i(std::FILE* file);
int at_os_fseek_i(std::FILE* file, long offset, int whence);
// 24700 on failure.
int at_os_rename_i(const char* from, const char* to);
// Kept: the unit is microseconds, and a million or more is refused by the system.
int at_os_sleep_i(long microseconds);
