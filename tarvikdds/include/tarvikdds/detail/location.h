// Texts of the library's std::runtime_error exceptions start with the place of the check:
// "<source path> : <function> @line <line> <text>".
#pragma once

#include <stdexcept>
#include <string>

namespace tarvik {
namespace quessa {
namespace detail {

inline std::string LocatedMessage(const char* file, const char* function, int line,
                                  const std::string& text) {
  return std::string(file) + " : " + function + " @line " + std::to_string(line) + " " + text;
}

}  // namespace detail
}  // namespace quessa
}  // namespace tarvik

// Throws std::runtime_error located at the calling line, in function `function`.
#define TARVIKDDS_THROW(function, text) \
  throw std::runtime_error(             \
      ::tarvik::quessa::detail::LocatedMessage(__FILE__, (function), __LINE__, (text)))

// The same with a fixed line number, for texts whose line users already match on.
#define TARVIKDDS_THROW_AT(function, line, text) \
  throw std::runtime_error(                      \
      ::tarvik::quessa::detail::LocatedMessage(__FILE__, (function), (line), (text)))
