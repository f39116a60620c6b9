#include "kms/platform/framework/Orb.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/RequestGuard.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

// Makes `dir` and its parents (mode 0700 for new ones).
bool makeDirectories(const std::string& dir) {
  for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
    const std::string part = dir.substr(0, slash);
    if (!part.empty() && ::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      return false;
    }
    if (slash == std::string::npos) {
      return true;
    }
  }
}

// Makes the directory of the local socket private: a directory (not a
// link) of this process's user, mode 0700, with no socket left in it from
// an earlier run. False (logged) when it cannot be.
bool prepareLocalSocket(const std::string& socketPath) {
  const std::string dir = socketPath.substr(0, socketPath.rfind('/'));
  if (!makeDirectories(dir)) {
    FW_DEBUG("Orb::init", 1, "Cannot create the directory " << dir);
    return false;
  }
  struct stat info;
  if (::lstat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid()) {
    FW_DEBUG("Orb::init", 1,
             "The directory " << dir << " of the local endpoint is no directory of this user");
    return false;
  }
  if ((info.st_mode & 07777) != 0700 && ::chmod(dir.c_str(), 0700) != 0) {
    FW_DEBUG("Orb::init", 1, "Cannot make the directory " << dir << " private");
    return false;
  }
  if (::unlink(socketPath.c_str()) != 0 && errno != ENOENT) {
    FW_DEBUG("Orb::init", 1, "Cannot remove the old socket " << socketPath);
    return false;
  }
  return true;
}

}  // namespace

int Orb::init(int argc, char** argv, const std::string& endpoint, const std::string& runDir,
              const std::string& localSocket) {
  FW_TRACE_THIS("Orb::init");
  const std::string where = endpoint.empty() ? kDefaultEndpoint : endpoint;
  m_runDir = runDir;
  if (!runDir.empty() && !makeDirectories(runDir)) {
    FW_DEBUG("Orb::init", 1, "Cannot create the directory " << runDir);
    return -1;
  }
  if (!localSocket.empty() && !prepareLocalSocket(localSocket)) {
    return -1;
  }
  const std::string local = "giop:unix:" + localSocket;
  // The ORB takes its own options out of the vector it is given.
  std::vector<char*> args(argv, argv + argc);
  args.push_back(nullptr);
  int count = argc;
  // strictIIOP off: the ORB skips bytes left after a request's arguments
  // instead of failing the connection, a road on which it loses the
  // request's buffers (about 8 KiB for every such request a peer sends).
  const char* fixed[][2] = {
      {"endPoint", where.c_str()}, {"strictIIOP", "0"}, {"giopMaxMsgSize", kMaxMessageSize}};
  const size_t fixedCount = sizeof fixed / sizeof fixed[0];
  auto options = std::make_unique<const char*[][2]>(fixedCount + m_options.size() + 2);
  size_t used = 0;
  for (const auto& option : fixed) {
    options[used][0] = option[0];
    options[used++][1] = option[1];
  }
  if (!localSocket.empty()) {
    options[used][0] = "endPoint";
    options[used++][1] = local.c_str();
  }
  for (const auto& option : m_options) {
    options[used][0] = option.first.c_str();
    options[used++][1] = option.second.c_str();
  }
  options[used][0] = nullptr;
  options[used][1] = nullptr;
  try {
    m_orb = CORBA::ORB_init(count, args.data(), "omniORB4", options.get());
    RequestGuard::install();
    CORBA::Object_var root = m_orb->resolve_initial_references("RootPOA");
    m_rootPoa = PortableServer::POA::_narrow(root);
    CORBA::Object_var ins = m_orb->resolve_initial_references("omniINSPOA");
    m_insPoa = PortableServer::POA::_narrow(ins);
    PortableServer::POAManager_var rootManager = m_rootPoa->the_POAManager();
    rootManager->activate();
    PortableServer::POAManager_var insManager = m_insPoa->the_POAManager();
    insManager->activate();
  } catch (const CORBA::Exception& e) {
    FW_DEBUG("Orb::init", 1, "The ORB did not start on " << where << ": " << e._name());
    if (!CORBA::is_nil(m_orb.in())) {
      RequestGuard::remove();
      try {
        m_orb->destroy();
      } catch (...) {
      }
    }
    m_insPoa = PortableServer::POA::_nil();
    m_rootPoa = PortableServer::POA::_nil();
    m_orb = CORBA::ORB::_nil();
    return -1;
  }
  FW_DEBUG("Orb::init", 1,
           "The ORB listens on " << where << (localSocket.empty() ? "" : " and ")
                                 << (localSocket.empty() ? "" : local));
  return 0;
}

void Orb::addOption(const std::string& name, const std::string& value) {
  m_options.emplace_back(name, value);
}

CORBA::Object_ptr Orb::activateServant(PortableServer::Servant servant) {
  FW_TRACE_THIS("Orb::activateServant");
  PortableServer::ObjectId_var id = m_rootPoa->activate_object(servant);
  return m_rootPoa->id_to_reference(id.in());
}

