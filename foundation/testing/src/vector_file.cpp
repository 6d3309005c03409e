// Reading vector files for tests.
#include "tessera/testing/vector_file.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace tessera::testing {

std::vector<VectorLine> ReadVectorFile(const std::string& path, char separator) {
  std::ifstream in(path);
  if (!in.is_open()) throw std::runtime_error("cannot read vector file " + path);
  std::vector<VectorLine> vectors;
  std::string line;
  std::size_t number = 0;
  while (std::getline(in, line)) {
    ++number;
    if (line.empty() || line[0] == '#') continue;
    VectorLine vector;
    vector.number = number;
    std::istringstream fields(line);
    std::string field;
    if (separator == 0) {
      while (fields >> field) vector.fields.push_back(field);
    } else {
      while (std::getline(fields, field, separator)) vector.fields.push_back(field);
    }
    if (!vector.fields.empty()) vectors.push_back(std::move(vector));
  }
  return vectors;
}

std::string ReadTextFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) throw std::runtime_error("cannot read " + path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string ReadTextFileOrEmpty(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  if (in.is_open()) text << in.rdbuf();
  return text.str();
}

}  // namespace tessera::testing
