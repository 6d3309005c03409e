// Creating and writing the report files.
#include "report/FileOutput.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace check {

bool PrepareFile(const std::string& path, std::string* error) {
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  std::fclose(f);
  return true;
}

bool WriteFile(const std::string& path, const std::string& text, std::string* error) {
  std::FILE* f = std::fopen(path.c_str(), "w");
  if (f == nullptr) {
    *error = path + ": " + std::strerror(errno);
    return false;
  }
  const bool written = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  const int saved = errno;
  const bool closed = std::fclose(f) == 0;
  if (!written || !closed) {
    *error = path + ": " + std::strerror(written ? errno : saved);
    return false;
  }
  return true;
}

}  // namespace check
