// Reader of the product's master configuration: a text file of "NAME = VALUE"
// lines, "#" comments, names case-sensitive, names may repeat (SERVER does; the
// first SERVER is the master server).
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

// One parsed master configuration. A value type: copies are independent.
class VrConfReader {
 public:
  // Parses the file at `path`. Returns 0 on success, or the errno of the failed
  // open/read (never throws). Lines that are neither blank, comment nor
  // "NAME = VALUE" are counted in badLines() and skipped.
  [[nodiscard]] int read(const std::string& path);

  // Parses text directly (same rules as read()).
  void parse(const std::string& text);

  // The first value of `name`, or `fallback` when absent.
  std::string get(const std::string& name, const std::string& fallback = "") const;
  // Every value of `name`, in file order.
  std::vector<std::string> getAll(const std::string& name) const;
  bool has(const std::string& name) const;
  // The SERVER values in file order; the first is the master server. Empty
  // when the configuration names no server.
  std::vector<std::string> servers() const { return getAll("SERVER"); }
  // YES/NO, TRUE/FALSE, 1/0 in any case. Returns false and leaves *value alone
  // when the name is absent or the value is none of these.
  bool getBool(const std::string& name, bool* value) const;
  // A decimal integer value; `fallback` when absent or malformed.
  long getInt(const std::string& name, long fallback) const;

  int badLines() const { return m_badLines; }
  const std::vector<std::pair<std::string, std::string>>& entries() const { return m_entries; }

  // Parses a boolean text as getBool() does.
  static bool parseBool(const std::string& text, bool* value);

  // Classifies one line of the file. Returns kEntry and fills *name and *value
  // (both trimmed) for "NAME = VALUE", kSkip for a blank or comment line, kBad
  // for anything else. Writers use it to find the lines they rewrite.
  enum LineKind { kEntry, kSkip, kBad };
  static LineKind parseLine(const std::string& line, std::string* name, std::string* value);

 private:
  std::vector<std::pair<std::string, std::string>> m_entries;
  int m_badLines = 0;
};

// The values of the master configuration that the service uses.
struct VrMasterConfig {
  VrConfReader reader;
  std::vector<std::string> servers;  // SERVER lines in order; servers[0] is the master
  std::string kmsDir;                // KMS_DIR: root directory of the key store
  std::string vrkmsEndpoint;         // VRKMS_ENDPOINT: ORB endpoint of the service
};

// Path of the master configuration: $VREST_ROOT/etc/vr.conf.
std::string VR_master_config_path();

// Reads the master configuration into the process-wide copy. Returns 0 on
// success, non-zero when the file is missing or unreadable (the previous copy,
// if any, is dropped). The file is read again only when its stamp changed
// (FileStamp.h): while it stays as it was, a call costs one stat.
// Thread-safe; never throws.
int VR_read_master_config();

// The copy read by the last successful VR_read_master_config(), or null. The
// pointer stays valid for as long as the caller holds it.
std::shared_ptr<const VrMasterConfig> get_master_config_ptr();

// The boolean value of `name` in the process-wide copy. Returns 0 and sets
// *value when present and well-formed; non-zero otherwise (*value untouched).
[[nodiscard]] int vrconfGetKeyValPairAsBool(const char* name, bool* value);
