#include "apps/tunnelctl/Record.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include "Routing/Multicast/MulticastTreeId.h"
#include "Tunnel/TunnelBasicTypes.h"
#include "Vantor/IpGenPrefix.h"
#include "Vantor/MplsLabelOperation.h"
#include "apps/tunnelctl/Output.h"

namespace Tunnelctl {

using Routing::Multicast::MulticastTreeId;
using Tunnel::TunnelTable::TunnelId;
using Vantor::IntfId;
using Vantor::IpGenAddr;
using Vantor::IpGenPrefix;

namespace {

constexpr U32 unlimited = 0xffffffff;

constexpr FieldForm tunnelTableEntryFields[] = {
    {"tunnelId",        Cell::tunnelId, Counted::no,       0  },
    {"nexthopTunnelId", Cell::tunnelId, Counted::no,       0  },
    {"entryPref",       Cell::number8,  Counted::no,       0  },
    {"entryMetric",     Cell::number32, Counted::no,       0  },
    {"tunnelBw",        Cell::real,     Counted::no,       0  },
    {"endpoint",        Cell::prefix,   Counted::elements, 16 },
    {"name",            Cell::byte,     Counted::text,     128},
};
constexpr FieldForm mplsCosViaFields[] = {
    {"nexthop", Cell::address,   Counted::no,       0        },
    {"intfId",  Cell::interface, Counted::no,       0        },
    {"ipDscp",  Cell::number8,   Counted::no,       0        },
    {"mplsExp", Cell::bits3,     Counted::no,       0        },
    {"labels",  Cell::label,     Counted::elements, unlimited},
};
constexpr FieldForm multicastFields[] = {
    {"tunnelId",    Cell::tunnelId, Counted::no,    0        },
    {"mcastTreeId", Cell::byte,     Counted::bytes, unlimited},
};
constexpr FieldForm labelStackFields[] = {
    {"labels", Cell::label, Counted::elements, unlimited},
};
constexpr FieldForm treeIdFields[] = {
    {"mcastTreeId", Cell::byte, Counted::bytes, MulticastTreeId::maxByteCount},
};

constexpr RecordForm forms[] = {
    {"Tunnel::TunnelTable::TunnelTableEntry",          tunnelTableEntryFields},
    {"Tunnel::TunnelTable::MplsCosVia",                mplsCosViaFields      },
    {"Tunnel::TunnelTable::MulticastTunnelTableEntry", multicastFields       },
    {"Vantor::DynamicMplsLabelStack",                  labelStackFields      },
    {"Routing::Multicast::MulticastTreeId",            treeIdFields          },
};

constexpr U32 widthOf(Cell cell) {
  switch (cell) {
    case Cell::tunnelId:
    case Cell::interface: return 8;
    case Cell::number32:
    case Cell::real:
    case Cell::label: return 4;
    case Cell::address: return sizeof(IpGenAddr);
    case Cell::prefix: return sizeof(IpGenPrefix);
    case Cell::number8:
    case Cell::bits3:
    case Cell::byte: break;
  }
  return 1;
}

template <class T>
T get(const U8* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}
std::string str(const Kop::String& text) {
  return {text.data(), text.size()};
}
std::string found(U64 value, const std::string& allowed) {
  return "found " + std::to_string(value) + ", allowed " + allowed;
}
std::string hexOf(std::span<const U8> bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string hex;
  for (const U8 byte : bytes) {
    hex += digits[byte >> 4];
    hex += digits[byte & 15];
  }
  return hex;
}

void readTunnelId(RecordField& field, U64 word) {
  field.value = Json::number(word);
  field.text = std::to_string(word);
  if (word > TunnelId::maxValue) {
    field.error = found(word, "0 to " + std::to_string(TunnelId::maxValue));
    return;
  }
  const TunnelId id(word);
  if (Kop::EnumOps<Tunnel::TunnelTable::TunnelType>::name(id.tunnelType()).empty()) {
    field.error = "found type " + std::to_string(U32{id.tunnelType()}) + " in " +
                  std::to_string(word) + ", allowed 0 to 22 and 31";
    return;
  }
  if (word != 0) field.text = str(id.toCliStrep());
}

// The address if its image is a good one.
std::optional<IpGenAddr> readAddress(RecordField& field, const U8* at) {
  const U32 family = get<U32>(at);
  if (family > Vantor::ipv6) {
    field.error =
        found(family, "0 for no address, 1 for IPv4 and 2 for IPv6") + " as the family";
    return {};
  }
  const U8* const bytes = at + 4;
  const U32 used = family == Vantor::ipv6 ? 16 : family == Vantor::ipv4 ? 4 : 0;
  for (U32 i = used; i < IpGenAddr::byteCount; ++i)
    if (bytes[i] != 0) {
      field.error = found(bytes[i], "0") + " in byte " + std::to_string(4 + i) +
                    ", which its family does not use";
      return {};
    }
  IpGenAddr address;
  std::memcpy(&address, at, sizeof address);
  return address;
}

void readCell(RecordField& field, Cell cell, const U8* at) {
  switch (cell) {
    case Cell::tunnelId: return readTunnelId(field, get<U64>(at));
    case Cell::number8:
    case Cell::byte: field.value = Json::number(U64{*at}); break;
    case Cell::number32: field.value = Json::number(U64{get<U32>(at)}); break;
    case Cell::real: {
      const std::string text = str(Kop::strepOf(get<float>(at)));
      const bool isNumber = text.find_first_of("0123456789") != text.npos;
      field.value = isNumber ? Json::number(text) : Json::string(text);
      break;
    }
    case Cell::address:
      if (const auto address = readAddress(field, at))
        field.value = Json::string(str(address->stringValue()));
      else
        field.value = Json::string(hexOf({at, sizeof(IpGenAddr)}));
      break;
    case Cell::prefix: {
      field.value = Json::string(hexOf({at, sizeof(IpGenPrefix)}));
      const auto address = readAddress(field, at);
      if (!address) break;
      const U32 length = get<U32>(at + sizeof *address);
      if (length > address->bitCount())
        field.error = found(length, "0 to " + std::to_string(address->bitCount())) +
                      " as the length of " +
                      plain(Json::string(str(address->stringValue())));
      else
        field.value = Json::string(str(IpGenPrefix(*address, length).stringValue()));
      break;
    }
    case Cell::interface:
      field.value = Json::string(str(IntfId::fromValue(get<U64>(at)).stringValue()));
      break;
    case Cell::bits3:
      field.value = Json::number(U64{*at});
      if (*at > 7) field.error = found(*at, "0 to 7");
      break;
    case Cell::label: {
      const U32 label = get<U32>(at);
      field.value = Json::number(U64{label});
      if (label > Vantor::maxMplsLabel)
        field.error = found(label, "0 to " + std::to_string(Vantor::maxMplsLabel));
      break;
    }
  }
  field.text = plain(field.value);
}

class Reader {
 public:
  explicit Reader(std::span<const U8> bytes) : bytes_(bytes) {}

