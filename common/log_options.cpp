#include "common/log_options.h"

#include "lqregistry/ObLog.h"

namespace programs {

CWmError configureLog(const LogOptions& options) {
  oblog::Settings settings;
  settings.threshold = options.level;
  settings.file = options.file;
  settings.toStandardError = options.file.empty();
  return oblog::Configure(settings);
}

}  // namespace programs
