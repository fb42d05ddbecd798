// The unit tests' own aging service client: every call is journalled in memory and answered
// as a daemon that is not there would answer, so no test reaches the factory's daemon (or
// the simulator's files) and every test can see which calls the code made.
#pragma once

#include <string>
#include <vector>

namespace stand_in {

// The calls received since the last clear, one line each, e.g. "cleanEnvDone 2 1".
std::vector<std::string> journal();
void clear_journal();

}  // namespace stand_in
