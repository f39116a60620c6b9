#include "kms/server/RecordConvertor.h"

#include <gtest/gtest.h>

#include <string>

#include "kms/server/diagnostics/KeyStoreError.h"
#include "support/LogCapture.h"

using Ardentis::Vaultrest::DL::KMS::RecordConvertor;
namespace Wire = Ardentis::Vaultrest::DL::KMSFacetsV1;
namespace Store = Vaultrest::DL::KMS;

namespace {

const int64_t kEpochTicks = 122192928000000000LL;

std::string times32(const std::string& pair) {
  std::string text;
  for (int i = 0; i < 32; ++i) {
    text += pair;
  }
  return text;
}

}  // namespace

// Times count 100 ns ticks from the Gregorian reform: whole seconds round
// trip, below a second is lost going in.
TEST(RecordConvertor, KeyRecordCrossesTheBorderBothWays) {
  EXPECT_EQ(RecordConvertor::toKsTime(kEpochTicks + 10000000LL * 5 + 9999999), 5u);
  EXPECT_EQ(RecordConvertor::toKsTime(RecordConvertor::toIdlTime(4102444800)), 4102444800u);
  Store::KeyRecord_v1 rec;
  rec.setFields(times32("\x01") + "\xff", "key one", times32("\xab"), Store::KEY_ACTIVE, 1700000001,
                1700000000, "the description", 7, Store::KPK_LOCAL, times32("\x7f"), "");
  rec.attributes().addAttribute("b-name", "two");
  rec.attributes().addAttribute("a-name", "one");
  Wire::KeyRecord_var wire = RecordConvertor::toIdlKeyRecord(rec);
  EXPECT_EQ(wire->createTime, kEpochTicks + 1700000000LL * 10000000LL);
  EXPECT_EQ(wire->updateTime, kEpochTicks + 1700000001LL * 10000000LL);
  EXPECT_EQ(std::string(wire->tag.in()), times32("01") + "ff");
  EXPECT_EQ(wire->encKey.length(), 0u);  // a filtered record carries no key
  ASSERT_EQ(wire->attributeList.length(), 2u);
  EXPECT_STREQ(wire->attributeList[0].name, "a-name");  // the list's order
  // Any field lost or changed on one way shows on the way back.
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()), rec);

  wire->encKey.length(3);
  wire->encKey[0] = 0;
  wire->encKey[1] = 0xff;
  wire->encKey[2] = 0x10;
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).key(), std::string("\x00\xff\x10", 3));
  // A tag that is not strict hexadecimal arrives as no tag at all.
  wire->tag = "ABCDEF";
  wire->keyGroup = "abc";
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).tag(), "");
  EXPECT_EQ(RecordConvertor::toKsKeyRecord(wire.in()).keyGroup(), "");

  // Long names are cut, unknown enumerations refused.
  LogCapture log;
  wire->name = std::string(5000, 'n').c_str();
  wire->description = std::string(4097, 'd').c_str();
  const Store::KeyRecord_v1 cut = RecordConvertor::toKsKeyRecord(wire.in());
  EXPECT_EQ(cut.name(), std::string(4096, 'n'));
  EXPECT_EQ(cut.description(), std::string(4096, 'd'));
  for (const char* text :
       {"KeyRecord_v1::setName: Encountered Name of size 5000. Truncating to 4096",
        "Encountered Description of size 4097"}) {
    EXPECT_EQ(LogCapture::containing(log.debugLines(), text).size(), 1u) << text;
  }
  for (int state : {6, -1}) {
    wire->state = state;
    try {
      RecordConvertor::toKsKeyRecord(wire.in());
      ADD_FAILURE() << state;
    } catch (const Store::KeyStoreError& e) {
      EXPECT_EQ(e.status(), 1214);
    }
  }
  Wire::KeyGroupRecord group;
  group.type = 9;
  EXPECT_THROW(RecordConvertor::toKsKeyGroupRecord(group), Store::KeyStoreError);
}
