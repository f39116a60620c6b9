#include "support/TempRoot.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

TempRoot::TempRoot(const std::string& prefix) {
  const char* tmp = getenv("TMPDIR");
  m_path = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/" + prefix + "-XXXXXX";
  if (mkdtemp(m_path.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + m_path);
  }
}

TempRoot::~TempRoot() {
  std::error_code ec;
  std::filesystem::permissions(m_path, std::filesystem::perms::owner_all,
                               std::filesystem::perm_options::add, ec);
  std::filesystem::remove_all(m_path, ec);
}

void TempRoot::exportAsVrestRoot() const {
  setenv("VREST_ROOT", m_path.c_str(), 1);
}

bool exists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::string& bytes, int mode) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  if (mode >= 0) {
    ::chmod(path.c_str(), static_cast<mode_t>(mode));
  }
}
