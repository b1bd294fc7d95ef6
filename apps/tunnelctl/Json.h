#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Kop/Types.h"

namespace Tunnelctl {

// A JSON document, with the line each part stands on. Numbers keep the digits they were
// written with, so that 64-bit numbers pass unharmed; members keep their order and no name
// stands twice in an object.
struct Json {
  enum class Kind : U8 { null, boolean, number, string, array, object };

  static Json boolean(bool flag);
  static Json number(std::string digits);
  static Json number(U64 value);
  static Json string(std::string text);
  static Json array();
  static Json object();

  Json& add(std::string name, Json value);  // of an object; returns this
  Json& push(Json value);                   // of an array; returns this
  const Json* find(std::string_view name) const;
  bool is(Kind k) const { return kind == k; }
  std::string summary() const;  // a few words for an error: the value, or what kind it is

  Kind kind = Kind::null;
  bool flag = false;
  U32 line = 0;                    // from 1; 0: not read from a text
  std::string text;                // of a string its bytes, of a number its digits
  std::vector<std::string> names;  // of an object's members
  std::vector<Json> items;         // elements, or the values of the members
};

class JsonError : public std::runtime_error {
 public:
  JsonError(U32 line, std::string path, const std::string& reason)
      : std::runtime_error(reason), line(line), path(std::move(path)) {}
  U32 line;
  std::string path;  // of members, such as "decapGroup.edge"; may be empty
};

constexpr std::size_t maxJsonDepth = 64;  // levels: what is written here needs about ten

// Errors   JsonError: bad syntax, a name twice in an object, bytes that are not UTF-8, more
//          than maxJsonDepth levels.
Json parseJson(std::string_view text);

std::string writeJson(const Json& json, bool pretty);

bool isUtf8(std::string_view bytes);

}  // namespace Tunnelctl
