/*
 * Report files: checked before a run starts (so that a run is not wasted
 * on a report that cannot be written), written whole at its end.
 */
#ifndef TESSERA_CHECK_FILEOUTPUT_H
#define TESSERA_CHECK_FILEOUTPUT_H

#include <string>

namespace check {

/* Creates or truncates `path` to make sure it can be written. Returns
 * false with the reason ("<path>: <strerror>") in *error. */
[[nodiscard]] bool PrepareFile(const std::string& path, std::string* error);

/* Replaces the content of `path` with `text`. Returns false with the
 * reason in *error. */
[[nodiscard]] bool WriteFile(const std::string& path, const std::string& text, std::string* error);

}  // namespace check

#endif  // TESSERA_CHECK_FILEOUTPUT_H
