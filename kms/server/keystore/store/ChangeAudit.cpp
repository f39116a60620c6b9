#include "kms/server/keystore/store/ChangeAudit.h"

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Messages.h"
#include "kms/server/keystore/records/RecordUtils.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

// Catalogued messages of the audit entries.
constexpr int kMsgPreviousValues = 67;
constexpr int kMsgNewValues = 68;
constexpr int kMsgGroupAdded = 70;
constexpr int kMsgTag = 71;
constexpr int kMsgName = 72;
constexpr int kMsgCipherType = 73;
constexpr int kMsgDescription = 74;
constexpr int kMsgKeyDeleted = 75;
constexpr int kMsgKeyUpdated = 76;
constexpr int kMsgState = 77;
constexpr int kMsgGroupTag = 78;
constexpr int kMsgGroupDeleted = 79;
constexpr int kMsgGroupUpdated = 80;
constexpr int kMsgKeyAdded = 81;
constexpr int kMsgFipsCompliant = 92;
// Texts of this program's catalogue, rendered into message 92.
constexpr int kOwnOriginator = 286;
constexpr int kMsgYes = 25;
constexpr int kMsgNo = 26;

void note(const char* label, int id) {
  logAppMessage(label, CRVN_SEV_INFO, id);
}

void note(const char* label, int id, const std::string& argument) {
  logAppMessage(label, CRVN_SEV_INFO, id, argument);
}

void noteTag(const char* label, std::string_view tag) {
  note(label, kMsgTag, Utils::binToHex(tag));
}

// Name, state and group tag of a key, and its description when `withDescription`.
void noteKeyValues(const char* label, const KeyRecord_v1& rec, bool withDescription) {
  note(label, kMsgName, Utils::bufferToString(rec.name()));
  note(label, kMsgState, Utils::keystateToString(rec.state()));
  note(label, kMsgGroupTag, Utils::binToHex(rec.keyGroup()));
  if (withDescription) {
    note(label, kMsgDescription, Utils::bufferToString(rec.description()));
  }
}

void noteGroupValues(const char* label, const KeyGrpRecord_v1& rec, bool withDescription) {
  note(label, kMsgName, Utils::bufferToString(rec.name()));
  if (withDescription) {
    note(label, kMsgDescription, Utils::bufferToString(rec.description()));
  }
}

}  // namespace

void ChangeAudit::keyAdded(const char* label, const KeyRecord_v1& rec, bool fipsKey) {
  KMS_TRACE("ChangeAudit::keyAdded");
  note(label, kMsgKeyAdded);
  noteTag(label, rec.tag());
  note(label, kMsgName, Utils::bufferToString(rec.name()));
  note(label, kMsgState, Utils::keystateToString(rec.state()));
  note(label, kMsgGroupTag, Utils::binToHex(rec.keyGroup()));
  note(label, kMsgDescription, Utils::bufferToString(rec.description()));
  note(label, kMsgFipsCompliant, GetCxULMessageEx(kOwnOriginator, fipsKey ? kMsgYes : kMsgNo));
}

void ChangeAudit::keyUpdated(const char* label, const KeyRecord_v1& before,
                             const KeyRecord_v1& after) {
  KMS_TRACE("ChangeAudit::keyUpdated");
  const bool descriptionChanged = before.description() != after.description();
  note(label, kMsgKeyUpdated);
  noteTag(label, after.tag());
  note(label, kMsgPreviousValues);
  noteKeyValues(label, before, descriptionChanged);
  note(label, kMsgNewValues);
  noteKeyValues(label, after, descriptionChanged);
}

void ChangeAudit::keyDemoted(const char* label, const KeyRecord_v1& before,
                             const KeyRecord_v1& after) {
  KMS_TRACE("ChangeAudit::keyDemoted");
  note(label, kMsgKeyUpdated);
  noteTag(label, after.tag());
  note(label, kMsgPreviousValues);
  note(label, kMsgState, Utils::keystateToString(before.state()));
  note(label, kMsgNewValues);
  note(label, kMsgState, Utils::keystateToString(after.state()));
}

void ChangeAudit::keyDeleted(const char* label, std::string_view tag) {
  KMS_TRACE("ChangeAudit::keyDeleted");
  note(label, kMsgKeyDeleted);
  noteTag(label, tag);
}

void ChangeAudit::groupAdded(const char* label, const KeyGrpRecord_v1& rec) {
  KMS_TRACE("ChangeAudit::groupAdded");
  note(label, kMsgGroupAdded);
  noteTag(label, rec.tag());
  note(label, kMsgName, Utils::bufferToString(rec.name()));
  note(label, kMsgCipherType, Utils::cipherTypeToString(rec.cipherType()));
  note(label, kMsgDescription, Utils::bufferToString(rec.description()));
}

void ChangeAudit::groupUpdated(const char* label, const KeyGrpRecord_v1& before,
                               const KeyGrpRecord_v1& after) {
  KMS_TRACE("ChangeAudit::groupUpdated");
  const bool descriptionChanged = before.description() != after.description();
  note(label, kMsgGroupUpdated);
  noteTag(label, after.tag());
  note(label, kMsgPreviousValues);
  noteGroupValues(label, before, descriptionChanged);
  note(label, kMsgNewValues);
  noteGroupValues(label, after, descriptionChanged);
}

void ChangeAudit::groupDeleted(const char* label, std::string_view tag) {
  KMS_TRACE("ChangeAudit::groupDeleted");
  note(label, kMsgGroupDeleted);
  noteTag(label, tag);
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
