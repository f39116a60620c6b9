// A private installation root for one test, with a helper to write the master
// configuration. Restores the previous $VREST_ROOT when it goes.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "support/TempRoot.h"

class PlatformTestRoot {
 public:
  PlatformTestRoot() : m_previous(std::getenv("VREST_ROOT") ? std::getenv("VREST_ROOT") : "") {
    m_root.exportAsVrestRoot();
  }
  ~PlatformTestRoot() { setenv("VREST_ROOT", m_previous.c_str(), 1); }

  std::string etcDir() const { return m_root.file("etc"); }
  std::string confPath() const { return m_root.file("etc/vr.conf"); }

  void writeConf(const std::string& text) const {
    ::mkdir(etcDir().c_str(), 0755);
    writeFile(confPath(), text);
  }

  std::string readConf() const { return readFile(confPath()); }

 private:
  TempRoot m_root{"vrkms-plat"};
  std::string m_previous;
};
