// The kinds of exports behind ServedExport::open().
#pragma once

#include "appliance/ServedExport.h"

// As ServedExport::open(), which counts it.
Result openExportKind(ServedMirror& served, const std::string& name,
                      std::unique_ptr<ServedExport>* opened);
