// The settings cache as it stood when a pass began, which tells what a value should have held then. It is
// held open, so that it can be read after the pass has put another in its place, and costs nothing when it is
// not.
#pragma once

#include "lqregistry/FXFile.h"
#include "lqregistry/OBGui.h"

namespace host {

class CacheBefore {
 public:
  // Of the instance in focus. The file may be missing, or one that others may write: it says nothing then.
  CacheBefore();

  // What it holds, the records marked by what had expired when it was written; empty when it says nothing.
  OBGui::KeyList records() const;

 private:
  auto_handle file_;
};

}  // namespace host
