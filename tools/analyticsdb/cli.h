// cli.h - the command line: arguments in, exit status out.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace adbtool {

// Exit statuses: 0 done, 1 a runtime error (one line "analyticsdb: ..." on `err`), 2 a usage
// error or a refusal, 3 to 6 the failures of session.h's Failure that scripts may handle. `args`
// excludes the program name. `outIsTerminal` lets charts use the terminal width.
int runTool(const std::vector<std::string> &args, std::ostream &out, std::ostream &err,
            bool outIsTerminal = false);

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitBusy = 3;
inline constexpr int kExitMissing = 4;
inline constexpr int kExitDamaged = 5;
inline constexpr int kExitPermission = 6;

} // namespace adbtool
