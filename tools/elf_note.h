/* The build id of a shared library's file. */
#pragma once
#include <string>

namespace tamoctl {

/* In hexadecimal; empty for a file that cannot be read, is of another pointer width or has none. */
std::string buildIdOf(const std::string &path);

}  // namespace tamoctl
