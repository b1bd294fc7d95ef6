#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "Kop/Exception.h"
#include "Kop/GenericIf.h"
#include "Kop/Module.h"
#include "apps/tunnelctl/Json.h"

// Values as JSON and for people, by reflection alone.
//
//   record                   object by member name; a member that is left out has its default
//   wrapper, number          number
//   bool                     true, false
//   enumeration              name; an array of names when it is made of flags; otherwise
//                            {"number": ..}, or the bare number of a mask's bits
//   Kop::String, addresses   their bare text; {"bytes": "<hex>"} when it is not UTF-8
//   other types              the text as it stands
//   set, array               array
//   map                      object by key, or array of {"key": .., "value": ..} when a key
//                            is a record or not UTF-8
//
// Reading takes everything that writing makes, and for any map both forms.

namespace Tunnelctl {

// Where in a document a value stands: a chain of names on the stack.
struct Where {
  const Where* up = nullptr;
  std::string_view name;

  std::string text() const;  // "decapGroup.edge.destinationPort"
};

// A document that says something that cannot be; what() is "<path>: <reason>".
class DataError : public std::runtime_error {
 public:
  DataError(U32 line, std::string path, std::string reason)
      : std::runtime_error(path.empty() ? reason : path + ": " + reason),
        line(line),
        path(std::move(path)),
        reason(std::move(reason)) {}
  U32 line;
  std::string path;
  std::string reason;
};

// Whether a number that no enumerator has is taken for an enumeration.
enum class Numbers : U8 { any, declared };

// How a type is written, found out once per type.
struct Form {
  enum class Shape : U8 {
    boolean,
    number,
    quoted,
    word,
    enumeration,
    record,
    collection
  };
  Shape shape;
  const Kop::TypeRecord* record;  // of an enumeration or record, else null
  bool isScalar() const { return shape < Shape::record; }
};
bool isStored(const Kop::MemberRecord& member);  // in values of its type
const Form& formOf(const Kop::TypeOps& type);
const Kop::TypeOps& stringType();  // of Kop::String

Json toJson(const Kop::TypeOps& type, const void* value);
// The key of a map as the name of a JSON object's member.
std::string keyName(const Kop::TypeOps& type, const void* key);
// Whether a key can be the name of a JSON object's member: neither a record nor a string
// that is not UTF-8. A map with a key that cannot is written as an array.
bool isName(const Kop::TypeOps& type, const void* key);

// Errors   DataError; the object may then hold any value.
void fromJson(const Kop::TypeOps& type,
              void* value,
              const Json& json,
              const Where& where,
              Numbers numbers);
Kop::GenericValue keyFromName(const Kop::TypeOps& type,
                              std::string_view name,
                              U32 line,
                              const Where& where,
                              Numbers numbers);

// The entries of a map or set: an object by key, an array of {key, value}, or for sets and
// flags an array of keys. Keys that stand twice are refused. A member of the value that has
// the key's type and is left out takes the key, so that nobody writes it twice; with
// `keyInside` an array may hold bare values, each of which holds its key.
//
// Errors   DataError
struct Entry {
  Kop::GenericValue key;
  Kop::GenericValue value;  // without type for a set
};
std::vector<Entry> readEntries(const Kop::TypeOps& key,
                               const Kop::TypeOps* value,
                               bool keyInside,
                               const Json& json,
                               const Where& where,
                               Numbers numbers);

// For people, on one line: of a record "member value, member value", without the members that
// repeat `key` unless all are wanted.
std::string toLine(const Kop::TypeOps& type,
                   const void* value,
                   const Kop::TypeOps* keyType = nullptr,
                   const void* key = nullptr);
// A key: of a record of up to three members their values alone, else as above.
std::string toWords(const Kop::TypeOps& type, const void* key);

// Reads a value from the whole of its text.
//
// Errors   DataError without line: names the attribute, below nested ones.
void fromText(const Kop::TypeOps& type, void* value, std::string_view text);

// The runtime's message, without the name that was given for the value as a whole.
std::string reasonOf(const Kop::Exception& error);

// What a type takes, for error texts.
std::string expected(const Kop::TypeOps& type);

}  // namespace Tunnelctl
