// Writes one compact JSON document to a stream, placing the commas itself.
// Strings are written as given, byte by byte: control characters, '"', '\'
// and bytes above 0x7e are escaped as \uXXXX (a byte b as U+00b), so any
// byte string comes out as valid JSON.
//
//   JsonWriter json(std::cout);
//   json.beginObject();
//   json.key("name"); json.value("k1");
//   json.endObject();   // {"name":"k1"}
//
// The caller keeps the nesting right; the writer does not check it.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out) : m_out(out) {}

  void beginObject();
  void endObject();
  void beginArray();
  void endArray();
  // The name of the next member of the open object.
  void key(const std::string& name);
  void value(const std::string& text);
  void value(const char* text) { value(std::string(text)); }
  void value(long long number);
  void value(long number) { value(static_cast<long long>(number)); }
  void value(int number) { value(static_cast<long long>(number)); }
  void value(bool flag);

  // `text` as a JSON string literal, quotes included.
  static std::string quote(const std::string& text);

 private:
  // Writes the comma that separates this element from the one before.
  void separate();

  std::ostream& m_out;
  std::vector<bool> m_first;  // per open container: nothing written yet
  bool m_afterKey = false;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
