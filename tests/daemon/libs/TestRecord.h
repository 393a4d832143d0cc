// Appends one line to the file named by an environment variable (how the
// test libraries tell the tests what they were asked to do).  One write()
// on an O_APPEND descriptor: a line is whole even if the process is killed.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

__attribute__((format(printf, 2, 3))) inline void TestRecord(const char* variable, const char* format, ...)
{
    char line[1024];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line - 1, format, args);
    va_end(args);
    const char* path = getenv(variable);
    int fd = path && *path && n >= 0 ? open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644) : -1;
    if (fd < 0)
        return;
    n = n > static_cast<int>(sizeof line) - 2 ? sizeof line - 2 : n;
    line[n++] = '\n';
    (void)!write(fd, line, static_cast<size_t>(n));
    close(fd);
}
