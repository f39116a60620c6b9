// One XML text of Pacemaker's tools (the CIB from cibadmin, the status from
// crm_mon's XML output), parsed once and queried by XPath. Owns the parsed
// document; not copyable. Never throws.
#pragma once

#include <string>
#include <vector>

class PacemakerXml {
 public:
  // Parses `text`; ok() is false when it is not well-formed XML.
  explicit PacemakerXml(const std::string& text);
  ~PacemakerXml();
  PacemakerXml(const PacemakerXml&) = delete;
  PacemakerXml& operator=(const PacemakerXml&) = delete;

  bool ok() const { return m_doc != nullptr; }
  // The string values of the nodes that `xpath` selects (an attribute's
  // value, an element's text), in document order. Empty when the document
  // is not ok or the expression is malformed.
  std::vector<std::string> values(const std::string& xpath) const;
  size_t count(const std::string& xpath) const { return values(xpath).size(); }

  // `text` as an XPath string literal. A text with both kinds of quote
  // cannot be one: the literal then matches no name Pacemaker accepts.
  static std::string literal(const std::string& text);

 private:
  void* m_doc = nullptr;  // xmlDoc
};
