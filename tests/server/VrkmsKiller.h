// A child process that kills with SIGKILL on request: told a process id and
// a window, it waits a delay drawn from its own generator (seeded once, so
// that a run can be replayed) somewhere in that window, kills, and reports
// the kill back. It is forked by the constructor and does nothing but read,
// sleep, kill and write, which a child of a threaded process may do.
//
// The owner must not reap the process it handed over before the report
// came: until then the killer may still signal that id.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <random>

class Killer {
 public:
  struct Order {
    pid_t pid;
    int32_t windowMicros;
  };
  struct Report {
    pid_t pid;
    int32_t delayMicros;
    int32_t killResult;  // what kill() gave
  };

  explicit Killer(uint64_t seed) {
    int orders[2];
    int reports[2];
    if (::pipe2(orders, O_CLOEXEC) != 0 || ::pipe2(reports, O_CLOEXEC) != 0) {
      return;
    }
    m_pid = ::fork();
    if (m_pid == 0) {
      ::close(orders[1]);
      ::close(reports[0]);
      serve(orders[0], reports[1], seed);
    }
    ::close(orders[0]);
    ::close(reports[1]);
    m_orders = orders[1];
    m_reports = reports[0];
  }

  // Stops and reaps the killer; a kill it still had pending is not done.
  ~Killer() {
    if (m_orders >= 0) {
      ::close(m_orders);
      ::close(m_reports);
    }
    if (m_pid > 0) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
  }
  Killer(const Killer&) = delete;
  Killer& operator=(const Killer&) = delete;

  bool running() const { return m_pid > 0 && m_orders >= 0; }
  bool armed() const { return m_armed; }

  // Asks for `pid` to be killed within `window` from now. False when the
  // killer cannot be told.
  bool arm(pid_t pid, std::chrono::microseconds window) {
    const Order order{pid, static_cast<int32_t>(window.count())};
    if (::write(m_orders, &order, sizeof order) != static_cast<ssize_t>(sizeof order)) {
      return false;
    }
    m_armed = true;
    return true;
  }

  // Waits up to `limit` for the report of the pending kill; false when none
  // came.
  bool awaitReport(std::chrono::milliseconds limit, Report* report) {
    pollfd ready{m_reports, POLLIN, 0};
    if (::poll(&ready, 1, static_cast<int>(limit.count())) != 1) {
      return false;
    }
    if (::read(m_reports, report, sizeof *report) != static_cast<ssize_t>(sizeof *report)) {
      return false;
    }
    m_armed = false;
    return true;
  }

 private:
  [[noreturn]] static void serve(int orders, int reports, uint64_t seed) {
    std::mt19937_64 random(seed);
    Order order;
    while (::read(orders, &order, sizeof order) == static_cast<ssize_t>(sizeof order)) {
      const int32_t delay =
          order.windowMicros > 0 ? static_cast<int32_t>(random() % (order.windowMicros + 1)) : 0;
      timespec left{delay / 1000000, (delay % 1000000) * 1000L};
      while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
      }
      const Report report{order.pid, delay, ::kill(order.pid, SIGKILL)};
      if (::write(reports, &report, sizeof report) != static_cast<ssize_t>(sizeof report)) {
        break;
      }
    }
    ::_exit(0);
  }

  pid_t m_pid = -1;
  int m_orders = -1;
  int m_reports = -1;
  bool m_armed = false;
};
