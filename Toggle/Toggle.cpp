#include "Toggle/Toggle.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

namespace Toggle {

namespace {

// Reads a whole file. Returns the errno of the call that failed, or 0.
int readFile(const std::string& path, std::string& contents) {
  int fd;
  do {
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  int error = 0;
  char buffer[4096];
  for (;;) {
    const ssize_t size = ::read(fd, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) error = errno;
    if (size <= 0) break;
    contents.append(buffer, static_cast<std::size_t>(size));
  }
  ::close(fd);
  return error;
}

// What the parser reads, and where it puts unescaped strings: never behind its read position,
// save for a character that the end of the text cuts off, of which it would put NULs there.
// A stream of its own kind, because the parser works on copies of the kinds it knows, and
// events could then not ask where it stands.
class Input {
 public:
  using Ch = char;

  explicit Input(std::string& text)
      : begin_(text.data()), at_(begin_), end_(begin_ + text.size()) {}
  char Peek() const { return at_ < end_ ? *at_ : '\0'; }
  char Take() { return at_ < end_ ? *at_++ : '\0'; }
  std::size_t Tell() const { return static_cast<std::size_t>(at_ - begin_); }

  char* PutBegin() { return put_ = at_; }
  void Put(char c) {
    if (put_ < end_) *put_++ = c;
  }
  std::size_t PutEnd(const char* from) { return static_cast<std::size_t>(put_ - from); }
  void Flush() {}

 private:
  char* begin_;
  char* at_;
  char* end_;
  char* put_ = nullptr;
};

// Takes the parser's events and stops it at the first that a toggle file must not have.
class Events : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Events> {
 public:
  Events(std::string_view text, const Input& at, std::string_view name)
      : text_(text), at_(at), name_(name) {}

  bool StartObject() {
    if (inObject_) return notBoolean();
    inObject_ = true;
    return read();
  }
  bool EndObject(rapidjson::SizeType) { return read(); }
  bool Key(const char* bytes, rapidjson::SizeType size, bool) {
    key_.assign(bytes, size);
    if (!names_.insert(key_).second) return refuse(quoted() + " stands here again");
    return read();
  }
  bool Bool(bool value) {
    if (!inObject_) return notBoolean();
    if (key_ == name_) value_ = value, isFound_ = true;
    return read();
  }
  bool Default() { return notBoolean(); }  // null, numbers, strings
  bool String(const char*, rapidjson::SizeType, bool) { return notBoolean(); }
  bool StartArray() { return notBoolean(); }

  bool value(bool dflt) const { return isFound_ ? value_ : dflt; }
  const std::string& reason() const { return reason_; }
  std::size_t offset() const { return offset_; }

 private:
  std::string quoted() const { return "\"" + key_ + "\""; }
  bool read() {
    readUpTo_ = at_.Tell();
    return true;
  }
  bool notBoolean() {
    if (!inObject_) return refuse("not a JSON object");
    return refuse("the value of " + quoted() + " is not a boolean");
  }
  // The parser stands behind the token that is refused; the token itself begins at the next
  // byte that is more than punctuation behind the event before.
  bool refuse(std::string reason) {
    reason_ = std::move(reason);
    offset_ = text_.find_first_not_of(" \t\r\n:,", readUpTo_);
    return false;
  }

  std::string_view text_;
  const Input& at_;
  std::string_view name_;
  std::set<std::string> names_;
  std::string key_;  // the name that was read last
  std::string reason_;
  std::size_t readUpTo_ = 0;  // end of the event before
  std::size_t offset_ = 0;    // of what is refused
  bool inObject_ = false;
  bool isFound_ = false;
  bool value_ = false;
};

[[noreturn]] void refuseAt(const std::string& path,
                           std::string_view text,
                           std::size_t offset,
                           const std::string& reason) {
  std::size_t line = 1, lineStart = 0;
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    if (text[i] != '\n') continue;
    ++line;
    lineStart = i + 1;
  }
  throw MalformedFileException(path, line, offset - lineStart + 1, reason);
}

}  // namespace

MalformedFileException::MalformedFileException(const std::string& path,
                                               std::size_t line,
                                               std::size_t column,
                                               const std::string& reason)
    : std::runtime_error(path + ":" + std::to_string(line) + ":" +
                         std::to_string(column) + ": " + reason),
      line_(line),
      column_(column) {}
MalformedFileException::~MalformedFileException() = default;

bool state(const char* name, const char* file, bool dflt) {
  const char* directory = std::getenv("TOGGLE_DIR");
  if (!directory || !*directory) directory = "/etc/toggles";
  const std::string path = std::string(directory) + "/" + file;

  std::string text;
  if (const int error = readFile(path, text)) {
    if (error == ENOENT) return dflt;
    throw MalformedFileException(path, 0, 0,
                                 std::string("cannot read: ") + std::strerror(error));
  }

  // Strings are unescaped in place, in a copy: the places of errors are those of the file.
  constexpr unsigned flags =
      rapidjson::kParseInsituFlag | rapidjson::kParseValidateEncodingFlag;
  std::string scratch = text;
  Input stream(scratch);
  Events events(text, stream, name);
  rapidjson::Reader reader;
  const rapidjson::ParseResult result = reader.Parse<flags>(stream, events);
  // The one number that has no event.
  if (result.Code() == rapidjson::kParseErrorNumberTooBig) events.Default();
  if (!events.reason().empty()) refuseAt(path, text, events.offset(), events.reason());
  if (result.IsError()) {
    const std::size_t offset = result.Offset();
    if (result.Code() == rapidjson::kParseErrorDocumentRootNotSingular)
      refuseAt(path, text, offset, "text behind the object");
    refuseAt(path, text, offset,
             std::string("not JSON: ") + rapidjson::GetParseError_En(result.Code()));
  }
  // A NUL byte is the end of its input to the parser.
  if (stream.Tell() != text.size())
    refuseAt(path, text, stream.Tell(), "text behind the object");
  return events.value(dflt);
}

}  // namespace Toggle
