#pragma once

#include <string>
#include <vector>

// Tables of cases that are texts: one line a case, columns between bars.

namespace Support {

// The lines of a text that are not empty, each cut at " | " and trimmed; \n stands for the end
// of a line.
std::vector<std::vector<std::string>> rowsOf(const std::string& text);

// At blanks; what is between ' is one word.
std::vector<std::string> wordsOf(const std::string& text);

}  // namespace Support
