#include "kms/platform/framework/FrameworkRegistrar.h"

#include <Framework.h>

#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/Orb.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

template <typename Factory>
void registerFactory(CORBA::ORB_ptr orb, const char* repositoryId) {
  CORBA::ValueFactoryBase_var factory = new Factory();
  CORBA::ValueFactory previous = orb->register_value_factory(repositoryId, factory.in());
  if (previous != nullptr) {
    previous->_remove_ref();
  }
}

}  // namespace

int FrameworkRegistrar::init(Orb* orb) {
  if (orb == nullptr || !orb->isInitialized()) {
    FW_DEBUG("FrameworkRegistrar::init", 1, "No ORB to register the value factories with");
    return -1;
  }
  return init(orb->orb());
}

int FrameworkRegistrar::init(CORBA::ORB_ptr orb) {
  FW_TRACE_THIS("FrameworkRegistrar::init");
  if (CORBA::is_nil(orb)) {
    return -1;
  }
  registerFactory<ExpansionAttribute_init>(orb, ExpansionAttribute::_PD_repoId);
  registerFactory<BaseObject_init>(orb, BaseObject::_PD_repoId);
  registerFactory<MessageItem_init>(orb, MessageItem::_PD_repoId);
  registerFactory<NumericMessageItem_init>(orb, NumericMessageItem::_PD_repoId);
  registerFactory<StringMessageItem_init>(orb, StringMessageItem::_PD_repoId);
  registerFactory<Message_init>(orb, Message::_PD_repoId);
  registerFactory<ServiceExceptionDetails_init>(orb, ServiceExceptionDetails::_PD_repoId);
  registerFactory<ErrorCodeExceptionDetails_init>(orb, ErrorCodeExceptionDetails::_PD_repoId);
  registerFactory<IllegalArgumentExceptionDetails_init>(
      orb, IllegalArgumentExceptionDetails::_PD_repoId);
  return 0;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
