// Finds the running processes of one program by name, over /proc.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

class ProcessHandler {
 public:
  explicit ProcessHandler(std::string name) : m_name(std::move(name)) {}

  // Ids of the live processes whose command name (/proc/<pid>/comm) or base
  // name of argv[0] equals the name, ascending. The calling process and
  // zombies are left out. Processes that vanish or cannot be read while the
  // list is made are skipped; an unreadable /proc gives an empty list.
  std::vector<pid_t> getProcessIDs() const;

 private:
  std::string m_name;
};
