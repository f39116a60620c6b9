#include "kms/platform/VrConfReader.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>

#include "kms/platform/FileStamp.h"
#include "kms/platform/InstallRoot.h"

namespace {

std::string trim(const std::string& s) {
  size_t b = 0;
  size_t e = s.size();
  while (b < e && std::isspace(static_cast<unsigned char>(s[b]))) {
    ++b;
  }
  while (e > b && std::isspace(static_cast<unsigned char>(s[e - 1]))) {
    --e;
  }
  return s.substr(b, e - b);
}

std::string upper(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  return s;
}

std::mutex g_configMutex;  // guards the four below
std::shared_ptr<const VrMasterConfig> g_config;
std::string g_configPath;  // of the copy held, with its stamp and the time it was read
FileStamp g_configStamp;
timespec g_configReadAt{};

}  // namespace

int VrConfReader::read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    return errno != 0 ? errno : ENOENT;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    return EIO;
  }
  parse(text.str());
  return 0;
}

VrConfReader::LineKind VrConfReader::parseLine(const std::string& line, std::string* name,
                                               std::string* value) {
  const std::string t = trim(line);
  if (t.empty() || t[0] == '#') {
    return kSkip;
  }
  const size_t eq = t.find('=');
  if (eq == std::string::npos) {
    return kBad;
  }
  std::string n = trim(t.substr(0, eq));
  if (n.empty() || n.find_first_of(" \t") != std::string::npos) {
    return kBad;
  }
  *name = std::move(n);
  *value = trim(t.substr(eq + 1));
  return kEntry;
}

void VrConfReader::parse(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line)) {
    std::string name;
    std::string value;
    switch (parseLine(line, &name, &value)) {
      case kEntry:
        m_entries.emplace_back(std::move(name), std::move(value));
        break;
      case kBad:
        ++m_badLines;
        break;
      case kSkip:
        break;
    }
  }
}

std::string VrConfReader::get(const std::string& name, const std::string& fallback) const {
  for (const auto& entry : m_entries) {
    if (entry.first == name) {
      return entry.second;
    }
  }
  return fallback;
}

std::vector<std::string> VrConfReader::getAll(const std::string& name) const {
  std::vector<std::string> values;
  for (const auto& entry : m_entries) {
    if (entry.first == name) {
      values.push_back(entry.second);
    }
  }
  return values;
}

bool VrConfReader::has(const std::string& name) const {
  return std::any_of(m_entries.begin(), m_entries.end(),
                     [&](const auto& entry) { return entry.first == name; });
}

bool VrConfReader::parseBool(const std::string& text, bool* value) {
  const std::string v = upper(trim(text));
  if (v == "YES" || v == "TRUE" || v == "1") {
    *value = true;
    return true;
  }
  if (v == "NO" || v == "FALSE" || v == "0") {
    *value = false;
    return true;
  }
  return false;
}

bool VrConfReader::getBool(const std::string& name, bool* value) const {
  if (!has(name)) {
    return false;
  }
  return parseBool(get(name), value);
}

long VrConfReader::getInt(const std::string& name, long fallback) const {
  if (!has(name)) {
    return fallback;
  }
  const std::string v = get(name);
  char* end = nullptr;
  errno = 0;
  long n = std::strtol(v.c_str(), &end, 10);
  if (v.empty() || errno != 0 || end == nullptr || *end != '\0') {
    return fallback;
  }
  return n;
}

std::string VR_master_config_path() {
  return InstallRoot::path("etc/vr.conf");
}

int VR_read_master_config() {
  const std::string path = VR_master_config_path();
  FileStamp seen;
  const timespec readAt = FileStamp::now();
  if (FileStamp::of(path, &seen)) {
    std::lock_guard<std::mutex> lock(g_configMutex);
    if (g_config && path == g_configPath && seen == g_configStamp &&
        !g_configStamp.racy(g_configReadAt)) {
      return 0;
    }
  }
  auto config = std::make_shared<VrMasterConfig>();
  int rc = config->reader.read(path);
  std::lock_guard<std::mutex> lock(g_configMutex);
  if (rc != 0) {
    g_config.reset();
    g_configStamp = FileStamp();
    return rc;
  }
  g_configPath = path;
  g_configStamp = seen;
  g_configReadAt = readAt;
  config->servers = config->reader.getAll("SERVER");
  config->kmsDir = config->reader.get("KMS_DIR");
  config->vrkmsEndpoint = config->reader.get("VRKMS_ENDPOINT");
  g_config = std::move(config);
  return 0;
}

std::shared_ptr<const VrMasterConfig> get_master_config_ptr() {
  std::lock_guard<std::mutex> lock(g_configMutex);
  return g_config;
}

int vrconfGetKeyValPairAsBool(const char* name, bool* value) {
  auto config = get_master_config_ptr();
  if (!config || name == nullptr || value == nullptr) {
    return -1;
  }
  return config->reader.getBool(name, value) ? 0 : -1;
}
