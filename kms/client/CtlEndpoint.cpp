#include "kms/client/CtlEndpoint.h"

#include <cctype>
#include <memory>

#include "kms/client/CtlCommandLine.h"
#include "kms/platform/Digits.h"
#include "kms/platform/InstallRoot.h"
#include "kms/platform/framework/Orb.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace {

bool startsWithNoCase(const std::string& text, const std::string& prefix) {
  if (text.size() < prefix.size()) {
    return false;
  }
  for (size_t i = 0; i < prefix.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

using CmnText::allDigits;

}  // namespace

std::string CtlEndpoint::toReference(const std::string& given) {
  if (startsWithNoCase(given, "corbaloc:") || startsWithNoCase(given, "corbaname:") ||
      startsWithNoCase(given, "IOR:")) {
    return given;
  }
  std::string address = given;
  std::string protocol = ":";
  if (startsWithNoCase(address, "giop:unix:") && address.size() > 10) {
    return "corbaloc:omniunix:" + address.substr(10) + ":/" + kObjectId;
  }
  if (startsWithNoCase(address, "giop:tcp:")) {
    address = address.substr(9);
  } else if (startsWithNoCase(address, "giop:ssl:")) {
    address = address.substr(9);
    protocol = "ssliop:";
  } else if (startsWithNoCase(address, "giop:")) {
    throw UsageError("cannot reach an endpoint of this transport: " + given);
  }
  const size_t colon = address.rfind(':');
  if (colon == std::string::npos || !allDigits(address.substr(colon + 1))) {
    throw UsageError("no port in the endpoint " + given);
  }
  std::string host = address.substr(0, colon);
  const std::string port = address.substr(colon + 1);
  if (host.empty() || host == "0.0.0.0") {
    host = "127.0.0.1";
  } else if (host == "[::]" || host == "::") {
    host = "[::1]";
  } else if (host.find(':') != std::string::npos && host.front() != '[') {
    host = "[" + host + "]";
  }
  return "corbaloc:" + protocol + host + ":" + port + "/" + kObjectId;
}

std::string CtlEndpoint::configuredReference() {
  return toReference("giop:unix:" + InstallRoot::path("var/vrkms/") +
                     ::Ardentis::Vaultrest::TL::Framework::Orb::kLocalSocket);
}

bool CtlEndpoint::isLocal(const std::string& reference) {
  return startsWithNoCase(reference, "corbaloc:omniunix:");
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
