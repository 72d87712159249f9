#include "steps/failures.hpp"

#include <utility>

namespace rv {

namespace {

std::vector<std::string> gFailures;

}  // namespace

void step_failed(std::string what) { gFailures.push_back(std::move(what)); }

std::vector<std::string> take_step_failures() { return std::exchange(gFailures, {}); }

}  // namespace rv
