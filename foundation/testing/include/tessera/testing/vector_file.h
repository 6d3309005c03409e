/*
 * Reading the line-oriented vector files kept under testdata/: one vector a
 * line, fields separated by blanks (or by another separator such as '|'),
 * blank lines and lines starting with '#' ignored.
 */
#ifndef TESSERA_TESTING_VECTOR_FILE_H
#define TESSERA_TESTING_VECTOR_FILE_H

#include <cstddef>
#include <string>
#include <vector>

namespace tessera::testing {

/* One vector: its line number in the file (from 1) and its fields. */
struct VectorLine {
  std::size_t number = 0;
  std::vector<std::string> fields;
};

/* Reads every vector of the file at `path`, in file order.
 * In: separator, 0 to split on runs of blanks, or a character that splits
 *     the line exactly (empty fields kept).
 * Throws std::runtime_error naming the file when it cannot be read, so a
 * missing file fails its test instead of passing with no vectors. */
std::vector<VectorLine> ReadVectorFile(const std::string& path, char separator = 0);

/* Reads the whole file at `path`. Throws std::runtime_error naming the file
 * when it cannot be read. */
std::string ReadTextFile(const std::string& path);

/* Reads the whole file at `path`, or returns "" when there is none yet (a
 * log that nothing has written to). */
std::string ReadTextFileOrEmpty(const std::string& path);

}  // namespace tessera::testing

#endif  // TESSERA_TESTING_VECTOR_FILE_H
