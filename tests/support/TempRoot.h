// A temporary directory, removed with everything in it when the object dies.
#pragma once

#include <string>

class TempRoot {
 public:
  explicit TempRoot(const std::string& prefix = "vrkms");
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& path() const { return m_path; }
  std::string file(const std::string& relative) const { return m_path + "/" + relative; }
  // Sets $VREST_ROOT to this directory for the rest of the process.
  void exportAsVrestRoot() const;

 private:
  std::string m_path;
};

// Whether `path` names a file, directory or link.
bool exists(const std::string& path);
// The bytes of the file at `path`, "" when it cannot be read.
std::string readFile(const std::string& path);
// `bytes` as the whole file at `path`; then `mode`, when one is given.
void writeFile(const std::string& path, const std::string& bytes, int mode = -1);
