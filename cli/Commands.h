// The commands of rlctl, one file each: each adds itself to the option tree.
#pragma once

#include "cli/Context.h"

void addCreate(CLI::App& app, Context& context);
void addCapture(CLI::App& app, Context& context);
void addRecord(CLI::App& app, Context& context);
void addCheckpoint(CLI::App& app, Context& context);
void addCheckpoints(CLI::App& app, Context& context);
void addInfo(CLI::App& app, Context& context);
void addStats(CLI::App& app, Context& context);
void addLookup(CLI::App& app, Context& context);
void addRead(CLI::App& app, Context& context);
void addExport(CLI::App& app, Context& context);
void addDiff(CLI::App& app, Context& context);
void addHistory(CLI::App& app, Context& context);
void addBackup(CLI::App& app, Context& context);
void addRestore(CLI::App& app, Context& context);
void addSet(CLI::App& app, Context& context);
void addHold(CLI::App& app, Context& context);
void addRelease(CLI::App& app, Context& context);
void addApply(CLI::App& app, Context& context);
void addTrim(CLI::App& app, Context& context);
void addServe(CLI::App& app, Context& context);
void addVerify(CLI::App& app, Context& context);
void addEvents(CLI::App& app, Context& context);
void addCompletion(CLI::App& app, Context& context);
