// What is shown of the measurements: medians over the rounds, as tables or as JSON.
#pragma once

#include <string>
#include <vector>

#include "bench/Rounds.h"

// {"schema":1,"rows":[{"workload","size","work","contender","ns","bytes_per_region"}]}
std::string reportAsJson(const std::vector<SubjectSamples>& subjects);

// A table for each subject, times with how often the locator's fits into them; then how the times
// grow with the size.
std::string reportAsTables(const std::vector<SubjectSamples>& subjects,
                           const std::vector<std::string>& contenders);
