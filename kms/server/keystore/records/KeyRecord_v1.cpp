#include "kms/server/keystore/records/KeyRecord_v1.h"

#include <cstdio>

#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Raise.h"
#include "kms/server/diagnostics/StatusCodes.h"
#include "kms/server/keystore/records/RecordFields.h"
#include "kms/server/keystore/records/RecordUtils.h"
#include "kms/server/keystore/records/SharedRecordFields.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

using Block = KeyRecordBlock;

void checkState(ks_keystate_t state) {
  if (!isKnownKeyState(state)) {
    KMS_DEBUG("KeyRecord_v1::setState", 1,
              "Encounted an UNKNOWN KeyState: " << static_cast<int32_t>(state));
    KS_THROW(EC_KS_bad_argument, "KeyRecord_v1::setState");
  }
}

void checkKpkType(ks_kpktype_t type) {
  if (!isKnownKpkType(type)) {
    KMS_DEBUG("KeyRecord_v1::setKpkType", 1,
              "Encounted an UNKNOWN KpkType: " << static_cast<int32_t>(type));
    KS_THROW(EC_KS_bad_argument, "KeyRecord_v1::setKpkType");
  }
}

// How the setter of a byte-string field takes a value over 4096 bytes: its
// label and words in the log, and whether the value is cut (else refused).
struct StringRule {
  const char* label;
  const char* what;
  bool cut;
};
const StringRule kStringRules[Block::kFieldCount] = {
    {"KeyRecord_v1::setTag", "Encountered TAG of size: ", false},
    {"KeyRecord_v1::setName", "Name", true},
    {},
    {},
    {"KeyRecord_v1::setDescription", "Description", true},
    {},
    {"KeyRecord_v1::setKeyGroup", "Encountered KeyGroup TAG of size: ", false},
    {},
    {},
    {"KeyRecord_v1::setKpkTag", "Encountered KpkTag of size: ", false},
    {"KeyRecord_v1::setKey", "Encountered Key of size: ", false},
};

std::string_view checked(Block::Field field, std::string_view value) {
  const StringRule& rule = kStringRules[field];
  return rule.cut ? truncatedField(rule.label, rule.what, value)
                  : boundedField(rule.label, rule.what, value);
}

}  // namespace

KeyRecord_v1::KeyRecord_v1() : m_block(Block::empty()) {
  m_attrs.testInvariant();
  testInvariant();
}

KeyRecord_v1::KeyRecord_v1(KeyRecordBlock::Ref block) : m_block(std::move(block)) {
  testInvariant();
}

// A record moved from is left empty rather than holding no block, so every
// accessor stays valid on it.
KeyRecord_v1::KeyRecord_v1(KeyRecord_v1&& other) noexcept
    : m_block(std::move(other.m_block)), m_attrs(std::move(other.m_attrs)) {
  other.m_block = Block::empty();
}

KeyRecord_v1& KeyRecord_v1::operator=(KeyRecord_v1&& other) noexcept {
  if (this != &other) {
    m_block = std::move(other.m_block);
    m_attrs = std::move(other.m_attrs);
    other.m_block = Block::empty();
  }
  return *this;
}

void KeyRecord_v1::change(KeyRecordBlock::Field field, std::string_view value) {
  m_block = m_block->with(field, checked(field, value));
  testInvariant();
}

void KeyRecord_v1::change(KeyRecordBlock::Field field, uint64_t value) {
  m_block = m_block->with(field, value);
  testInvariant();
}

void KeyRecord_v1::setState(ks_keystate_t state) {
  checkState(state);
  change(Block::kState, static_cast<uint16_t>(state));
}

void KeyRecord_v1::setKpkType(ks_kpktype_t type) {
  checkKpkType(type);
  change(Block::kKpkType, static_cast<uint16_t>(type));
}

void KeyRecord_v1::setFields(std::string_view tag, std::string_view name, std::string_view keyGroup,
                             ks_keystate_t state, uint64_t updateTime, uint64_t createTime,
                             std::string_view description, uint32_t rev, ks_kpktype_t kpkType,
                             std::string_view kpkTag, std::string_view key) {
  KMS_TRACE_THIS("KeyRecord_v1::setFields");
  const Block::Integer updated(Block::kUpdateTime, updateTime);
  const Block::Integer created(Block::kCreateTime, createTime);
  const Block::Integer revision(Block::kRev, rev);
  const Block::Integer stateField(Block::kState, static_cast<uint16_t>(state));
  const Block::Integer kpkTypeField(Block::kKpkType, static_cast<uint16_t>(kpkType));
  checkState(state);
  checkKpkType(kpkType);
  m_block =
      Block::make({checked(Block::kTag, tag), checked(Block::kName, name), updated.view(),
                   created.view(), checked(Block::kDescription, description), revision.view(),
                   checked(Block::kKeyGroup, keyGroup), stateField.view(), kpkTypeField.view(),
                   checked(Block::kKpkTag, kpkTag), checked(Block::kKey, key)});
  testInvariant();
}

void KeyRecord_v1::addOrUpdateKRAttribute(std::string name, std::string value) {
  KMS_TRACE_THIS("KeyRecord_v1::addOrUpdateKRAttribute");
  if (!m_attrs.addAttribute(name, value)) {
    KMS_DEBUG("KeyRecord_v1::addOrUpdateKRAttribute", 1,
              "Attribute already exist: " << name << " = " << value);
    if (!m_attrs.updateAttribute(name, value)) {
      KMS_DEBUG("KeyRecord_v1::addOrUpdateKRAttribute", 1,
                "Unable to update attribute: " << name << " = " << value);
      KS_THROW(EC_KS_internal_error, "KeyRecord_v1::addOrUpdateKRAttribute");
    }
  }
  testInvariant();
}

bool KeyRecord_v1::operator==(const KeyRecord_v1& other) const {
  // Equal fields make equal blocks, digest included.
  return (&*m_block == &*other.m_block ||
          std::string_view(reinterpret_cast<const char*>(m_block->data()), m_block->size()) ==
              std::string_view(reinterpret_cast<const char*>(other.m_block->data()),
                               other.m_block->size())) &&
         m_attrs == other.m_attrs;
}

void KeyRecord_v1::testInvariant() const {
  // The block keeps the bounds of the byte strings.
  // The spacing inside the calls is part of the logged assertion text.
  // clang-format off
  KS_ASSERT("KeyRecord_v1::testInvariant", isKnownKeyState( state() ));
  KS_ASSERT("KeyRecord_v1::testInvariant", isKnownKpkType( kpkType() ));
  // clang-format on
}

void KeyRecord_v1::display(int number) const {
  KMS_TRACE_THIS("KeyRecord_v1::display");
  std::printf("\n>>>>>>>>>>>>>>>>>>> RECORD %d <<<<<<<<<<<<<<<<<<<<<<<<<\n\n", number);
  std::printf("Name : ");
  Utils::displayBuffer(name(), true, "", false);
  std::printf("Tag : ");
  Utils::displayBuffer(tag(), true, "", true);
  std::printf("Key Group : ");
  Utils::displayBuffer(keyGroup(), true, "", true);
  std::printf("Status : %s\n\n", Utils::keystateToString(state()).c_str());
  displaySharedFields(*this);
  std::printf("KPK Type : %s\n", Utils::kpkTypeToString(kpkType()).c_str());
  std::printf("KPK Tag : ");
  Utils::displayBuffer(kpkTag(), true, "", true);
  std::printf("Key : ");
  Utils::displayBuffer(key(), false, "", true);
  std::printf("Extended Attributes : ");
  m_attrs.display();
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
