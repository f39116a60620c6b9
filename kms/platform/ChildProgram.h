// Runs one program as a child process, waits for it and keeps what it wrote
// on its standard output. Standard input is /dev/null; standard error is
// inherited, or /dev/null when asked.
#pragma once

#include <string>
#include <vector>

struct ChildProgramResult {
  bool ran = false;  // false: it could not be started, or did not exit normally
  int exitStatus = -1;
  std::string output;
};

class ChildProgram {
 public:
  // `argv[0]` is a path, or a bare name looked up in PATH. Never throws;
  // an empty `argv` gives a result that did not run.
  static ChildProgramResult run(const std::vector<std::string>& argv, bool quietErrors = false);
};