  // False when the record cannot be read further.
  bool read(const FieldForm& form) {
    const std::string name(form.name);
    if (form.counted == Counted::no) return element(name, form.cell);
    U32 count = 0;
    if (!countOf(form, count)) return false;
    if (form.counted == Counted::elements) {
      for (U32 i = 0; i < count; ++i)
        if (!element(name + "[" + std::to_string(i) + "]", form.cell)) return false;
      return true;
    }
    if (count == 0) return true;
    RecordField* const field = take(name, count);
    if (!field) return false;
    const std::span<const U8> bytes = bytes_.subspan(field->offset, count);
    const std::string text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const bool isText = form.counted == Counted::text && isUtf8(text);
    field->value = Json::string(isText ? text : hexOf(bytes));
    field->text = isText ? printable(text) : hexOf(bytes);
    if (!isText && form.counted == Counted::text) {
      field->text = printable(text);
      field->value = Json(Json::object().add("bytes", std::move(field->value)));
    }
    return true;
  }
  Record finish(bool complete) {
    record_.complete = complete;
    return std::move(record_);
  }

 private:
  bool countOf(const FieldForm& form, U32& count) {
    RecordField* const field = take(std::string(form.name) + " count", 4);
    if (!field) return false;
    count = get<U32>(bytes_.data() + field->offset);
    field->value = Json::number(U64{count});
    field->text = std::to_string(count);
    const U64 needed = U64{count} * widthOf(form.cell);
    const U64 left = bytes_.size() - record_.size;
    if (count > form.limit)
      field->error = found(count, "0 to " + std::to_string(form.limit));
    else if (needed > left)
      field->error = "found " + std::to_string(count) + ", which takes " +
                     std::to_string(needed) + " bytes, but " + std::to_string(left) +
                     " are left of " + std::to_string(bytes_.size());
    else
      return true;
    note(*field);
    return false;
  }
  bool element(const std::string& name, Cell cell) {
    RecordField* const field = take(name, widthOf(cell));
    if (!field) return false;
    readCell(*field, cell, bytes_.data() + field->offset);
    if (!field->error.empty()) note(*field);
    return true;
  }
  // A field of so many bytes, or null when they are not there.
  RecordField* take(std::string name, U32 width) {
    RecordField field;
    field.name = std::move(name);
    field.offset = record_.size;
    field.width = width;
    const U64 left = bytes_.size() - record_.size;
    if (left < width) {
      field.error = "needs " + std::to_string(width) + " bytes, but " +
                    std::to_string(left) + " are left of " +
                    std::to_string(bytes_.size());
      note(field);
      return nullptr;
    }
    record_.size += width;
    record_.fields.push_back(std::move(field));
    return &record_.fields.back();
  }
  void note(const RecordField& field) {
    if (++record_.errors == 1)
      record_.error =
          field.name + " at offset " + std::to_string(field.offset) + ": " + field.error;
  }

  std::span<const U8> bytes_;
  Record record_;
};

}  // namespace

std::span<const RecordForm> recordForms() {
  return forms;
}

const RecordForm* findRecordForm(std::string_view name) {
  for (const RecordForm& form : forms)
    if (form.type == name || form.type.ends_with("::" + std::string(name))) return &form;
  return nullptr;
}

Record readRecord(const RecordForm& form, std::span<const U8> bytes) {
  Reader reader(bytes);
  for (const FieldForm& field : form.fields)
    if (!reader.read(field)) return reader.finish(false);
  return reader.finish(true);
}

std::vector<U8> bytesFromHex(std::string_view argument, std::string_view digits) {
  std::vector<U8> bytes;
  U8 half = 0;
  std::size_t count = 0;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    const char c = digits[i];
    if (std::string_view(" \t\r\n:-").find(c) != std::string_view::npos) continue;
    if (count == 1 && half == 0 && (c == 'x' || c == 'X')) {
      count = 0;
      continue;
    }
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (digit < 0)
      throw UsageError(std::string(argument) + ": found " +
                       printable(digits.substr(i, 1)) + " at character " +
                       std::to_string(i + 1) + ", expected hexadecimal digits");
    if (count++ % 2 == 0)
      half = static_cast<U8>(digit);
    else
      bytes.push_back(static_cast<U8>(half << 4 | digit));
  }
  if (count % 2 != 0)
    throw UsageError(std::string(argument) + ": found " + std::to_string(count) +
                     " hexadecimal digits, expected two per byte");
  return bytes;
}

}  // namespace Tunnelctl
