// SPDX-License-Identifier: ISC
// System calls: streams, files, descriptors and the process itself; and a file's size.

#include <bv/os.h>

#include <cstdarg>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

static_assert(sizeof(off_t) == 8, "files past 2 GiB need 64-bit offsets on every C library");

FILE *bv_os_fopen(const char *path, const char *mode)
{
    return fopen(path, mode);
}

int bv_os_fclose(FILE *stream)
{
    return fclose(stream);
}

size_t bv_os_fread(void *ptr, size_t size, size_t n, FILE *stream)
{
    return fread(ptr, size, n, stream);
}

size_t bv_os_fwrite(const void *ptr, size_t size, size_t n, FILE *stream)
{
    return fwrite(ptr, size, n, stream);
}

int bv_os_fseek(FILE *stream, long offset, int whence)
{
    return fseek(stream, offset, whence);
}

char *bv_os_fgets(char *s, int size, FILE *stream)
{
    return fgets(s, size, stream);
}

int bv_os_feof(FILE *stream)
{
    return feof(stream);
}

FILE *bv_os_popen(const char *command, const char *type)
{
    return popen(command, type);
}

int bv_os_pclose(FILE *stream)
{
    return pclose(stream);
}

// The mode is always fetched: the platform knows which flags need one, and ignores it otherwise.
int bv_os_open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t);
    va_end(args);
    return open(path, flags, mode);
}

int bv_os_dev_open(const char *path, int flags, ...) __attribute__((alias("bv_os_open")));

int bv_os_creat(const char *path, mode_t mode)
{
    return creat(path, mode);
}

int bv_os_close(int fd)
{
    return close(fd);
}

ssize_t bv_os_read(int fd, void *buf, size_t count)
{
    return read(fd, buf, count);
}

ssize_t bv_os_write(int fd, const void *buf, size_t count)
{
    return write(fd, buf, count);
}

int32_t bv_os_lseek(int fd, int32_t offset, int whence)
{
    return static_cast<int32_t>(lseek(fd, offset, whence));
}

int bv_os_flock(int fd, int operation)
{
    return flock(fd, operation);
}

int bv_os_chdir(const char *path)
{
    return chdir(path);
}

int bv_os_mkfifo(const char *path, mode_t mode)
{
    return mkfifo(path, mode);
}

int bv_os_pipe(int fds[2])
{
    return pipe(fds);
}

int bv_os_access(const char *path, int mode)
{
    return access(path, mode);
}

int bv_os_remove(const char *path)
{
    return remove(path);
}

int bv_os_rename(const char *from, const char *to)
{
    return rename(from, to);
}

int bv_os_stat(const char *path, struct stat *st)
{
    return stat(path, st);
}

int bv_os_fstat(int fd, struct stat *st)
{
    return fstat(fd, st);
}

pid_t bv_os_getpid(void)
{
    return getpid();
}

int32_t bv_get_filesize(const char *path)
{
    struct stat st;
    if (path == nullptr || bv_os_stat(path, &st) != 0)
        return BV_ERR_FAILED;
    return static_cast<int32_t>(st.st_size);
}
