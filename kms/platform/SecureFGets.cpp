#include "kms/platform/SecureFGets.h"

#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <climits>

namespace {

// A signal that ends the process during a read without echo must not leave
// the terminal that way. While echo is off, these signals (unless ignored)
// go to a handler that puts the terminal's settings back, restores the
// signal's previous action and raises it again. One secret read at a time
// per process: the handler's state is process-wide.
constexpr int kEndingSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr int kSignalCount = sizeof(kEndingSignals) / sizeof(kEndingSignals[0]);

int g_terminal = -1;
struct termios g_saved;
struct sigaction g_previous[kSignalCount];
bool g_installed[kSignalCount];

extern "C" void restoreEchoAndRaise(int signal) {
  tcsetattr(g_terminal, TCSANOW, &g_saved);
  for (int i = 0; i < kSignalCount; ++i) {
    if (kEndingSignals[i] == signal && g_installed[i]) {
      sigaction(signal, &g_previous[i], nullptr);
      g_installed[i] = false;
    }
  }
  raise(signal);  // delivered, with the previous action, once this returns
}

void catchEndingSignals(int fd, const struct termios& saved) {
  g_terminal = fd;
  g_saved = saved;
  struct sigaction action {};
  action.sa_handler = restoreEchoAndRaise;
  sigfillset(&action.sa_mask);
  for (int i = 0; i < kSignalCount; ++i) {
    g_installed[i] = sigaction(kEndingSignals[i], nullptr, &g_previous[i]) == 0 &&
                     g_previous[i].sa_handler != SIG_IGN &&
                     sigaction(kEndingSignals[i], &action, nullptr) == 0;
  }
}

void releaseEndingSignals() {
  for (int i = 0; i < kSignalCount; ++i) {
    if (g_installed[i]) {
      sigaction(kEndingSignals[i], &g_previous[i], nullptr);
      g_installed[i] = false;
    }
  }
}

}  // namespace

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
    catchEndingSignals(fd, saved);
    if (tcsetattr(fd, TCSANOW, &quiet) != 0) {
      releaseEndingSignals();
      return nullptr;  // never read a secret with echo on
    }
  }
  char* result = std::fgets(buf, size + 1, stream);
  if (terminal) {
    tcsetattr(fd, TCSANOW, &saved);
    releaseEndingSignals();
  }
  return result;
}
