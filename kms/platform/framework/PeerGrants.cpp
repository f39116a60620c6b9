#include "kms/platform/framework/PeerGrants.h"

#include <pwd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>

#include "kms/platform/Digits.h"
#include "kms/platform/VrConfReader.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

using CmnText::allDigits;

// The uid a "uid:" target names: a number, or a user name looked up now.
bool uidOf(const std::string& user, uid_t* uid, std::string* why) {
  if (allDigits(user)) {
    errno = 0;
    const unsigned long number = std::strtoul(user.c_str(), nullptr, 10);
    if (errno != 0 || number > static_cast<uid_t>(-2)) {
      *why = "the uid " + user + " is out of range";
      return false;
    }
    *uid = static_cast<uid_t>(number);
    return true;
  }
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  if (user.empty() ||
      ::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    *why = "there is no user \"" + user + "\"";
    return false;
  }
  *uid = found->pw_uid;
  return true;
}

}  // namespace

bool PeerGrants::read(const VrConfReader& config, const std::string& name, PeerGrants* grants,
                      std::string* error) {
  std::vector<Grant> read;
  for (const std::string& value : config.getAll(name)) {
    Grant grant;
    std::string why;
    if (!parse(value, &grant, &why)) {
      *error = "the line \"" + name + " = " + value + "\" cannot be read: " + why;
      return false;
    }
    read.push_back(std::move(grant));
  }
  *grants = PeerGrants(std::move(read));
  return true;
}

bool PeerGrants::parse(const std::string& value, Grant* grant, std::string* why) {
  std::istringstream words(value);
  Grant parsed;
  std::string target;
  if (!(words >> target)) {
    *why = "it names no peer";
    return false;
  }
  if (target.compare(0, 4, "uid:") == 0) {
    uid_t uid = 0;
    if (!uidOf(target.substr(4), &uid, why)) {
      return false;
    }
    parsed.kind = PeerTransport::kLocal;
    parsed.target = localIdentityName(uid);
  } else if (target.compare(0, 5, "cert:") == 0) {
    if (target.size() == 5) {
      *why = "the certificate subject is empty";
      return false;
    }
    parsed.kind = PeerTransport::kTls;
    parsed.target = target;
  } else if (target == "*") {
    parsed.kind = PeerTransport::kTcp;
    parsed.target = target;
  } else {
    parsed.kind = PeerTransport::kTcp;
    parsed.target = canonicalAddress(target);
    if (parsed.target.empty()) {
      *why = "\"" + target + "\" is neither uid:USER, cert:SUBJECT, a numeric address nor \"*\"";
      return false;
    }
  }
  std::string list;
  for (std::string word; words >> word;) {
    list += word;
  }
  std::istringstream items(list);
  for (std::string item; std::getline(items, item, ',');) {
    if (item.empty()) {
      continue;
    }
    errno = 0;
    const long right = std::strtol(item.c_str(), nullptr, 10);
    if (!allDigits(item) || errno != 0 || right > 1000000) {
      *why = "\"" + item + "\" is no right number";
      return false;
    }
    parsed.rights.push_back(static_cast<int>(right));
  }
  if (parsed.rights.empty()) {
    *why = "it names no right";
    return false;
  }
  *grant = std::move(parsed);
  return true;
}

PeerRights PeerGrants::rightsOf(const PeerIdentity& peer, uid_t serviceUid) const {
  if (peer.name.empty() || peer.transport == PeerTransport::kNone) {
    return PeerRights();
  }
  if (peer.transport == PeerTransport::kLocal &&
      (peer.name == localIdentityName(0) || peer.name == localIdentityName(serviceUid))) {
    return PeerRights::all();
  }
  std::set<int> held;
  for (const Grant& grant : m_grants) {
    if (grant.kind == peer.transport && (grant.target == peer.name || grant.target == "*")) {
      held.insert(grant.rights.begin(), grant.rights.end());
    }
  }
  return PeerRights::of(std::move(held));
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
