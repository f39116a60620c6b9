// The rights that remote operations ask for, and the decision whether a peer
// that holds some rights may call an operation. Pure: no ORB, no I/O.
//
// A service hands its table to ServiceContainer::registerAuthorizationTable
// as an array of authorization_entry_s ended by a row with an empty name.
// Rows of one operation stand next to each other; each row names one right
// and says how it joins the next row of the same operation:
//   0  last row of this operation
//   1  "and": the peer must also hold the right of the next row
//   2  "or":  the right of this row or what follows will do
// "And" binds tighter than "or": rights 1 (1), 3 (2), 40 reads
// (1 and 3) or 40.
//
// An operation with no row at all asks for one right of the framework's
// own, kKeyValueRight: "may receive key values". A service leaves out of its
// table exactly the operations that hand out keys in the clear (and those
// it does not serve), so no right that the table gives to reading records,
// listing or administering lets a peer receive a key value; a peer must be
// granted that right by name. Operation keys have the form
// "Module/Path/Interface_operation".
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

// The right an operation without a row asks for: may receive key values.
constexpr int kKeyValueRight = 4;

struct authorization_entry_s {
  const char* name;  // operation key; empty (or null) ends the table
  int objectType;    // kind of object guarded; the services use 22
  int count;         // number of rights the row names; always 1
  const int* right;  // the right the row asks for
  int join;          // 0, 1 ("and") or 2 ("or") with the next row
};

// The rights one peer holds: a set of numbers, or every right.
class PeerRights {
 public:
  PeerRights() = default;
  static PeerRights all();
  static PeerRights of(std::set<int> rights);

  bool holds(int right) const { return m_all || m_rights.count(right) != 0; }
  bool holdsAny() const { return m_all || !m_rights.empty(); }
  bool holdsAll() const { return m_all; }
  const std::set<int>& rights() const { return m_rights; }

  // Adds the rights of `other` to these.
  void merge(const PeerRights& other);

 private:
  bool m_all = false;
  std::set<int> m_rights;
};

class AuthorizationTable {
 public:
  // An empty table: every operation has no row.
  AuthorizationTable() = default;
  // Copies the rows of `table` up to its end row. A join code other than 1
  // or 2 ends the operation's rows; so does the end of the table.
  explicit AuthorizationTable(const authorization_entry_s* table);

  // Whether a peer with `rights` may call the operation `key`.
  bool allows(const std::string& key, const PeerRights& rights) const;
  // Whether the table has rows for `key`.
  bool hasRows(const std::string& key) const { return m_rules.count(key) != 0; }
  // Number of rows read, the end row left out.
  size_t rowCount() const { return m_rows; }
  // The rule of `key` as alternatives of rights that must all be held;
  // {{kKeyValueRight}} when the operation has no row.
  std::vector<std::vector<int>> alternatives(const std::string& key) const;

 private:
  typedef std::vector<std::vector<int>> Rule;  // or of ands
  std::map<std::string, Rule> m_rules;
  size_t m_rows = 0;
};

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
