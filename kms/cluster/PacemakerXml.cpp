#include "kms/cluster/PacemakerXml.h"

#include <libxml/parser.h>
#include <libxml/xpath.h>

PacemakerXml::PacemakerXml(const std::string& text) {
  if (text.size() <= static_cast<size_t>(INT32_MAX)) {
    m_doc = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                          XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  }
}

PacemakerXml::~PacemakerXml() {
  xmlFreeDoc(static_cast<xmlDoc*>(m_doc));
}

std::vector<std::string> PacemakerXml::values(const std::string& xpath) const {
  std::vector<std::string> found;
  if (m_doc == nullptr) {
    return found;
  }
  xmlXPathContext* context = xmlXPathNewContext(static_cast<xmlDoc*>(m_doc));
  if (context == nullptr) {
    return found;
  }
  xmlXPathObject* result =
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath.c_str()), context);
  if (result != nullptr && result->nodesetval != nullptr) {
    for (int i = 0; i < result->nodesetval->nodeNr; ++i) {
      xmlChar* content = xmlNodeGetContent(result->nodesetval->nodeTab[i]);
      found.emplace_back(content != nullptr ? reinterpret_cast<const char*>(content) : "");
      xmlFree(content);
    }
  }
  xmlXPathFreeObject(result);
  xmlXPathFreeContext(context);
  return found;
}

std::string PacemakerXml::literal(const std::string& text) {
  if (text.find('\'') == std::string::npos) {
    return "'" + text + "'";
  }
  if (text.find('"') == std::string::npos) {
    return "\"" + text + "\"";
  }
  return "''";
}
