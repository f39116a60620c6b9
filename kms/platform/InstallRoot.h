// The installation root of the product. Every fixed path that the product
// documents under "/usr/vrest" is taken relative to $VREST_ROOT instead, so that
// tests and sandboxes run against a private tree.
#pragma once

#include <string>

namespace InstallRoot {

// $VREST_ROOT when set and not empty, otherwise "/usr/vrest". Read on every call.
std::string root();

// root() joined with a path relative to it, e.g. path("kms/vrkms.conf").
std::string path(const std::string& relative);

}  // namespace InstallRoot
