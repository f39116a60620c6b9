#include "kms/client/JsonWriter.h"

#include <cstdio>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

std::string JsonWriter::quote(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte > 0x7e) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else {
      out += c;
    }
  }
  out += '"';
  return out;
}

void JsonWriter::separate() {
  if (m_afterKey) {
    m_afterKey = false;
    return;
  }
  if (!m_first.empty()) {
    if (!m_first.back()) {
      m_out << ',';
    }
    m_first.back() = false;
  }
}

void JsonWriter::beginObject() {
  separate();
  m_out << '{';
  m_first.push_back(true);
}

void JsonWriter::endObject() {
  m_first.pop_back();
  m_out << '}';
}

void JsonWriter::beginArray() {
  separate();
  m_out << '[';
  m_first.push_back(true);
}

void JsonWriter::endArray() {
  m_first.pop_back();
  m_out << ']';
}

void JsonWriter::key(const std::string& name) {
  separate();
  m_out << quote(name) << ':';
  m_afterKey = true;
}

void JsonWriter::value(const std::string& text) {
  separate();
  m_out << quote(text);
}

void JsonWriter::value(long long number) {
  separate();
  m_out << number;
}

void JsonWriter::value(bool flag) {
  separate();
  m_out << (flag ? "true" : "false");
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
