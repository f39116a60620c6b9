// The exception of the common crypto library.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace CmnCrypto {

class CmnException : public std::exception {
 public:
  explicit CmnException(std::string message) : m_message(std::move(message)) {}
  const char* what() const noexcept override { return m_message.c_str(); }

 private:
  std::string m_message;
};

}  // namespace CmnCrypto
