#include "kms/platform/SecureFGets.h"

#include <termios.h>
#include <unistd.h>

#include <climits>

char* SecureFGets(char* buf, int size, FILE* stream) {
  if (buf == nullptr || stream == nullptr || size < 1 || size == INT_MAX) {
    return nullptr;
  }
  const int fd = fileno(stream);
  struct termios saved;
  const bool terminal = fd >= 0 && isatty(fd) && tcgetattr(fd, &saved) == 0;
  if (terminal) {
    struct termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
    if (tcsetattr(fd, TCSANOW, &quiet) != 0) {
      return nullptr;  // never read a secret with echo on
    }
  }
  char* result = std::fgets(buf, size + 1, stream);
  if (terminal) {
    tcsetattr(fd, TCSANOW, &saved);
  }
  return result;
}
