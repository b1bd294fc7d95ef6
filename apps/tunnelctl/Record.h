#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "apps/tunnelctl/Json.h"

// The binary forms of records, taken apart field by field. Nothing of a form is assumed to
// be right: every width, count and value is looked at, and a bad one is told by its place.

namespace Tunnelctl {

// How the bytes of one field are read, in host byte order.
enum class Cell : U8 {
  tunnelId,   // 8: a word of a TunnelId
  number8,    // 1
  number32,   // 4
  real,       // 4: IEEE 754
  address,    // 20: the image of an IpGenAddr
  prefix,     // 24: the image of an IpGenPrefix
  interface,  // 8: a word of an IntfId
  bits3,      // 1: a number of 3 bits
  label,      // 4: a label of 20 bits
  byte,       // 1: of a text or of opaque bytes
};

// Elements of a field that stands behind a 32-bit count of them.
enum class Counted : U8 {
  no,
  elements,  // each is a field
  text,      // all together are a text
  bytes,     // all together are opaque
};

struct FieldForm {
  std::string_view name;
  Cell cell;
  Counted counted;
  U32 limit;  // of the count
};

struct RecordForm {
  std::string_view type;  // qualified
  std::span<const FieldForm> fields;
};

std::span<const RecordForm> recordForms();
// By the qualified name or the end of it; null when there is none.
const RecordForm* findRecordForm(std::string_view name);

struct RecordField {
  std::string name;   // "endpoint[0]"; "endpoint count" for the count
  U64 offset = 0;     // from the start of the record
  U32 width = 0;      // bytes
  Json value;         // a number or text, as the members of the type are written
  std::string text;   // for people
  std::string error;  // what was found and what is allowed; empty when the field is good
};

struct Record {
  std::vector<RecordField> fields;  // as far as they could be read
  U64 size = 0;                     // bytes they take
  bool complete = false;            // all fields are there; the next record may follow
  std::string error;  // of the first bad field: "endpoint count at offset 25: .."
  U64 errors = 0;     // bad fields
};

// The record at the start of the bytes. What stands behind it is not looked at.
Record readRecord(const RecordForm& form, std::span<const U8> bytes);

// Two digits per byte; blanks, colons, dashes and one leading 0x do no harm.
//
// Errors   UsageError: names the argument, the character and where it stands.
std::vector<U8> bytesFromHex(std::string_view argument, std::string_view digits);

}  // namespace Tunnelctl
