#include "Kop/Exception.h"
#include "apps/tunnelctl/ValueJson.h"

namespace Tunnelctl {

namespace {

// The attribute that stands at a place in the text of a record: "decapIntfKey.addressFamily".
std::string attributeAt(std::string_view text, std::size_t at) {
  std::vector<std::string> names;
  std::size_t i = 0;
  while (i < at && i < text.size()) {
    if (text.substr(i).starts_with("** {")) {
      names.emplace_back();
      i += 4;
    } else if (text[i] == '}') {
      if (!names.empty()) names.pop_back();
      ++i;
    } else if (text[i] == '\'') {
      std::size_t end = i + 1;
      while (end < text.size() && text[end] != '\'')
        end += text[end] == '\\' ? 2 : 1;
      if (end >= text.size() || end >= at) break;
      if (!names.empty() && text.substr(end + 1).starts_with(": "))
        names.back() = text.substr(i + 1, end - i - 1);
      i = end + 1;
    } else {
      ++i;
    }
  }
  std::string path;
  for (const std::string& name : names)
    if (!name.empty()) path += (path.empty() ? "" : ".") + name;
  return path;
}

}  // namespace

std::string reasonOf(const Kop::Exception& error) {
  constexpr std::string_view root = "value: ";
  const std::string reason = error.what();
  return reason.starts_with(root) ? reason.substr(root.size()) : reason;
}

void fromText(const Kop::TypeOps& type, void* value, std::string_view text) {
  const Kop::String whole(text);
  Kop::TextIt it = whole.begin();
  try {
    type.parse(value, it, whole.end(), "value");
    Kop::needEndOfText(it, whole.end());
  } catch (const Kop::RangeException& error) {
    throw DataError(0, "", reasonOf(error));  // names the attributes already
  } catch (const Kop::Exception& error) {
    throw DataError(0, attributeAt(whole, static_cast<std::size_t>(it - whole.begin())),
                    reasonOf(error));
  }
}

}  // namespace Tunnelctl
