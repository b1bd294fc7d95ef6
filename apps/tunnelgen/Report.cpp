#include "apps/tunnelgen/Report.h"

#include <ostream>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <spdlog/fmt/fmt.h>

namespace Tunnelgen {

void Report::event(const std::string& name,
                   const std::string& text,
                   const Fields& fields) {
  if (!json_) {
    out_ << fmt::format("{:<11}{}\n", name, text) << std::flush;
    return;
  }
  using Encoding = rapidjson::UTF8<>;
  rapidjson::StringBuffer buffer;
  // Names of files may be any bytes: what is not UTF-8 is an error of the writer's.
  rapidjson::Writer<rapidjson::StringBuffer, Encoding, Encoding, rapidjson::CrtAllocator,
                    rapidjson::kWriteValidateEncodingFlag>
      writer(buffer);
  writer.SetMaxDecimalPlaces(6);
  const auto string = [&](const std::string& value) {
    const auto size = static_cast<rapidjson::SizeType>(value.size());
    if (!writer.String(value.data(), size)) {
      // A byte that begins no character stops it behind the opening quote.
      buffer.Clear();
      throw std::runtime_error("'" + value + "' is not UTF-8: it cannot be told as JSON");
    }
  };
  writer.StartObject();
  writer.Key("event");
  string(name);
  for (const auto& [key, value] : fields) {
    writer.Key(key);
    if (const auto* number = std::get_if<U64>(&value))
      writer.Uint64(*number);
    else if (const auto* real = std::get_if<double>(&value))
      writer.Double(*real);
    else
      string(std::get<std::string>(value));
  }
  writer.EndObject();
  out_ << buffer.GetString() << std::endl;
}

bool Report::isWritten() const {
  return out_.good();
}

std::string grouped(U64 number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3; at -= 3)
    digits.insert(at - 3, ",");
  return digits;
}

std::string shownTime(double seconds) {
  if (seconds < 0.9995e-3) return fmt::format("{:.0f} us", seconds * 1e6);
  if (seconds < 0.9995) return fmt::format("{:.3g} ms", seconds * 1e3);
  return fmt::format("{:.2f} s", seconds);
}

std::string counted(U64 count, const char* one, const char* many) {
  return grouped(count) + " " + (count == 1 ? one : many);
}

}  // namespace Tunnelgen
