// The commands of lqreg. Each adds its description and its options to the command line, with what it does;
// see the file of the same name. `registry` has its focus once the line is parsed.
#pragma once

#include "common/command_line.h"
#include "lqregistry/LQPlatformInfo.h"

void addGet(programs::CommandLine& line, LQPlatformInfo& registry);
void addSet(programs::CommandLine& line, LQPlatformInfo& registry);
void addDelete(programs::CommandLine& line, LQPlatformInfo& registry);
void addList(programs::CommandLine& line, LQPlatformInfo& registry);
void addTree(programs::CommandLine& line, LQPlatformInfo& registry);
void addExport(programs::CommandLine& line, LQPlatformInfo& registry);
void addImport(programs::CommandLine& line, LQPlatformInfo& registry);
