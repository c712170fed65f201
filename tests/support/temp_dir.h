// SPDX-License-Identifier: Apache-2.0
// A folder for one test, removed with the object. One thread.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace uafd {

class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "uafd-XXXXXX").string();
        directory = mkdtemp(pattern.data());
    }
    ~TempDir() { std::filesystem::remove_all(directory); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return directory; }

    // Writes a file with exactly this content; returns its path.
    std::string write(const std::string& name, const std::string& content) const {
        const std::string file = directory + "/" + name;
        std::ofstream(file, std::ios::binary) << content;
        return file;
    }

  private:
    std::string directory;
};

}  // namespace uafd
