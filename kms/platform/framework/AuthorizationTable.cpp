#include "kms/platform/framework/AuthorizationTable.h"

#include <utility>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {
constexpr int kJoinAnd = 1;
constexpr int kJoinOr = 2;
}  // namespace

PeerRights PeerRights::all() {
  PeerRights rights;
  rights.m_all = true;
  return rights;
}

PeerRights PeerRights::of(std::set<int> rights) {
  PeerRights result;
  result.m_rights = std::move(rights);
  return result;
}

void PeerRights::merge(const PeerRights& other) {
  m_all = m_all || other.m_all;
  m_rights.insert(other.m_rights.begin(), other.m_rights.end());
}

AuthorizationTable::AuthorizationTable(const authorization_entry_s* table) {
  if (table == nullptr) {
    return;
  }
  const authorization_entry_s* row = table;
  while (row->name != nullptr && row->name[0] != '\0') {
    // One operation: rows up to the first that does not join the next one
    // of the same name.
    const std::string key = row->name;
    Rule& rule = m_rules[key];
    std::vector<int> conjunction;
    for (;;) {
      if (row->right != nullptr) {
        conjunction.push_back(*row->right);
      }
      ++m_rows;
      const int join = row->join;
      const authorization_entry_s* next = row + 1;
      const bool continues =
          (join == kJoinAnd || join == kJoinOr) && next->name != nullptr && key == next->name;
      if (!continues || join == kJoinOr) {
        if (!conjunction.empty()) {
          rule.push_back(std::move(conjunction));
        }
        conjunction.clear();
      }
      row = next;
      if (!continues) {
        break;
      }
    }
  }
}

bool AuthorizationTable::allows(const std::string& key, const PeerRights& rights) const {
  const auto found = m_rules.find(key);
  if (found == m_rules.end() || found->second.empty()) {
    return rights.holds(kKeyValueRight);
  }
  for (const std::vector<int>& conjunction : found->second) {
    bool held = true;
    for (int right : conjunction) {
      held = held && rights.holds(right);
    }
    if (held) {
      return true;
    }
  }
  return false;
}

std::vector<std::vector<int>> AuthorizationTable::alternatives(const std::string& key) const {
  const auto found = m_rules.find(key);
  return found == m_rules.end() || found->second.empty() ? Rule{{kKeyValueRight}} : found->second;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
