#include "kms/platform/InstallRoot.h"

#include <cstdlib>

namespace InstallRoot {

std::string root() {
  const char* env = std::getenv("VREST_ROOT");
  if (env != nullptr && env[0] != '\0') {
    return env;
  }
  return "/usr/vrest";
}

std::string path(const std::string& relative) {
  std::string base = root();
  if (!base.empty() && base.back() == '/') {
    base.pop_back();
  }
  if (!relative.empty() && relative.front() == '/') {
    return base + relative;
  }
  return base + "/" + relative;
}

}  // namespace InstallRoot
