// The border between the wire records of the remote interface and the
// store's records. Tags cross it as lower-case hexadecimal (wire) and raw
// bytes (store); times as 100-nanosecond ticks from 15 October 1582 (wire)
// and seconds since the Epoch (store). Nothing else changes its form.
//
// Static functions, no state, any thread. The toKs* conversions throw
// KeyStoreError 1214 where a record setter refuses a value (an unknown state,
// KPK type or cipher type; an over-long tag or key); a tag that is not
// strict hexadecimal becomes the empty string without a report. Names and
// descriptions over 4096 bytes are cut (and logged), not refused. A broken
// assertion aborts the process.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include <KMS.h>

#include "kms/server/keystore/records/KeyGrpRecord_v1.h"
#include "kms/server/keystore/records/KeyRecord_v1.h"
#include "kms/server/keystore/store/KSOpStatus.h"

namespace Ardentis {
namespace Vaultrest {
namespace DL {
namespace KMS {

class RecordConvertor {
 public:
  // Seconds between 15 October 1582 and 1 January 1970.
  static constexpr int64_t kGregorianOffsetSeconds = 12219292800LL;
  static constexpr int64_t kTicksPerSecond = 10000000LL;

  // Store records to wire records. The pointer forms give a new record that
  // the caller owns (put it in a _var); the reference forms fill `out`.
  static KMSFacetsV1::KeyRecord* toIdlKeyRecord(const ::Vaultrest::DL::KMS::KeyRecord_v1& rec);
  static void toIdlKeyRecord(const ::Vaultrest::DL::KMS::KeyRecord_v1& rec,
                             KMSFacetsV1::KeyRecord& out);
  static KMSFacetsV1::KeyGroupRecord* toIdlKeyGroupRecord(
      const ::Vaultrest::DL::KMS::KeyGrpRecord_v1& rec);
  static void toIdlKeyGroupRecord(const ::Vaultrest::DL::KMS::KeyGrpRecord_v1& rec,
                                  KMSFacetsV1::KeyGroupRecord& out);
  static KMSFacetsV1::KSOpStatus* toIdlKSOpStatus(const ::Vaultrest::DL::KMS::KSOpStatus& status);

  // Wire records to store records. `stat` of a group record is not read.
  static ::Vaultrest::DL::KMS::KeyRecord_v1 toKsKeyRecord(const KMSFacetsV1::KeyRecord& record);
  static ::Vaultrest::DL::KMS::KeyGrpRecord_v1 toKsKeyGroupRecord(
      const KMSFacetsV1::KeyGroupRecord& record);

  // Strict: only '0'-'9' and 'a'-'f', even length; anything else gives "".
  static std::string hexToBin(const std::string& text);
  // Two lower-case digits per byte, high nibble first.
  static std::string binToHex(std::string_view bytes);
  // The lower-case digit of a nibble 0..15.
  static char toAscii(char nibble);

  // (offset + seconds) * 10^7.
  static int64_t toIdlTime(uint64_t seconds);
  // ticks / 10^7 (remainder dropped) - offset.
  static uint64_t toKsTime(int64_t ticks);
};

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
}  // namespace Ardentis
