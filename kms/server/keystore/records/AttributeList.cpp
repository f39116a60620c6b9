#include "kms/server/keystore/records/AttributeList.h"

#include <cstdio>
#include <string_view>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

const std::string AttributeList::m_errorS;

namespace {

std::string_view cut(std::string_view text) {
  return text.substr(0, AttributeList::kMaxLength);
}

}  // namespace

bool AttributeList::addAttribute(std::string_view name, std::string_view value) {
  KMS_TRACE_THIS("AttributeList::addAttribute");
  const std::string_view key = cut(name);
  // A list is read from a file in the order of its names: each new name
  // then goes behind the last one, without a search.
  if (m_attrs.empty() || std::string_view(m_attrs.rbegin()->first) < key) {
    testEntry(m_attrs.emplace_hint(m_attrs.end(), key, cut(value)));
    return true;
  }
  const auto [iter, added] = m_attrs.emplace(key, cut(value));
  if (added) {
    testEntry(iter);
  }
  return added;
}

bool AttributeList::updateAttribute(std::string name, std::string value) {
  KMS_TRACE_THIS("AttributeList::updateAttribute");
  bool updated = false;
  const auto iter = m_attrs.find(cut(name));
  if (iter != m_attrs.end()) {
    if (value.size() > kMaxLength) {
      value.resize(kMaxLength);
    }
    iter->second = std::move(value);
    updated = true;
    testEntry(iter);
  }
  return updated;
}

bool AttributeList::removeAttribute(const std::string& name) {
  KMS_TRACE_THIS("AttributeList::removeAttribute");
  const auto iter = m_attrs.find(cut(name));
  const bool removed = iter != m_attrs.end();
  if (removed) {
    m_attrs.erase(iter);
  }
  // What stays was checked when it came in.
  return removed;
}

const std::string& AttributeList::getAttribute(const std::string& name) const {
  const auto iter = m_attrs.find(cut(name));
  return iter != m_attrs.end() ? iter->second : m_errorS;
}

AttributeList::const_iterator AttributeList::find(const std::string& name) const {
  return m_attrs.find(cut(name));
}

void AttributeList::testInvariant() const {
  for (auto iter = m_attrs.begin(); iter != m_attrs.end(); ++iter) {
    testEntry(iter);
  }
}

void AttributeList::testEntry(const_iterator iter) {
  KS_ASSERT("AttributeList::testInvariant", (iter->first).size() <= 4096);
  KS_ASSERT("AttributeList::testInvariant", (iter->second).size() <= 4096);
}

void AttributeList::display() const {
  KMS_TRACE_THIS("AttributeList::display");
  std::printf("\n%lu Attributes\n", static_cast<unsigned long>(m_attrs.size()));
  for (const auto& entry : m_attrs) {
    std::printf("\tName : ");
    Utils::displayBuffer(entry.first, true, "", false);
    std::printf("\t             ");
    Utils::displayBuffer(entry.second, true, "", false);
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
