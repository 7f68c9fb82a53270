// The one export macro. Everything is built with hidden visibility; what host modules and programs call is
// marked with LQ_EXPORT.
#pragma once

#define LQ_EXPORT __attribute__((visibility("default")))
