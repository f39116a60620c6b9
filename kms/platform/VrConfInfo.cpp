#include "kms/platform/VrConfInfo.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "kms/platform/VrConfReader.h"

namespace {

constexpr const char* kUseCxss = "USE_CXSS";
constexpr const char* kVerbose = "VERBOSE";
constexpr const char* kEmmServer = "EMM_SERVER";

// Serialises the read-modify-write of vrconf_set_info within this process.
std::mutex g_setMutex;

char* copyString(const std::string& s) {
  char* copy = static_cast<char*>(std::malloc(s.size() + 1));
  if (copy != nullptr) {
    std::memcpy(copy, s.c_str(), s.size() + 1);
  }
  return copy;
}

int readWholeFile(const std::string& path, std::string* text, struct stat* st) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  int rc = fstat(fd, st) == 0 ? 0 : errno;
  char buf[4096];
  while (rc == 0) {
    const ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0) {
      if (errno != EINTR) {
        rc = errno;
      }
      continue;
    }
    if (n == 0) {
      break;
    }
    text->append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return rc;
}

int writeAll(int fd, const std::string& data) {
  const char* p = data.data();
  size_t left = data.size();
  while (left > 0) {
    const ssize_t n = write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  return 0;
}

// Writes `text` to a temporary file beside `path`, syncs it and renames it
// over `path`. The temporary file is removed on failure.
int replaceFile(const std::string& path, const std::string& text, mode_t mode) {
  std::string tmp = path + ".XXXXXX";
  std::vector<char> name(tmp.begin(), tmp.end());
  name.push_back('\0');
  const int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  int rc = writeAll(fd, text);
  if (rc == 0 && fchmod(fd, mode) != 0) {
    rc = errno;
  }
  if (rc == 0 && fsync(fd) != 0) {
    rc = errno;
  }
  if (close(fd) != 0 && rc == 0) {
    rc = errno;
  }
  if (rc == 0 && rename(name.data(), path.c_str()) != 0) {
    rc = errno;
  }
  if (rc != 0) {
    unlink(name.data());
  }
  return rc;
}

// The value of one of the three names, as written to the file.
bool newValueOf(const std::string& name, const vrconf_info_t& info, std::string* value) {
  if (name == kUseCxss) {
    *value = std::to_string(info.use_cxss);
  } else if (name == kVerbose) {
    *value = std::to_string(info.verbose);
  } else if (name == kEmmServer) {
    *value = info.emm_server != nullptr ? info.emm_server : "";
  } else {
    return false;
  }
  return true;
}

}  // namespace

int vrconf_get_info(vrconf_info_t* info) {
  if (info == nullptr) {
    return EINVAL;
  }
  *info = vrconf_info_t{};
  VrConfReader reader;
  const int rc = reader.read(VR_master_config_path());
  if (rc != 0) {
    return rc;
  }
  char* server = copyString(reader.get(kEmmServer, kVrconfDefaultEmmServer));
  if (server == nullptr) {
    return ENOMEM;
  }
  info->use_cxss = static_cast<int>(reader.getInt(kUseCxss, kVrconfDefaultUseCxss));
  info->verbose = static_cast<int>(reader.getInt(kVerbose, kVrconfDefaultVerbose));
  info->emm_server = server;
  return 0;
}

int vrconf_set_info(const vrconf_info_t* info) {
  if (info == nullptr) {
    return EINVAL;
  }
  if (info->emm_server != nullptr && std::strpbrk(info->emm_server, "\r\n") != nullptr) {
    return EINVAL;
  }
  std::lock_guard<std::mutex> lock(g_setMutex);
  const std::string path = VR_master_config_path();
  std::string text;
  struct stat st;
  int rc = readWholeFile(path, &text, &st);
  if (rc != 0) {
    return rc;
  }

  std::string out;
  bool seenUseCxss = false;
  bool seenVerbose = false;
  bool seenEmmServer = false;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t end = text.find('\n', pos);
    const bool hasNewline = end != std::string::npos;
    if (!hasNewline) {
      end = text.size();
    }
    std::string line = text.substr(pos, end - pos);
    const bool hasCr = !line.empty() && line.back() == '\r';
    std::string name;
    std::string oldValue;
    std::string value;
    if (VrConfReader::parseLine(line, &name, &oldValue) == VrConfReader::kEntry &&
        newValueOf(name, *info, &value)) {
      seenUseCxss |= name == kUseCxss;
      seenVerbose |= name == kVerbose;
      seenEmmServer |= name == kEmmServer;
      line = name + " = " + value + (hasCr ? "\r" : "");
    }
    out += line;
    if (hasNewline) {
      out += '\n';
    }
    pos = end + 1;
  }
  if (!out.empty() && out.back() != '\n' && (!seenUseCxss || !seenVerbose || !seenEmmServer)) {
    out += '\n';
  }
  for (const char* name : {kUseCxss, kVerbose, kEmmServer}) {
    const bool seen = name == kUseCxss   ? seenUseCxss
                      : name == kVerbose ? seenVerbose
                                         : seenEmmServer;
    std::string value;
    if (!seen && newValueOf(name, *info, &value)) {
      out += std::string(name) + " = " + value + "\n";
    }
  }
  return replaceFile(path, out, st.st_mode & 07777);
}

void vrconf_free_info(vrconf_info_t* info) {
  if (info == nullptr) {
    return;
  }
  std::free(info->emm_server);
  *info = vrconf_info_t{};
}
