// See directory.hpp.
#include "directory.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ssat.h"

namespace shell
{

std::string directory()
{
    const char *const told = std::getenv("EBRIDGE_SHELL_DIR");
    if (told && *told != '\0')
        return told;
    if (geteuid() == 0)
        return "/run/ebridge-shell";
    const char *const runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime == '/')
        return std::string(runtime) + "/ebridge-shell";
    return "/tmp/ebridge-shell-" + std::to_string(geteuid());
}

namespace
{

// Whatever the process takes off the modes of its files. Others may go through it, to a folder of their own in there.
void open_to_group(const std::string &path)
{
    constexpr mode_t OWNER_AND_GROUP = 0751;
    const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0)
        return;
    fchmod(folder, OWNER_AND_GROUP);
    close(folder);
}

}  // namespace

bool make_directory(const std::string &path)
{
    constexpr mode_t OWNER = 0700, OTHERS_WRITE = 0022;
    if (mkdir(path.c_str(), OWNER) == 0)
        open_to_group(path);
    else if (errno != EEXIST)
        return false;
    struct stat found = {};
    if (lstat(path.c_str(), &found) != 0)
        return false;
    if (S_ISDIR(found.st_mode) && found.st_uid == geteuid() && (found.st_mode & OTHERS_WRITE) == 0)
        return true;
    errno = S_ISDIR(found.st_mode) ? EACCES : ENOTDIR;
    return false;
}

}  // namespace shell

int32_t ssat_directory(char *out, size_t size)
{
    if (!out)
        return SSAT_EINVAL;
    try {
        const std::string path = shell::directory();
        if (path.size() >= size)
            return SSAT_EINVAL;
        std::memcpy(out, path.c_str(), path.size() + 1);
        return 0;
    } catch (const std::bad_alloc &) {
        return SSAT_ENOMEM;
    }
}
