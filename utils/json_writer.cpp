#include "utils/json_writer.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "utils/internal/utf8.h"

namespace utils {

namespace {

// What a byte needs inside a string: 0 nothing, 1 a UTF-8 check (it starts a
// multi-byte sequence), 'u' a \u00XX escape, any other letter the escape
// with that letter.
constexpr std::array<char, 256> MakeEscapes() {
  std::array<char, 256> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = 'u';
  table['\b'] = 'b';
  table['\f'] = 'f';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  table['"'] = '"';
  table['\\'] = '\\';
  for (int c = 0x80; c < 0x100; ++c) table[c] = 1;
  return table;
}

constexpr std::array<char, 256> kEscapes = MakeEscapes();

template <bool Lenient>
bool AppendString(std::string* out, const char* data, size_t size, size_t* badOffset) {
  static const char kHex[] = "0123456789abcdef";
  const size_t start = out->size();
  out->reserve(start + size + 2);
  *out += '"';
  const unsigned char* const begin = reinterpret_cast<const unsigned char*>(data);
  const unsigned char* const end = begin + size;
  const unsigned char* p = begin;
  const unsigned char* run = p;  // bytes not copied yet
  while (p != end) {
    const char escape = kEscapes[*p];
    if (escape == 0) {
      ++p;
      continue;
    }
    if (escape == 1) {
      const size_t length = impl::Utf8SequenceLength(p, end);
      if (length != 0) {
        p += length;
        continue;
      }
      if (!Lenient) {
        if (badOffset != nullptr) *badOffset = static_cast<size_t>(p - begin);
        out->resize(start);
        return false;
      }
    }
    out->append(reinterpret_cast<const char*>(run), static_cast<size_t>(p - run));
    if (escape == 1) {
      out->append("\xEF\xBF\xBD", 3);  // U+FFFD
    } else if (escape == 'u') {
      const char text[6] = {'\\', 'u', '0', '0', kHex[*p >> 4], kHex[*p & 0xF]};
      out->append(text, sizeof text);
    } else {
      const char text[2] = {'\\', escape};
      out->append(text, sizeof text);
    }
    run = ++p;
  }
  out->append(reinterpret_cast<const char*>(run), static_cast<size_t>(p - run));
  *out += '"';
  return true;
}

void Write(JsonWriter* writer, const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue: writer->Null(); return;
    case Json::intValue: writer->Integer(value.asInt64()); return;
    case Json::uintValue: writer->Unsigned(value.asUInt64()); return;
    case Json::realValue:
      if (!writer->Double(value.asDouble())) writer->Null();
      return;
    case Json::stringValue: {
      const char* begin = nullptr;
      const char* end = nullptr;
      value.getString(&begin, &end);
      writer->LenientString(begin, static_cast<size_t>(end - begin));
      return;
    }
    case Json::booleanValue: writer->Bool(value.asBool()); return;
    case Json::arrayValue: {
      writer->Open('[');
      const Json::ArrayIndex size = value.size();
      for (Json::ArrayIndex i = 0; i < size; ++i) {
        writer->Item(i == 0);
        Write(writer, value[i]);
      }
      writer->Close(']', size == 0);
      return;
    }
    case Json::objectValue: {
      writer->Open('{');
      bool first = true;
      for (auto it = value.begin(); it != value.end(); ++it) {
        writer->Item(first);
        first = false;
        const char* end = nullptr;
        const char* name = it.memberName(&end);
        writer->LenientString(name, static_cast<size_t>(end - name));
        writer->Colon();
        Write(writer, *it);
      }
      writer->Close('}', first);
      return;
    }
  }
}

}  // namespace

void JsonWriter::Integer(long long value) {
  char text[24];
  const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
  text_.append(text, static_cast<size_t>(result.ptr - text));
}

void JsonWriter::Unsigned(unsigned long long value) {
  char text[24];
  const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
  text_.append(text, static_cast<size_t>(result.ptr - text));
}

bool JsonWriter::Double(double value) {
  if (!std::isfinite(value)) return false;
  char text[32];
  const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
  const size_t length = static_cast<size_t>(result.ptr - text);
  text_.append(text, length);
  if (std::memchr(text, '.', length) == nullptr && std::memchr(text, 'e', length) == nullptr) {
    text_.append(".0", 2);
  }
  return true;
}

bool JsonWriter::String(const char* data, size_t size, size_t* badOffset) {
  return AppendString<false>(&text_, data, size, badOffset);
}

void JsonWriter::LenientString(const char* data, size_t size) {
  AppendString<true>(&text_, data, size, nullptr);
}

std::string WriteJson(const Json::Value& value, bool pretty) {
  JsonWriter writer(pretty);
  Write(&writer, value);
  return writer.Take();
}

}  // namespace utils
