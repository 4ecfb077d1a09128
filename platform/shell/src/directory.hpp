// The folder of the shells' sockets: which one it is, and that nobody else can put anything there.
#pragma once

#include <string>

namespace shell
{

std::string directory();
// Makes it where it is missing. False, with errno, when that fails or when it is not a folder of this user that nobody else
// can write to.
bool make_directory(const std::string &path);

}  // namespace shell
