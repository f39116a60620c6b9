#include "kms/client/PassphraseReader.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

#include <openssl/crypto.h>

#include "kms/client/CtlCommandLine.h"
#include "kms/platform/SecureFGets.h"

namespace Vaultrest {
namespace DL {
namespace KMSCtl {

namespace {

// The longest passphrase a prompt takes, line end included.
constexpr int kMaxPromptLength = 1023;

// The text up to its first line end ("\n" or "\r\n").
std::string firstLine(const std::string& text) {
  std::string line = text.substr(0, text.find('\n'));
  if (!line.empty() && line.back() == '\r') {
    line.pop_back();
  }
  return line;
}

Secret ask(const std::string& prompt) {
  std::vector<char> buffer(kMaxPromptLength + 1, '\0');
  std::cerr << prompt << std::flush;
  const char* line = SecureFGets(buffer.data(), kMaxPromptLength, stdin);
  std::cerr << std::endl;
  if (line == nullptr) {
    OPENSSL_cleanse(buffer.data(), buffer.size());
    throw UsageError("no passphrase was entered");
  }
  Secret answer(firstLine(std::string(buffer.data())));
  OPENSSL_cleanse(buffer.data(), buffer.size());
  return answer;
}

}  // namespace

Secret PassphraseReader::read(const std::string& file, Need need, const std::string& prompt,
                              bool confirm) {
  if (!file.empty()) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      throw UsageError("cannot read the passphrase file " + file + ": " + std::strerror(errno));
    }
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Secret secret(firstLine(content));
    OPENSSL_cleanse(&content[0], content.size());
    return secret;
  }
  if (::isatty(STDIN_FILENO) == 0) {
    if (need == kRequired) {
      throw UsageError("a passphrase is needed: give --passphrase-file FILE");
    }
    return Secret();
  }
  for (;;) {
    Secret first = ask(prompt);
    if (!confirm) {
      return first;
    }
    Secret second = ask("Again: ");
    if (first.str() == second.str()) {
      return first;
    }
    std::cerr << "The two passphrases differ; try again." << std::endl;
  }
}

}  // namespace KMSCtl
}  // namespace DL
}  // namespace Vaultrest
