// The indexes that the locator is measured against.
#pragma once

#include <memory>

#include "bench/Contender.h"

// New, empty indexes. Of those that need a library, only the ones are defined whose library was
// there when the build was configured.
std::unique_ptr<Contender> makeMapContender();  // std::map
std::unique_ptr<Contender> makeAbslContender(); // absl::btree_map
std::unique_ptr<Contender> makeIclContender();  // boost::icl::interval_map
std::unique_ptr<Contender> makeLlvmContender(); // llvm::IntervalMap

// Lookups alone: filled once, then a sorted array below a static tree of its first blocks. What
// memory allows an index that never changes.
std::unique_ptr<Contender> makeIdealContender();
