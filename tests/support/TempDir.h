#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace TestSupport {

/// A directory of the test's own, removed with all it holds at the end of the scope.
class TempDir {
public:
   TempDir() : TempDir(std::filesystem::temp_directory_path()) {}

   /// In `parent`: "/dev/shm" for what has to be in shared memory.
   explicit TempDir(const std::filesystem::path& parent) {
      std::string pattern = (parent / "tarn-test-XXXXXX").string();
      if (!::mkdtemp(pattern.data())) {
         throw std::runtime_error("mkdtemp failed for " + pattern);
      }
      _path = pattern;
   }
   ~TempDir() {
      std::error_code ignored;
      std::filesystem::remove_all(_path, ignored);
   }
   TempDir(const TempDir&) = delete;
   TempDir& operator=(const TempDir&) = delete;

   const std::string& path() const { return _path; }

   /// The path of `name` in the directory, whether or not there is such a file.
   std::string path(std::string_view name) const { return _path + "/" + std::string(name); }

   /// Writes a file and returns its path.
   std::string write(std::string_view name, std::string_view content) const {
      const std::string file = path(name);
      std::ofstream(file, std::ios::binary)
         .write(content.data(), static_cast<std::streamsize>(content.size()));
      return file;
   }

   std::string read(std::string_view name) const {
      std::ifstream in(path(name), std::ios::binary);
      std::ostringstream content;
      content << in.rdbuf();
      return content.str();
   }

   bool has(std::string_view name) const {
      return std::filesystem::exists(std::filesystem::symlink_status(path(name)));
   }

   bool empty() const { return std::filesystem::is_empty(_path); }

private:
   std::string _path;
};

} // namespace TestSupport
