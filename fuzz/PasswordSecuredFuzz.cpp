// Fuzzes ReaderWriter::readDataPasswordSecured with the passphrase "fuzz".
// Layout of an input:
//
//   byte 0     bit 0 set: seal the rest first, then open it
//   the rest   a block to open, or the data to seal
//
// Blocks are made with salt scheme 3 (2 iterations); a block whose salt
// names a slow scheme is skipped, so that an input costs microseconds.
//
// Checks: opening gives 0 or one of 1208, 1218, 1284 (and 1200 only for a
// block under the right passphrase whose ciphertext is bad, which mutation
// cannot forge); a failure leaves the output untouched; a sealed block opens
// to its data and refuses another passphrase with 1284.
#include <cstddef>
#include <cstdint>
#include <string>

#include "FormatFuzzUtil.h"
#include "kms/server/keystore/crypto/KeyGen.h"
#include "kms/server/keystore/format/ReaderWriter.h"
#include "kms/server/keystore/format/SecuredDataHeader.h"

using namespace Vaultrest::DL::KMS;
using formatfuzz::check;
using formatfuzz::statusOf;
using formatfuzz::written;

namespace {

const std::string kPassphrase = "fuzz";

int open(const std::string& block, const std::string& passphrase, std::string& data) {
  KSInputBuffer in(block);
  return statusOf([&] { ReaderWriter::readDataPasswordSecured(in, passphrase, data); });
}

// Whether the reader would stretch the passphrase with 500000 iterations:
// the steps in front of the derivation, done the same way.
bool slowSalt(const std::string& block) {
  KSInputBuffer in(block);
  unsigned char buf[64];
  AttributeList list;
  const int status = statusOf([&] {
    ReaderWriter::readRecordField(in, buf, 64);
    ReaderWriter::readRecordField(in, buf, 4);
    ReaderWriter::readAttributeList(in, list);
  });
  if (status != 0) {
    return false;
  }
  SecuredDataHeader* header = nullptr;
  if (statusOf([&] { header = new SecuredDataHeader(list); }) != 0) {
    return false;
  }
  const std::string salt = header->salt();
  delete header;
  return salt.size() == KeyGen::SALT_LEN && salt[0] == static_cast<char>(KeyGen::SALT_MARKER) &&
         (salt[1] == KeyGen::SCHEME_SHA1 || salt[1] == KeyGen::SCHEME_SHA512);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  KeyGen::s_use_weak_kdf = true;
  if (size == 0) {
    return 0;
  }
  const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
  if ((data[0] & 1) != 0) {
    const std::string block = written(
        [&](KSOutStream& out) { ReaderWriter::writeDataPasswordSecured(out, kPassphrase, rest); });
    std::string plain;
    check(open(block, kPassphrase, plain) == 0 && plain == rest);
    std::string other = "untouched";
    check(open(block, "other", other) == 1284 && other == "untouched");
    return 0;
  }
  if (slowSalt(rest)) {
    return 0;
  }
  std::string plain = "untouched";
  const int status = open(rest, kPassphrase, plain);
  check(status == 0 || status == 1208 || status == 1218 || status == 1284 || status == 1200);
  if (status != 0) {
    check(plain == "untouched");
  }
  return 0;
}
