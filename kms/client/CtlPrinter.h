// What vrkmsctl prints on its standard output: records, lists and results,
// as text for people or, with --json, as one JSON document per command.
//
// JSON shapes. A key: {name, tag, keyGroup, state, description, rev,
// createTime, updateTime, kpkType, kpkTag, key, attributes}, where key (hex)
// is there only when the service sent one; a group: {name, tag, cipherType,
// description, rev, createTime, updateTime, numKeys, hasActiveKey,
// attributes}. The text form shows the same fields (but the KPK tag), one
// "label: value" line each. Tags and keys are lower-case hex, times seconds since the
// Epoch, states, cipher and KPK types their names ("KEY_ACTIVE",
// "CT_AES256_CBC", "KPK_LOCAL"), attributes an object of name to value.
#pragma once

#include <ostream>
#include <string>

#include <KMS.h>

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

struct CtlStatus {
  long long quiesceCount = 0;
  long long numKeyGroups = 0;
  long long numKeys = 0;
  std::string hmkId;
  std::string kpkId;
};

class CtlPrinter {
 public:
  CtlPrinter(std::ostream& out, bool json) : m_out(out), m_json(json) {}

  void key(const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KeyRecord& record);
  void keys(const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KeyRecordSeq& records);
  void group(const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KeyGroupRecord& record);
  void groups(const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KeyGroupRecordSeq& records);
  void status(const CtlStatus& status);
  // The quiesce count after quiesce or unquiesce: {"quiesceCount": n}.
  void quiesceCount(long long count);
  // A change without a record to show: the text, or {"ok": true}.
  void done(const std::string& text);
  // getKeyAndKad: result 1 (unique) or 2 (shared), the KAD and the key.
  void kad(long result, const ::Ardentis::Vaultrest::TL::Framework::octetSeq& kad,
           const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KeyRecord& record);
  // getKeyRecordsByKad: result 3 (all matches) or 4 (some left out).
  void kadMatches(long result, const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KeyRecordSeq& records);
  // The result of an export or import: each message as a line of text
  // (CtlOpMessages), then "status CODE: TEXT"; or {"error_code": CODE,
  // "messages": [{"code": N, "args": [...]}]}.
  void opStatus(const ::Ardentis::Vaultrest::DL::KMSFacetsV1::KSOpStatus& status);

  // A failure, on the stream given (standard output for JSON, standard
  // error for text): "error CODE: TEXT" or {"error": CODE, "message": TEXT}.
  // `code` is the service's status, or the name of a system exception.
  static void error(std::ostream& out, bool json, const std::string& code, bool numeric,
                    const std::string& text);

  // The catalogue's sentence for a status code, or its short text
  // ("Success" for 0), or "unknown status".
  static std::string statusText(int code);
  // Names as the store shows them ("KEY_ACTIVE"; "* UNKNOWN STATE *").
  static std::string stateName(long state);
  static std::string cipherName(long type);
  static std::string kpkTypeName(long type);
  // Wire ticks (100 ns from 15 October 1582) to seconds since the Epoch.
  static long long toSeconds(long long ticks);
  // Octets as lower-case hex.
  static std::string hex(const ::Ardentis::Vaultrest::TL::Framework::octetSeq& octets);

 private:
  std::ostream& m_out;
  const bool m_json;
};

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
