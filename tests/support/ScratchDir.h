// A working directory of the test's own, with the files that are named; gone with all its content at the end.
#ifndef TESTS_SUPPORT_SCRATCHDIR_H
#define TESTS_SUPPORT_SCRATCHDIR_H

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace support {

class ScratchDir {
  public:
    explicit ScratchDir(std::initializer_list<const char*> files) : before_(std::filesystem::current_path()) {
        std::string name = (std::filesystem::temp_directory_path() / "ugw-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no scratch directory");
        }
        path_ = name;
        std::filesystem::current_path(path_);
        for (const char* file : files) {
            std::ofstream(path_ / file) << file;
        }
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::current_path(before_, ignored);
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    std::string path(const char* file) const { return (path_ / file).string(); }

  private:
    std::filesystem::path before_;
    std::filesystem::path path_;
};

}  // namespace support

#endif
