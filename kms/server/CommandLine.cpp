#include "kms/server/CommandLine.h"

#include <ace/Arg_Shifter.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>

#include "kms/platform/CrvnLis.h"
#include "kms/server/diagnostics/Log.h"
#include "kms/server/diagnostics/Messages.h"

namespace Vaultrest {
namespace DL {
namespace KMS {

namespace {

constexpr int kThisProgram = 286;
constexpr int kStatusCatalogue = 271;
constexpr int kMsgSuccess = 83;
constexpr int kMsgRegister = 94;

// getECmsg() without the null: a null text would put the stream that
// receives it into its failed state.
const char* statusText(int status) {
  const char* text = getECmsg(status);
  return text != nullptr ? text : "";
}

// The catalogue text, or false after logging the failure under `label`.
bool catalogueText(const char* label, int originator, int messageId, std::string* text) {
  try {
    *text = GetCxULMessageEx(originator, messageId);
    return true;
  } catch (...) {
    KMS_DEBUG(label, 1, "Message catalog error!");
    return false;
  }
}

bool isMaskedFlag(ACE_Arg_Shifter_T<char>& shifter) {
  return shifter.cur_arg_strncasecmp("-hmkpass") == 0 ||
         shifter.cur_arg_strncasecmp("-kpkpass") == 0;
}

}  // namespace

void logCommand(int argc, char** argv) {
  KMS_TRACE("logCommand");
  ACE_Arg_Shifter_T<char> shifter(argc, argv);
  std::string line;
  while (shifter.is_anything_left()) {
    line += shifter.get_current();
    if (isMaskedFlag(shifter)) {
      // The passphrase after the flag is consumed below, never copied.
      shifter.consume_arg(1);
      line += " ******";
    }
    line += " ";
    shifter.consume_arg(1);
  }
  KMS_DEBUG("vrkms: logCommand", 1, "Command Line Args: " << line);
}

void printKmsUsage() {
  std::cerr << "\nUSAGE: Vaultrest key management service\n\n"
            << "   vrkms [ -createemptydb | -info | -resethmk | -resetkpk ]" << std::endl;
}

int kmsStatus(int status) {
  KMS_TRACE("kmsStatus");
  std::string text;
  if (status == 0) {
    if (!catalogueText("kmsExitWithStatus", kThisProgram, kMsgSuccess, &text)) {
      text = "Operation successfully completed";
    }
    std::cerr << "\n" << text << std::endl;
    return 0;
  }
  if (!catalogueText("kmsExitWithStatus", kStatusCatalogue, status, &text)) {
    text = statusText(status);
  }
  std::cerr << "\n" << text << std::endl;
  std::cerr << "EXIT STATUS"
            << " = " << status << std::endl;
  if (static_cast<uint32_t>(status) > 255) {
    KMS_DEBUG("kmsStatus", 1, "Actual Error Code: " << status << " (" << statusText(status) << ")");
    return kExitStatusOverflow;
  }
  return status;
}

void kmsExit(int status) {
  KMS_DEBUG("kmsExit", 1, "Exiting with Status: " << status << " (" << statusText(status) << ")");
  std::exit(status);
}

void kmsPromptCheckMessage() {
  KMS_TRACE("kmsPromptCheckMessage");
  std::string text;
  if (!catalogueText("kmsPromptCheckMessage", kThisProgram, kMsgRegister, &text)) {
    return;
  }
  KMS_DEBUG("kmsPromptCheckMessage", 1, "Message to register VRKMS");
  std::cout << "\n" << text << std::endl;
}

void printOperationAdvice(int messageId) {
  std::string text;
  if (catalogueText("printOperationAdvice", kThisProgram, messageId, &text)) {
    std::cerr << "\n" << text << std::endl;
  }
}

}  // namespace KMS
}  // namespace DL
}  // namespace Vaultrest
