#include "kms/platform/framework/FrameworkRegistrar.h"

#include <Framework.h>

#include "kms/platform/framework/FrameworkLog.h"
#include "kms/platform/framework/Orb.h"

namespace Ardentis {
namespace Vaultrest {
namespace TL {
namespace Framework {

namespace {

namespace OBV_Framework = ::OBV_Ardentis::Vaultrest::TL::Framework;

thread_local int t_detailDepth = 0;

// Exception details that refuse to be read deeper than kMaxDetailDepth.
template <typename Details>
class BoundedDetails : public Details {
 public:
  void _PR_unmarshal_state(cdrStream& stream) override {
    if (t_detailDepth >= FrameworkRegistrar::kMaxDetailDepth) {
      throw CORBA::MARSHAL(0, CORBA::COMPLETED_MAYBE);
    }
    ++t_detailDepth;
    struct Leave {
      ~Leave() { --t_detailDepth; }
    } leave;
    Details::_PR_unmarshal_state(stream);
  }
};

template <typename Details, typename Factory>
class BoundedFactory : public Factory {
 public:
  CORBA::ValueBase* create_for_unmarshal() override { return new BoundedDetails<Details>(); }
};

template <typename Factory>
void registerFactory(CORBA::ORB_ptr orb, const char* repositoryId) {
  CORBA::ValueFactoryBase_var factory = new Factory();
  // A factory registered before under the id is handed back, and let go here.
  const CORBA::ValueFactoryBase_var previous =
      orb->register_value_factory(repositoryId, factory.in());
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
  registerFactory<
      BoundedFactory<OBV_Framework::ServiceExceptionDetails, ServiceExceptionDetails_init>>(
      orb, ServiceExceptionDetails::_PD_repoId);
  registerFactory<
      BoundedFactory<OBV_Framework::ErrorCodeExceptionDetails, ErrorCodeExceptionDetails_init>>(
      orb, ErrorCodeExceptionDetails::_PD_repoId);
  registerFactory<BoundedFactory<OBV_Framework::IllegalArgumentExceptionDetails,
                                 IllegalArgumentExceptionDetails_init>>(
      orb, IllegalArgumentExceptionDetails::_PD_repoId);
  return 0;
}

}  // namespace Framework
}  // namespace TL
}  // namespace Vaultrest
}  // namespace Ardentis
