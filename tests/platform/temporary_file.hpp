// A file of a test's own, removed with its object.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

class temporary_file
{
  public:
    explicit temporary_file(std::string_view content)
        : path_((std::filesystem::temp_directory_path() / "ebridge-test-XXXXXX").string())
    {
        close(mkstemp(path_.data()));
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~temporary_file() { std::filesystem::remove(path_); }
    temporary_file(const temporary_file &) = delete;
    temporary_file &operator=(const temporary_file &) = delete;

    const std::string &path() const { return path_; }
    std::string name() const { return std::filesystem::path(path_).filename().string(); }

  private:
    std::string path_;
};
