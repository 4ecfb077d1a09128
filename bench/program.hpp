// What the measurements have in common as programs: arguments that make no sense, and the file of results.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace bench
{

// Of a program that takes nothing but --help: its exit status, or -1 to go on.
inline int read_no_arguments(int argc, char **argv, const char *name, const char *help)
{
    if (argc == 1)
        return -1;
    if (argc == 2 && std::string_view(argv[1]) == "--help") {
        std::fputs(help, stdout);
        return 0;
    }
    std::fprintf(stderr, "%s: takes no arguments, see --help\n", name);
    return 2;
}

// Writes a file beside the program and says so. Throws std::runtime_error when it is not there as a whole.
inline void write_beside(const std::string &name, const std::string &text)
{
    const auto path = std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
    errno = 0;
    std::ofstream file(path);
    file << text;
    file.close();
    if (!file)
        throw std::runtime_error(path.string() + ": " + std::strerror(errno));
    std::printf("written to %s\n", path.c_str());
}

}  // namespace bench
