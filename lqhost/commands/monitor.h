// `lqhost monitor` and `lqhost alerts`: the two log-monitoring checks, once now.
#pragma once

namespace host {

// The log-space check; on the server's own machine it also clears the work directory. The program's exit
// code.
int monitor();

// The alert rules, where the Index Server package is installed. The program's exit code.
int alerts();

}  // namespace host
