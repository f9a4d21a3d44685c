#pragma once

#include <string>

namespace zonaris::tools {

/// CLI11 may spread a message over several lines; the tools promise one error line, so the
/// message is folded onto one and trailing blanks go.
inline std::string oneLine(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
    text.pop_back();
  for (char& c : text) {
    if (c == '\n')
      c = ' ';
  }
  return text;
}

}  // namespace zonaris::tools
