// Reading what vrkmsctl printed, for process-level tests: a member of its
// JSON, and plain text searches.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace CtlOutput {

// The value of the first member `name` of a JSON text: a string's content
// (escapes left as they are) or a number's (or literal's) text; "<absent>"
// when there is none.
inline std::string jsonField(const std::string& json, const std::string& name) {
  const std::string key = "\"" + name + "\":";
  size_t at = json.find(key);
  if (at == std::string::npos) {
    return "<absent>";
  }
  at += key.size();
  if (json[at] == '"') {
    return json.substr(at + 1, json.find('"', at + 1) - at - 1);
  }
  return json.substr(at, json.find_first_of(",}]", at) - at);
}

// How often `part` stands in `text` (overlapping places counted).
inline size_t countOf(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++n;
  }
  return n;
}

// Each member of `json` named in `fields` holds its value there.
inline void expectFields(const std::string& json,
                         const std::map<std::string, std::string>& fields) {
  for (const auto& [name, value] : fields) {
    EXPECT_EQ(jsonField(json, name), value) << name << " in " << json;
  }
}

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

}  // namespace CtlOutput
