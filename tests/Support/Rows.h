#pragma once
#include "tests/Support/Testing.h"

// Tables of cases that are texts: one line a case, columns between bars.

namespace Support {

// The lines of a text that are not empty, each cut at " | " and trimmed; \n stands for the end
// of a line.
std::vector<std::vector<std::string>> rowsOf(const std::string& text);

// Those of a file of tests/, without the lines that begin with #. After "LET WORD text" WORD is
// that text. Throws when there are none.
std::vector<std::vector<std::string>> rowsIn(const std::string& file);

// At blanks; what is between ' is one word.
std::vector<std::string> wordsOf(const std::string& text);

// With each `word` made `by`.
std::string replaced(std::string text, std::string_view word, std::string_view by);

}  // namespace Support
