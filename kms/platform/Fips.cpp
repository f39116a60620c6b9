#include "kms/platform/Fips.h"

#include <openssl/evp.h>

#include <cctype>
#include <string>

#include "kms/platform/VrConfReader.h"

int getFIPSModeForProcess(const char* name) {
  if (name == nullptr || name[0] == '\0') {
    return 0;
  }
  std::string key;
  for (const char* p = name; *p != '\0'; ++p) {
    key += static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
  }
  key += "_FIPS";

  bool fips = false;
  if (auto config = get_master_config_ptr()) {
    config->reader.getBool(key, &fips);
  } else {
    VrConfReader reader;
    if (reader.read(VR_master_config_path()) == 0) {
      reader.getBool(key, &fips);
    }
  }
  return fips ? 1 : 0;
}

int FIPS_mode() {
  return EVP_default_properties_is_fips_enabled(nullptr) != 0 ? 1 : 0;
}
