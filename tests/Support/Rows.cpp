#include "tests/Support/Rows.h"

#include <regex>

#include "tests/Support/Process.h"
#include "tests/Support/Testing.h"

namespace Support {

namespace {

std::string cell(std::string text) {
  const auto begin = text.find_first_not_of(' ');
  if (begin == text.npos) return {};
  text = text.substr(begin, text.find_last_not_of(' ') - begin + 1);
  return replaced(std::move(text), "\\n", "\n");
}

}  // namespace

std::vector<std::vector<std::string>> rowsOf(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) continue;
    std::vector<std::string>& row = rows.emplace_back();
    for (std::string left = line + " | "; !left.empty();) {
      const auto end = left.find(" | ");
      row.push_back(cell(left.substr(0, end)));
      left.erase(0, end + 3);
    }
  }
  return rows;
}

std::vector<std::vector<std::string>> rowsIn(const std::string& file) {
  std::istringstream lines(contents(HOUSE_SOURCE_DIR "/tests/" + file));
  std::vector<std::pair<std::string, std::string>> words;
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("LET ")) {
      const auto end = line.find(' ', 4);
      words.emplace_back(line.substr(4, end - 4), line.substr(end + 1));
    } else if (!line.starts_with('#')) {
      for (const auto& [word, by] : words)
        line = replaced(line, word, by);
      text += line + "\n";
    }
  }
  if (text.empty()) throw std::runtime_error("no rows in tests/" + file);
  return rowsOf(text);
}

std::string replaced(std::string text, std::string_view word, std::string_view by) {
  for (auto at = text.find(word); at != text.npos; at = text.find(word, at + by.size()))
    text.replace(at, word.size(), by);
  return text;
}

std::vector<std::string> wordsOf(const std::string& text) {
  static const std::regex word("([^ ']|'[^']*')+");
  std::vector<std::string> words;
  for (std::sregex_iterator at(text.begin(), text.end(), word), end; at != end; ++at)
    words.push_back(replaced(at->str(), "'", ""));
  return words;
}

}  // namespace Support
