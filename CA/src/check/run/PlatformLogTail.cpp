// Reading back what the TEE client library logged, where the log is a file.
#include "run/PlatformLogTail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "cases/Describe.h"

namespace check {
namespace {

constexpr const char* kVariable = "DLOG_FILE";
constexpr std::size_t kMostRead = 64 * 1024;
constexpr std::size_t kMostShown = 300;

}  // namespace

PlatformLogTail::PlatformLogTail() {
  const char* named = std::getenv(kVariable);
  if (named != nullptr && named[0] != '\0') {
    path_ = named;
    struct stat st;
    if (::stat(path_.c_str(), &st) == 0) start_ = st.st_size;
    return;
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") +
                        "/tessera-check-log-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  const int fd = ::mkstemp(name.data());
  if (fd < 0) return;
  ::close(fd);
  path_ = name.data();
  private_ = true;
  ::setenv(kVariable, path_.c_str(), 1);
}

PlatformLogTail::~PlatformLogTail() {
  if (!private_) return;
  ::unsetenv(kVariable);
  ::unlink(path_.c_str());
}

std::string PlatformLogTail::LastMessage(const std::string& tag) const {
  if (path_.empty()) return "";
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  std::string text;
  struct stat st;
  if (::fstat(fd, &st) == 0 && st.st_size > start_) {
    const off_t from = st.st_size - start_ > static_cast<off_t>(kMostRead)
                           ? st.st_size - static_cast<off_t>(kMostRead)
                           : start_;
    text.resize(static_cast<std::size_t>(st.st_size - from));
    const ssize_t n = ::pread(fd, &text[0], text.size(), from);
    text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  }
  ::close(fd);
  // Lines read "[<priority>] <tag>: <message>".
  const std::string marker = "] " + tag + ": ";
  std::string found;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    const std::size_t at = line.find(marker);
    if (!line.empty() && line[0] == '[' && at != std::string::npos) found = line.substr(at + marker.size());
    start = end + 1;
  }
  if (found.size() > kMostShown) found = found.substr(0, kMostShown) + "...";
  return Printable(found.data(), found.size());
}

}  // namespace check