int Orb::advertiseObject(const char* objectId, CORBA::Object_ptr ref) {
  FW_TRACE_THIS("Orb::advertiseObject");
  try {
    // reference_to_servant hands out a reference of its own on the
    // servant; the _var gives it back, so that only the POAs hold it.
    PortableServer::Servant_var<PortableServer::ServantBase> servant =
        m_rootPoa->reference_to_servant(ref);
    PortableServer::ObjectId_var oid = PortableServer::string_to_ObjectId(objectId);
    m_insPoa->activate_object_with_id(oid.in(), servant.in());
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_advertised[objectId] = servant.in();
    }
    CORBA::Object_var advertised = m_insPoa->id_to_reference(oid.in());
    CORBA::String_var ior = m_orb->object_to_string(advertised.in());
    const std::string path = iorFilePath(objectId);
    // Written beside the file, synced and renamed over it, then the
    // directory synced: a client never reads half a reference, nor an old
    // one after a loss of power. Nothing planted under the new name is
    // followed.
    const std::string temporary = path + ".new";
    const std::string text = std::string(ior.in()) + "\n";
    ::unlink(temporary.c_str());
    const int fd =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    const bool written =
        fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        ::fsync(fd) == 0;
    if (fd >= 0) {
      ::close(fd);
    }
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
      FW_DEBUG("Orb::advertiseObject", 1, "Cannot write " << path << ": errno " << errno);
      ::unlink(temporary.c_str());
    } else {
      const std::string dir = path.substr(0, path.find_last_of('/') + 1);
      const int dirFd = ::open(dir.empty() ? "." : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
      }
    }
  } catch (const CORBA::Exception& e) {
    FW_DEBUG("Orb::advertiseObject", 1, "Cannot advertise " << objectId << ": " << e._name());
    return -1;
  }
  FW_DEBUG("Orb::advertiseObject", 1, "Advertised " << objectId);
  return 0;
}

int Orb::destroyObjectRef(CORBA::Object_ptr ref) {
  FW_TRACE_THIS("Orb::destroyObjectRef");
  if (CORBA::is_nil(ref) || CORBA::is_nil(m_rootPoa.in()) || m_shutDown) {
    return -1;
  }
  try {
    const PortableServer::Servant_var<PortableServer::ServantBase> servant =
        m_rootPoa->reference_to_servant(ref);
    std::string advertisedId;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      for (auto it = m_advertised.begin(); it != m_advertised.end(); ++it) {
        if (it->second == servant.in()) {
          advertisedId = it->first;
          m_advertised.erase(it);
          break;
        }
      }
    }
    if (!advertisedId.empty()) {
      PortableServer::ObjectId_var oid = PortableServer::string_to_ObjectId(advertisedId.c_str());
      m_insPoa->deactivate_object(oid.in());
      ::unlink(iorFilePath(advertisedId).c_str());
    }
    PortableServer::ObjectId_var id = m_rootPoa->reference_to_id(ref);
    m_rootPoa->deactivate_object(id.in());
  } catch (const CORBA::Exception& e) {
    FW_DEBUG("Orb::destroyObjectRef", 1, "Cannot deactivate an object: " << e._name());
    return -1;
  }
  return 0;
}

PeerTSSResources* Orb::getTSSResources() const {
  return m_useTSSResources ? RequestGuard::currentRequest() : nullptr;
}

void Orb::shutdown(bool wait) {
  FW_TRACE_THIS("Orb::shutdown");
  if (CORBA::is_nil(m_orb.in()) || m_shutDown) {
    return;
  }
  m_shutDown = true;
  std::map<std::string, PortableServer::Servant> advertised;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    advertised.swap(m_advertised);
  }
  for (const auto& entry : advertised) {
    ::unlink(iorFilePath(entry.first).c_str());
  }
  try {
    m_orb->shutdown(wait);
  } catch (const CORBA::Exception& e) {
    FW_DEBUG("Orb::shutdown", 1, "ORB shutdown failed: " << e._name());
  }
}

void Orb::destroy() {
  FW_TRACE_THIS("Orb::destroy");
  if (CORBA::is_nil(m_orb.in())) {
    return;
  }
  RequestGuard::remove();
  try {
    m_orb->destroy();
  } catch (const CORBA::Exception& e) {
    FW_DEBUG("Orb::destroy", 1, "ORB destroy failed: " << e._name());
  }
  m_insPoa = PortableServer::POA::_nil();
  m_rootPoa = PortableServer::POA::_nil();
  m_orb = CORBA::ORB::_nil();
}

std::string Orb::iorFilePath(const std::string& objectId) const {
  return (m_runDir.empty() ? std::string(".") : m_runDir) + "/" + objectId + ".ior";
}

bool Orb::answers() {
  std::string objectId;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_advertised.empty()) {
      return false;
    }
    objectId = m_advertised.begin()->first;
  }
  try {
    PortableServer::ObjectId_var oid = PortableServer::string_to_ObjectId(objectId.c_str());
    CORBA::Object_var ref = m_insPoa->id_to_reference(oid.in());
    return !ref->_non_existent();
  } catch (...) {
    return false;
  }
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
