/* The TA host must export every TEE_* function of the TA-facing header and
 * nothing else: a function missing from the export list would make every TA
 * that calls it fail to load. */
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

std::string slurp(const char* path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

TEST(HostExports, ListMatchesTheInternalApiHeader) {
  std::string header = slurp(TEE_INTERNAL_API_HEADER);
  ASSERT_FALSE(header.empty());
  std::set<std::string> declared;
  std::istringstream lines(header);
  std::string line;
  std::regex decl(R"(\b(TEE_[A-Za-z0-9_]+)\()");
  while (std::getline(lines, line)) {
    /* declarations only: not macros, not comment lines */
    if (line.find("#define") != std::string::npos) continue;
    size_t first = line.find_first_not_of(' ');
    if (first != std::string::npos && (line[first] == '*' || line.compare(first, 2, "/*") == 0)) continue;
    for (std::sregex_iterator it(line.begin(), line.end(), decl), end; it != end; ++it)
      declared.insert((*it)[1]);
  }
  std::string list = slurp(TEE_EXPORTS_LIST);
  std::set<std::string> exported;
  std::regex entry(R"(\b(TEE_[A-Za-z0-9_]+);)");
  for (std::sregex_iterator it(list.begin(), list.end(), entry), end; it != end; ++it)
    exported.insert((*it)[1]);
  EXPECT_GE(declared.size(), 24u);
  EXPECT_EQ(declared, exported);
}

}  // namespace
