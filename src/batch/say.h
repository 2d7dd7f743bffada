// The batch's one voice: every warning and error it prints goes through
// here, as "framealign-batch: <message>" on standard error, a line at a
// time whichever worker says it.
#pragma once

#include <string>

void say(const std::string& message);
