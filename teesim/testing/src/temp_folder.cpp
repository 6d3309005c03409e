/* A temporary folder for a test; see temp_folder.h. */
#include "teesim/testing/temp_folder.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

namespace teesim::testing {

TempFolder::TempFolder(const std::string& prefix, const std::string& parent) : owner_(::getpid()) {
  std::string where = parent;
  if (where.empty()) {
    const char* tmp = ::getenv("TMPDIR");
    where = tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp";
  }
  const std::string pattern = where + "/" + prefix + "-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (::mkdtemp(buf.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), "cannot make a folder " + pattern);
  std::error_code ec;
  std::filesystem::path absolute = std::filesystem::absolute(buf.data(), ec);
  path_ = ec ? std::string(buf.data()) : absolute.lexically_normal().string();
}

TempFolder::~TempFolder() {
  if (::getpid() != owner_) return;
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace teesim::testing
