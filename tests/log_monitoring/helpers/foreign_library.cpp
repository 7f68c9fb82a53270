// A library that can be loaded, but holds none of the helper's procedures.
#include "lqregistry/LqExport.h"

extern "C" LQ_EXPORT void somethingElse();
void somethingElse() {}
