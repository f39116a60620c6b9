#include "kms/server/KMSServiceExceptionHelper.h"

#include <ace/OS_NS_sys_utsname.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "kms/platform/CrvnLis.h"

using Ardentis::Vaultrest::DL::KMS::KMSServiceExceptionHelper;
namespace Fw = Ardentis::Vaultrest::TL::Framework;

namespace {

const Fw::ErrorCodeExceptionDetails* codedDetails(const Fw::ServiceException& e) {
  return Fw::ErrorCodeExceptionDetails::_downcast(e.details.in());
}

}  // namespace

TEST(KMSServiceExceptionHelper, FillsTheDetailsAClientReads) {
  const time_t before = time(nullptr);
  KMSServiceExceptionHelper helper("KMSControlFacetImpl::isQuiesced", 1202);
  const Fw::ErrorCodeExceptionDetails* details = codedDetails(helper.exception());
  ASSERT_NE(details, nullptr);
  EXPECT_EQ(details->errorCode(), 1202);
  EXPECT_STREQ(details->originatingService(), "vrkms");
  EXPECT_STREQ(details->exceptionClassName(), "ServiceException");
  EXPECT_STREQ(details->originatingMethod(), "KMSControlFacetImpl::isQuiesced");
  ACE_utsname name;
  ASSERT_EQ(ACE_OS::uname(&name), 0);
  EXPECT_EQ(std::string(details->originatingHost()), std::string(name.nodename).substr(0, 64));
  EXPECT_GE(details->timeStamp(), before);
  EXPECT_LE(details->timeStamp(), time(nullptr));
  EXPECT_STREQ(details->originatingClass(), "");
  EXPECT_EQ(details->message(), nullptr);
  EXPECT_EQ(details->rootCauses().length(), 0u);

  try {
    helper.raise();
    FAIL();
  } catch (const Fw::ServiceException& e) {
    ASSERT_NE(codedDetails(e), nullptr);
    EXPECT_EQ(codedDetails(e)->errorCode(), 1202);
  }
}

TEST(KMSServiceExceptionHelper, TextNamesCodeMethodHostAndTime) {
  KMSServiceExceptionHelper helper("KMSMgrImpl::getEximFacet", 1200);
  const std::string text = helper.str();
  const std::string expectedStart = " Error code 1200 (" + std::string(getECmsg(1200)) +
                                    ") in method KMSMgrImpl::getEximFacet on host ";
  EXPECT_EQ(text.substr(0, expectedStart.size()), expectedStart) << text;
  const time_t when = static_cast<time_t>(codedDetails(helper.exception())->timeStamp());
  char timeText[64];
  ctime_r(&when, timeText);
  EXPECT_NE(text.find(" at (" + std::string(timeText) + ") "), std::string::npos) << text;

  // A code the catalogue does not know ends the text at its bracket.
  EXPECT_EQ(KMSServiceExceptionHelper("m", 99999).str(), " Error code 99999 (");
}
