#include "platform/core/StandardStreams.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

void openMissingStandardStreams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF)
            continue;
        const int opened = ::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
        if (opened >= 0 && opened != fd) {
            ::dup2(opened, fd);
            ::close(opened);
        }
    }
}
